#pragma once

// Bounds how often one kind of message is written: at most one per interval, the next one saying
// how many were held back meanwhile. For failures that traffic can repeat at line rate.

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
