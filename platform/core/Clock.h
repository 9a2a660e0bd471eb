#pragma once

#include <limits>

namespace Ravel {

using Seconds = double;
constexpr Seconds kNever = std::numeric_limits<Seconds>::infinity();

class Clock {
 public:
   virtual ~Clock() = default;
   virtual Seconds now() const = 0;
};

// CLOCK_MONOTONIC in seconds.
class MonotonicClock : public Clock {
 public:
   Seconds now() const override;
};

// Time moves only when a test says so.
class SimulatedClock : public Clock {
 public:
   explicit SimulatedClock(Seconds start = 1000.0) : now_(start) {}
   Seconds now() const override { return now_; }
   void advance(Seconds d) { now_ += d; }
   void set(Seconds t) { now_ = t; }

 private:
   Seconds now_;
};

}  // namespace Ravel
