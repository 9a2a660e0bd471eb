#pragma once

// The error responder's counters: counted in memory on the hot path, published into
// "icmp/errorResponder/status" in batches at most one second after the first change.

#include <array>
#include <cstdint>
#include <map>
#include <memory>

#include "agent/MiniAgent.h"
#include "error/ErrorResponderSchema.h"
#include "platform/core/Scheduler.h"

namespace Ravel::ErrorResponder {

// Fixed-size counters indexed by an 8-bit identifier; an index past the end is a range error.
template <typename Id, size_t N>
class CounterArray {
 public:
   uint64_t counter(Id id) const { return c_[index(id)]; }
   uint64_t counterInc(Id id, uint64_t n) { return c_[index(id)] += n; }  // wraps at 2^64
   void counterIs(Id id, uint64_t v) { c_[index(id)] = v; }
   uint64_t counterDel(Id id) { return std::exchange(c_[index(id)], 0); }
   void counterDelAll() { c_.fill(0); }
   static constexpr size_t size() { return N; }

 private:
   static size_t index(Id id);
   std::array<uint64_t, N> c_{};
};

// Throws std::out_of_range "cannot access index %d of an array with size %d".
[[noreturn]] void counterRangeError(size_t index, size_t size);

template <typename Id, size_t N>
size_t CounterArray<Id, N>::index(Id id) {
   auto i = static_cast<size_t>(id);
   if (i >= N)
      counterRangeError(i, N);
   return i;
}

class ErrorResponderVrfStats : public Node, public CounterArray<VrfCounterId, kVrfCounterCount> {
 public:
   explicit ErrorResponderVrfStats(VrfName n) : vrfName(std::move(n)) {}
   const VrfName vrfName;
   bool dirty = false;  // changed since its last sync
};

class ErrorResponderAfStats : public Node, public CounterArray<AfCounterId, kAfCounterCount> {
 public:
   explicit ErrorResponderAfStats(AddressFamily a) : af(a) {}
   const AddressFamily af;
   bool dirty = false;

   Ptr<ErrorResponderVrfStats> errorResponderVrfStatsIs(const VrfName& n);
   void errorResponderVrfStatsDel(const VrfName& n) { vrfStats_.erase(n); }
   void errorResponderVrfStatsDelAll() { vrfStats_.clear(); }
   Ptr<ErrorResponderVrfStats> errorResponderVrfStats(const VrfName& n) const {
      auto it = vrfStats_.find(n);
      return it == vrfStats_.end() ? nullptr : it->second;
   }
   const std::map<VrfName, Ptr<ErrorResponderVrfStats>>& errorResponderVrfStats() const {
      return vrfStats_;
   }

 private:
   std::map<VrfName, Ptr<ErrorResponderVrfStats>> vrfStats_;
};

// Everything the error responder counts. Entries exist only for loaded families and programmed
// VRFs; counting into an absent one does nothing.
class ErrorResponderStats : public Node {
 public:
   bool incrAfCounter(AddressFamily af, AfCounterId id);
   bool updateAfCounter(AddressFamily af, AfCounterId id, uint64_t value);
   bool incrVrfCounter(AddressFamily af, const VrfName& vrf, VrfCounterId id);

   Ptr<ErrorResponderAfStats> errorResponderAfStatsIs(AddressFamily af);
   void errorResponderAfStatsDel(AddressFamily af) { afStats_.erase(af); }
   void errorResponderAfStatsDelAll() { afStats_.clear(); }
   Ptr<ErrorResponderAfStats> errorResponderAfStats(AddressFamily af) const {
      auto it = afStats_.find(af);
      return it == afStats_.end() ? nullptr : it->second;
   }
   const std::map<AddressFamily, Ptr<ErrorResponderAfStats>>& errorResponderAfStats() const {
      return afStats_;
   }

   bool pendingSync() const { return pendingSync_(); }
   void pendingSyncIs(bool v) { pendingSync_.set(v); }
   bool updateEbpfStats() const { return updateEbpfStats_(); }
   void updateEbpfStatsIs(bool v) { updateEbpfStats_.set(v); }
   bool clearEbpfStats() const { return clearEbpfStats_(); }
   void clearEbpfStatsIs(bool v) { clearEbpfStats_.set(v); }
   [[nodiscard]] Subscription subscribePendingSync(std::function<void()> fn) const {
      return pendingSync_.subscribe(std::move(fn));
   }
   [[nodiscard]] Subscription subscribeUpdateEbpfStats(std::function<void()> fn) const {
      return updateEbpfStats_.subscribe(std::move(fn));
   }
   [[nodiscard]] Subscription subscribeClearEbpfStats(std::function<void()> fn) const {
      return clearEbpfStats_.subscribe(std::move(fn));
   }

   void dumpState(DumpContext& ctx, int indent) const;

 private:
   std::map<AddressFamily, Ptr<ErrorResponderAfStats>> afStats_;
   Attr<bool> pendingSync_;
   Attr<bool> updateEbpfStats_;
   Attr<bool> clearEbpfStats_;
};

// Publishes the counters into Status from a timer armed by the first change after a sync, and
// clears both on request.
class PollCounterSm : public Node {
 public:
   static constexpr Seconds kSyncCounterDelay = 1.0;
   static constexpr int kSyncCounterPriority = 4;

   PollCounterSm(Scheduler& scheduler, Ptr<Status> status, Ptr<ErrorResponderStats> stats);
   ~PollCounterSm() override;

   void handleInitialized();
   void doSync();
   void clear();
   void destroy();
   void scheduleSyncCounterTask();
   void clearedCountInc(uint32_t n) { clearedCount_ += n; }

   const Ptr<Status>& status() const { return status_; }
   const Ptr<ErrorResponderStats>& errorResponderStats() const { return stats_; }
   uint32_t clearedCount() const { return clearedCount_; }
   uint64_t syncCount() const { return syncCount_; }
   const TimerTask& syncCounterTask() const { return *syncCounterTask_; }
   bool initialized() const { return initialized_; }

 private:
   Scheduler& scheduler_;
   Ptr<Status> status_;
   Ptr<ErrorResponderStats> stats_;
   std::unique_ptr<TimerTask> syncCounterTask_;
   uint32_t clearedCount_ = 0;
   uint64_t syncCount_ = 0;
   bool initialized_ = false;
   Subscription pendingSyncSub_;
};

}  // namespace Ravel::ErrorResponder
