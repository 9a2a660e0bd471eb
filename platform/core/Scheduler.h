#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/core/Clock.h"
#include "platform/core/Fd.h"

namespace Ravel {

class Scheduler;

// Common state of the three task kinds. Lower priority numbers run first; equal priorities run
// in the order they became runnable.
class TaskBase {
 public:
   using Handler = std::function<void()>;
   TaskBase(Scheduler& sched, std::string name, int priority, Handler handler);
   TaskBase(const TaskBase&) = delete;
   TaskBase& operator=(const TaskBase&) = delete;
   virtual ~TaskBase();

   const std::string& name() const { return name_; }
   int priority() const { return priority_; }
   Scheduler& scheduler() const { return sched_; }
   bool runnable() const { return runnable_; }
   uint64_t runCount() const { return runCount_; }

   // Bookkeeping a task keeps about itself for dumps and for the scheduler's idle test.
   void workCountInc(uint64_t n) { workCount_ += n; }
   uint64_t workCount() const { return workCount_; }
   void pendingWorkIs(uint64_t n) { pendingWork_ = n; }
   uint64_t pendingWork() const { return pendingWork_; }
   bool hasPendingWork() const { return pendingWork_ != 0; }

 protected:
   void makeRunnable();
   virtual void beforeRun() {}

 private:
   friend class Scheduler;
   void run();

   Scheduler& sched_;
   std::string name_;
   int priority_;
   Handler handler_;
   bool runnable_ = false;
   uint64_t seq_ = 0;
   uint64_t runCount_ = 0;
   uint64_t workCount_ = 0;
   uint64_t pendingWork_ = 0;
};

// Runs its handler once per scheduleTask(); scheduling an already runnable task is a no-op.
class Task : public TaskBase {
 public:
   using TaskBase::TaskBase;
   void scheduleTask() { makeRunnable(); }
};

// Runs its handler once when its expiration time passes. Arming with a later time than the
// current one keeps the earlier (lowest delay wins); the handler runs with the timer disarmed.
class TimerTask : public TaskBase {
 public:
   using TaskBase::TaskBase;
   ~TimerTask() override;
   void scheduleTaskDelay(Seconds delay);
   void scheduleTaskAt(Seconds when);
   void cancel();
   Seconds currentExpirationTime() const { return expiration_; }

 private:
   friend class Scheduler;
   Seconds expiration_ = kNever;
};

// Runs its handler when a descriptor is readable: once per scheduleTaskReadable(), or on every
// readiness while taskWatchReadableIs(true) (level-triggered: the handler should drain the fd or
// it runs again on the next pass).
class FdTask : public TaskBase {
 public:
   FdTask(Scheduler& sched, std::string name, int priority, int fd, Handler handler);
   ~FdTask() override;
   int fd() const { return fd_; }
   void scheduleTaskReadable();
   void taskWatchReadableIs(bool watch);
   bool taskWatchReadable() const { return watch_; }
   // Runs the handler while the descriptor is writable (level-triggered, like reading).
   void taskWatchWritableIs(bool watch);

 private:
   friend class Scheduler;
   void beforeRun() override;
   void updateEpoll();
   int fd_;
   bool watch_ = false;
   bool oneShot_ = false;
   bool watchWritable_ = false;
   uint32_t events_ = 0;  // as registered with epoll
};

// When a running task should give the scheduler back. The default is a time slice; tests hand
// in a policy of their own to force yields at chosen points.
class YieldPolicy {
 public:
   virtual ~YieldPolicy() = default;
   // A task run starts.
   virtual void runStarted(Seconds now) = 0;
   // Asked by the running task between work items.
   virtual bool shouldYield(Seconds now) = 0;
};

class TimeSliceYield : public YieldPolicy {
 public:
   explicit TimeSliceYield(Seconds slice = 0.005) : slice_(slice) {}
   void runStarted(Seconds now) override { start_ = now; }
   bool shouldYield(Seconds now) override { return now - start_ >= slice_; }

 private:
   Seconds slice_;
   Seconds start_ = 0;
};

// Single-threaded cooperative scheduler on epoll. Everything of the agent runs inside its loop.
class Scheduler {
 public:
   explicit Scheduler(std::shared_ptr<Clock> clock = std::make_shared<MonotonicClock>(),
                      std::unique_ptr<YieldPolicy> yield = std::make_unique<TimeSliceYield>());
   Scheduler(const Scheduler&) = delete;
   Scheduler& operator=(const Scheduler&) = delete;
   ~Scheduler();

   // The process-wide scheduler tasks are created on. Tests install their own with
   // ScopedDefaultScheduler.
   static Scheduler& defaultScheduler();
   static void defaultIs(Scheduler* s);

   Seconds now() const { return clock_->now(); }
   Clock& clock() const { return *clock_; }

   // Asked by a running task between work items; the yield policy answers. Outside a task run
   // there is nothing to yield to.
   bool taskShouldYield() { return current_ && yield_->shouldYield(now()); }
   void yieldPolicyIs(std::unique_ptr<YieldPolicy> yield) { yield_ = std::move(yield); }
   const TaskBase* currentTask() const { return current_; }

   // One pass: fire expired timers, run every task runnable at the start of the pass (in
   // priority order), then poll descriptors, waiting at most `maxWait` when nothing is runnable.
   // Returns the number of task runs.
   size_t runOnce(Seconds maxWait = 0);
   // Runs passes until stop() is called.
   void run();
   void stop() { stopRequested_ = true; }
   // Test helper: runs passes without waiting until no task is runnable and no timer has
   // expired (descriptors are polled without blocking). Returns the number of task runs.
   size_t runUntilIdle(size_t maxRuns = 1000000);
   // Test helper for simulated clocks: moves time forward in steps, firing each timer at its
   // own expiration time.
   size_t advance(Seconds d);

   size_t runnableCount() const;
   Seconds nextExpiration() const;

 private:
   friend class TaskBase;
   friend class TimerTask;
   friend class FdTask;

   void enqueue(TaskBase* t);
   void forget(TaskBase* t);
   void fireExpiredTimers();
   void poll(Seconds maxWait);

   std::shared_ptr<Clock> clock_;
   Fd epollFd_;
   std::map<std::pair<int, uint64_t>, TaskBase*> runQueue_;  // (priority, seq)
   std::vector<TimerTask*> timers_;
   uint64_t nextSeq_ = 0;
   TaskBase* current_ = nullptr;
   std::unique_ptr<YieldPolicy> yield_;
   bool stopRequested_ = false;
};

class ScopedDefaultScheduler {
 public:
   explicit ScopedDefaultScheduler(Scheduler& s) { Scheduler::defaultIs(&s); }
   ~ScopedDefaultScheduler() { Scheduler::defaultIs(nullptr); }
};

}  // namespace Ravel
