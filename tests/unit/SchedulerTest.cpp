#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/core/Scheduler.h"
#include "tests/unit/YieldAfter.h"

namespace Ravel {
namespace {

struct SchedulerTest : ::testing::Test {
   std::shared_ptr<SimulatedClock> clock = std::make_shared<SimulatedClock>();
   Scheduler sched{clock};
   std::vector<std::string> log;

   std::unique_ptr<Task> task(const std::string& name, int prio) {
      return std::make_unique<Task>(sched, name, prio, [this, name] { log.push_back(name); });
   }
};

TEST_F(SchedulerTest, RunsByPriorityThenArrival) {
   struct Case {
      std::vector<std::pair<std::string, int>> scheduled;  // in scheduling order
      std::vector<std::string> expected;
   };
   const Case cases[] = {
       {{{"a", 3}, {"b", 1}, {"c", 3}, {"d", 2}}, {"b", "d", "a", "c"}},
       {{{"x", 4}, {"y", 4}, {"z", 4}}, {"x", "y", "z"}},
       {{{"low", 5}, {"high", 0}}, {"high", "low"}},
   };
   for (auto& c : cases) {
      log.clear();
      std::vector<std::unique_ptr<Task>> tasks;
      for (auto& [name, prio] : c.scheduled) {
         tasks.push_back(task(name, prio));
         tasks.back()->scheduleTask();
      }
      sched.runUntilIdle();
      EXPECT_EQ(log, c.expected);
   }
}

TEST_F(SchedulerTest, SchedulingTwiceRunsOnceAndRescheduleGoesToNextPass) {
   int runs = 0;
   Task* self = nullptr;
   Task t(sched, "self", 3, [&] {
      if (++runs < 3)
         self->scheduleTask();
   });
   self = &t;
   t.scheduleTask();
   t.scheduleTask();
   EXPECT_EQ(sched.runOnce(0), 1u);  // the reschedule waits for the next pass
   EXPECT_EQ(runs, 1);
   sched.runUntilIdle();
   EXPECT_EQ(runs, 3);
}

TEST_F(SchedulerTest, DestroyedTaskNeverRuns) {
   auto t = task("gone", 3);
   t->scheduleTask();
   t.reset();
   EXPECT_EQ(sched.runUntilIdle(), 0u);
   EXPECT_TRUE(log.empty());
}

TEST_F(SchedulerTest, ForcedYieldAfterNQuestionsPerRun) {
   sched.yieldPolicyIs(std::make_unique<test::YieldAfter>(3));
   std::vector<int> itemsPerRun;
   int remaining = 10;
   Task* self = nullptr;
   Task t(sched, "loop", 3, [&] {
      int n = 0;
      while (remaining > 0) {
         --remaining;
         ++n;
         if (sched.taskShouldYield())
            break;
      }
      itemsPerRun.push_back(n);
      if (remaining > 0)
         self->scheduleTask();
   });
   self = &t;
   t.scheduleTask();
   sched.runUntilIdle();
   EXPECT_EQ(itemsPerRun, (std::vector<int>{3, 3, 3, 1}));
}

TEST_F(SchedulerTest, TimerKeepsLowestDelayAndRunsDisarmed) {
   Seconds seenExpiration = 0;
   TimerTask* self = nullptr;
   TimerTask timer(sched, "timer", 3, [&] {
      log.push_back("fired");
      seenExpiration = self->currentExpirationTime();
   });
   self = &timer;
   EXPECT_EQ(timer.currentExpirationTime(), kNever);
   Seconds start = clock->now();
   timer.scheduleTaskDelay(2.0);
   timer.scheduleTaskDelay(5.0);  // later: ignored
   timer.scheduleTaskDelay(1.0);  // earlier: wins
   EXPECT_DOUBLE_EQ(timer.currentExpirationTime(), start + 1.0);
   sched.advance(0.999);
   EXPECT_TRUE(log.empty());
   sched.advance(0.001);
   EXPECT_EQ(log, std::vector<std::string>{"fired"});
   EXPECT_EQ(seenExpiration, kNever);
   sched.advance(10);
   EXPECT_EQ(log.size(), 1u);  // not periodic
}

TEST_F(SchedulerTest, TimersFireInExpirationOrderAtTheirOwnTime) {
   std::vector<std::pair<std::string, Seconds>> fired;
   std::vector<std::unique_ptr<TimerTask>> timers;
   Seconds start = clock->now();
   for (auto [name, delay] :
        std::vector<std::pair<std::string, Seconds>>{{"c", 0.3}, {"a", 0.1}, {"b", 0.2}}) {
      timers.push_back(std::make_unique<TimerTask>(
          sched, name, 3, [&, name = name] { fired.emplace_back(name, clock->now() - start); }));
      timers.back()->scheduleTaskDelay(delay);
   }
   timers[2]->cancel();  // "b"
   sched.advance(1.0);
   ASSERT_EQ(fired.size(), 2u);
   EXPECT_EQ(fired[0].first, "a");
   EXPECT_NEAR(fired[0].second, 0.1, 1e-9);
   EXPECT_EQ(fired[1].first, "c");
   EXPECT_NEAR(fired[1].second, 0.3, 1e-9);
}

TEST_F(SchedulerTest, FdTaskOneShotAndLevelTriggeredWatch) {
   int efd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
   ASSERT_GE(efd, 0);
   int runs = 0;
   FdTask t(sched, "fd", 3, efd, [&] { ++runs; });
   uint64_t one = 1;
   ASSERT_EQ(write(efd, &one, sizeof one), 8);

   sched.runUntilIdle();
   EXPECT_EQ(runs, 0);  // not watched

   t.scheduleTaskReadable();
   sched.runOnce(0);  // poll marks it runnable
   sched.runOnce(0);  // runs once and disarms
   sched.runUntilIdle();
   EXPECT_EQ(runs, 1);

   t.taskWatchReadableIs(true);
   for (int i = 0; i < 4; ++i)
      sched.runOnce(0);
   EXPECT_GE(runs, 3);  // still readable: runs on every pass

   uint64_t v;
   ASSERT_EQ(read(efd, &v, sizeof v), 8);
   int before = runs;
   for (int i = 0; i < 4; ++i)
      sched.runOnce(0);
   EXPECT_LE(runs, before + 1);  // drained: at most the pass already queued

   t.taskWatchReadableIs(false);
   ASSERT_EQ(write(efd, &one, sizeof one), 8);
   before = runs;
   sched.runUntilIdle();
   EXPECT_EQ(runs, before);
   close(efd);
}

TEST_F(SchedulerTest, RealClockYieldsAfterTimeSlice) {
   Scheduler real(std::make_shared<MonotonicClock>(), std::make_unique<TimeSliceYield>(0.001));
   int questions = 0;
   bool yielded = false;
   Task t(real, "spin", 3, [&] {
      while (!(yielded = real.taskShouldYield()) && questions < 100000000)
         ++questions;
   });
   t.scheduleTask();
   real.runOnce(0);
   EXPECT_TRUE(yielded);
}

}  // namespace
}  // namespace Ravel
