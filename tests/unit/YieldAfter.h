#pragma once

#include "platform/core/Scheduler.h"

namespace Ravel::test {

// Yields on the n-th question of every task run, whatever the time: loops that yield can be
// stopped at chosen elements.
class YieldAfter : public YieldPolicy {
 public:
   explicit YieldAfter(uint32_t n) : n_(n) {}
   void runStarted(Seconds) override { asked_ = 0; }
   bool shouldYield(Seconds) override { return ++asked_ >= n_; }

 private:
   uint32_t n_;
   uint32_t asked_ = 0;
};

}  // namespace Ravel::test
