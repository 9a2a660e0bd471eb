#pragma once

// Bounds how often one kind of message is written: at most one per interval, the next one saying
// how many were held back meanwhile. For failures that traffic can repeat at line rate.

#include <algorithm>
#include <cstdint>
#include <optional>

#include "platform/core/Clock.h"

namespace Ravel {

class RateLimit {
 public:
   explicit RateLimit(Seconds interval) : interval_(interval) {}
   // The number held back since the last one let through, or nullopt when this one is held back.
   std::optional<uint64_t> allow(Seconds now) {
      if (now < next_) {
         ++held_;
         return std::nullopt;
      }
      next_ = now + interval_;
      uint64_t held = held_;
      held_ = 0;
      return held;
   }

 private:
   Seconds interval_;
   Seconds next_ = -kNever;
   uint64_t held_ = 0;
};

}  // namespace Ravel

namespace Ravel {

// A token bucket: `rate` tokens a second up to `burst`; rate 0 lets everything through.
class TokenBucket {
 public:
   TokenBucket(double rate, double burst) : rate_(rate), burst_(burst), tokens_(burst) {}
   bool take(Seconds now) {
      if (rate_ <= 0)
         return true;
      if (last_ >= 0)
         tokens_ = std::min(burst_, tokens_ + (now - last_) * rate_);
      last_ = now;
      if (tokens_ < 1)
         return false;
      tokens_ -= 1;
      return true;
   }
   // Full again, and so as good as new.
   bool full(Seconds now) const { return last_ < 0 || tokens_ + (now - last_) * rate_ >= burst_; }

 private:
   double rate_;
   double burst_;
   double tokens_;
   Seconds last_ = -1;
};

}  // namespace Ravel
