#include "platform/core/Scheduler.h"

#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "platform/core/Assert.h"
#include "platform/core/Errno.h"

namespace Ravel {

Seconds MonotonicClock::now() const {
   timespec ts{};
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<Seconds>(ts.tv_sec) + static_cast<Seconds>(ts.tv_nsec) * 1e-9;
}

namespace {
Scheduler* gDefault = nullptr;
std::unique_ptr<Scheduler> gOwnedDefault;
}  // namespace

Scheduler& Scheduler::defaultScheduler() {
   if (gDefault)
      return *gDefault;
   if (!gOwnedDefault)
      gOwnedDefault = std::make_unique<Scheduler>();
   return *gOwnedDefault;
}

void Scheduler::defaultIs(Scheduler* s) {
   gDefault = s;
}

TaskBase::TaskBase(Scheduler& sched, std::string name, int priority, Handler handler)
    : sched_(sched), name_(std::move(name)), priority_(priority), handler_(std::move(handler)) {
   RAVEL_ASSERT(handler_);
}

TaskBase::~TaskBase() {
   sched_.forget(this);
}

void TaskBase::makeRunnable() {
   if (!runnable_)
      sched_.enqueue(this);
}

void TaskBase::run() {
   ++runCount_;
   beforeRun();
   handler_();
}

void TimerTask::scheduleTaskDelay(Seconds delay) {
   scheduleTaskAt(scheduler().now() + delay);
}

void TimerTask::scheduleTaskAt(Seconds when) {
   if (when >= expiration_)
      return;
   if (expiration_ == kNever)
      scheduler().timers_.push_back(this);
   expiration_ = when;
}

void TimerTask::cancel() {
   if (expiration_ == kNever)
      return;
   expiration_ = kNever;
   std::erase(scheduler().timers_, this);
}

TimerTask::~TimerTask() {
   cancel();
}

FdTask::FdTask(Scheduler& sched, std::string name, int priority, int fd, Handler handler)
    : TaskBase(sched, std::move(name), priority, std::move(handler)), fd_(fd) {
   RAVEL_ASSERT(fd_ >= 0);
}

FdTask::~FdTask() {
   watch_ = oneShot_ = watchWritable_ = false;
   updateEpoll();
}

void FdTask::scheduleTaskReadable() {
   oneShot_ = true;
   updateEpoll();
}

void FdTask::taskWatchReadableIs(bool watch) {
   watch_ = watch;
   updateEpoll();
}

void FdTask::beforeRun() {
   if (oneShot_) {
      oneShot_ = false;
      updateEpoll();
   }
}

void FdTask::taskWatchWritableIs(bool watch) {
   watchWritable_ = watch;
   updateEpoll();
}

void FdTask::updateEpoll() {
   uint32_t want =
       (watch_ || oneShot_ ? uint32_t{EPOLLIN} : 0u) | (watchWritable_ ? uint32_t{EPOLLOUT} : 0u);
   if (want == events_)
      return;
   epoll_event ev{};
   ev.events = want;
   ev.data.ptr = this;
   int op = !want ? EPOLL_CTL_DEL : events_ ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
   if (epoll_ctl(scheduler().epollFd_.get(), op, fd_, &ev) != 0) {
      // A closed descriptor leaves epoll by itself; anything else is a bug of the caller.
      RAVEL_ASSERT_MSG(!want, "epoll_ctl add failed");
   }
   events_ = want;
}

Scheduler::Scheduler(std::shared_ptr<Clock> clock, std::unique_ptr<YieldPolicy> yield)
    : clock_(std::move(clock)), yield_(std::move(yield)) {
   RAVEL_ASSERT(clock_ && yield_);
   epollFd_.reset(epoll_create1(EPOLL_CLOEXEC));
   if (!epollFd_)
      throwErrno("epoll_create1");
}

Scheduler::~Scheduler() {
   RAVEL_ASSERT_MSG(runQueue_.empty() && timers_.empty(), "tasks outlive their scheduler");
   if (gDefault == this)
      gDefault = nullptr;
}

void Scheduler::enqueue(TaskBase* t) {
   t->runnable_ = true;
   t->seq_ = nextSeq_++;
   runQueue_.emplace(std::make_pair(t->priority_, t->seq_), t);
}

void Scheduler::forget(TaskBase* t) {
   if (t->runnable_) {
      runQueue_.erase({t->priority_, t->seq_});
      t->runnable_ = false;
   }
   if (current_ == t)
      current_ = nullptr;
}

void Scheduler::fireExpiredTimers() {
   Seconds t = now();
   // Earliest first, so that timers due in the same pass run in expiration order.
   std::vector<TimerTask*> due;
   for (TimerTask* timer : timers_) {
      if (timer->expiration_ <= t)
         due.push_back(timer);
   }
   std::sort(due.begin(), due.end(),
             [](auto* a, auto* b) { return a->expiration_ < b->expiration_; });
   for (TimerTask* timer : due) {
      timer->cancel();
      timer->makeRunnable();
   }
}

size_t Scheduler::runOnce(Seconds maxWait) {
   fireExpiredTimers();
   size_t runs = 0;
   uint64_t bound = nextSeq_;
   for (;;) {
      auto it = std::find_if(runQueue_.begin(), runQueue_.end(),
                             [bound](auto& e) { return e.first.second < bound; });
      if (it == runQueue_.end())
         break;
      TaskBase* t = it->second;
      runQueue_.erase(it);
      t->runnable_ = false;
      current_ = t;
      yield_->runStarted(now());
      t->run();
      current_ = nullptr;
      ++runs;
   }
   bool idle = runQueue_.empty() && !stopRequested_;
   Seconds wait = idle ? std::min(maxWait, nextExpiration() - now()) : 0;
   poll(std::max<Seconds>(wait, 0));
   return runs;
}

void Scheduler::poll(Seconds maxWait) {
   epoll_event events[64];
   int timeoutMs = std::isinf(maxWait) ? -1 : static_cast<int>(std::ceil(maxWait * 1000));
   int n = epoll_wait(epollFd_.get(), events, 64, timeoutMs);
   if (n < 0) {
      if (errno == EINTR)
         return;
      throwErrno("epoll_wait");
   }
   for (int i = 0; i < n; ++i) {
      static_cast<FdTask*>(events[i].data.ptr)->makeRunnable();
   }
}

void Scheduler::run() {
   stopRequested_ = false;
   while (!stopRequested_)
      runOnce(kNever);
}

size_t Scheduler::runUntilIdle(size_t maxRuns) {
   size_t runs = 0;
   for (;;) {
      size_t r = runOnce(0);
      runs += r;
      bool expired = nextExpiration() <= now();
      if ((r == 0 && runQueue_.empty() && !expired) || runs >= maxRuns)
         return runs;
   }
}

size_t Scheduler::advance(Seconds d) {
   auto* sim = dynamic_cast<SimulatedClock*>(clock_.get());
   RAVEL_ASSERT_MSG(sim, "advance() needs a SimulatedClock");
   Seconds end = now() + d;
   size_t runs = runUntilIdle();
   while (nextExpiration() <= end) {
      sim->set(std::max(now(), nextExpiration()));
      runs += runUntilIdle();
   }
   sim->set(end);
   return runs + runUntilIdle();
}

size_t Scheduler::runnableCount() const {
   return runQueue_.size();
}

Seconds Scheduler::nextExpiration() const {
   Seconds e = kNever;
   for (auto* t : timers_)
      e = std::min(e, t->expiration_);
   return e;
}

}  // namespace Ravel
