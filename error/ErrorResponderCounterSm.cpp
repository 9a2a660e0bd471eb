#include "error/ErrorResponderCounterSm.h"

#include <stdexcept>

#include <fmt/format.h>

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ErrorResponderPollCounter");

namespace Ravel::ErrorResponder {

void counterRangeError(size_t index, size_t size) {
   throw std::out_of_range(fmt::format("cannot access index {} of an array with size {}",
                                       static_cast<int>(index), static_cast<int>(size)));
}

Ptr<ErrorResponderVrfStats> ErrorResponderAfStats::errorResponderVrfStatsIs(const VrfName& n) {
   auto& s = vrfStats_[n];
   if (!s)
      s = make<ErrorResponderVrfStats>(n);
   return s;
}

Ptr<ErrorResponderAfStats> ErrorResponderStats::errorResponderAfStatsIs(AddressFamily af) {
   auto& s = afStats_[af];
   if (!s)
      s = make<ErrorResponderAfStats>(af);
   return s;
}

bool ErrorResponderStats::incrAfCounter(AddressFamily af, AfCounterId id) {
   auto it = afStats_.find(af);
   if (it == afStats_.end())
      return false;
   it->second->counterInc(id, 1);
   it->second->dirty = true;
   pendingSync_.set(true);
   return true;
}

bool ErrorResponderStats::updateAfCounter(AddressFamily af, AfCounterId id, uint64_t value) {
   auto it = afStats_.find(af);
   if (it == afStats_.end())
      return false;
   it->second->counterIs(id, value);
   it->second->dirty = true;
   pendingSync_.set(true);
   return true;
}

bool ErrorResponderStats::incrVrfCounter(AddressFamily af, const VrfName& vrf, VrfCounterId id) {
   auto it = afStats_.find(af);
   if (it == afStats_.end())
      return false;
   auto v = it->second->errorResponderVrfStats(vrf);
   if (!v)
      return false;
   v->counterInc(id, 1);
   v->dirty = true;
   pendingSync_.set(true);
   return true;
}

void ErrorResponderStats::dumpState(DumpContext& ctx, int indent) const {
   RAVEL_DUMP(ctx, indent, "pendingSync=%d updateEbpfStats=%d clearEbpfStats=%d\n",
              pendingSync() ? 1 : 0, updateEbpfStats() ? 1 : 0, clearEbpfStats() ? 1 : 0);
   RAVEL_DUMP(ctx, indent, "errorResponderAfStats[] %d\n", static_cast<int>(afStats_.size()));
   for (auto& [af, s] : afStats_) {
      RAVEL_DUMP(ctx, indent + 2, "%s\n", toString(af));
      for (size_t i = 0; i < kAfCounterCount; ++i) {
         auto id = static_cast<AfCounterId>(i);
         RAVEL_DUMP(ctx, indent + 4, "%s->%llu\n", toString(id),
                    static_cast<unsigned long long>(s->counter(id)));
      }
      for (auto& [vrf, v] : s->errorResponderVrfStats()) {
         RAVEL_DUMP(ctx, indent + 4, "%s\n", vrf.str().c_str());
         for (size_t i = 0; i < kVrfCounterCount; ++i) {
            auto id = static_cast<VrfCounterId>(i);
            RAVEL_DUMP(ctx, indent + 6, "%s->%llu\n", toString(id),
                       static_cast<unsigned long long>(v->counter(id)));
         }
      }
   }
}

PollCounterSm::PollCounterSm(Scheduler& scheduler, Ptr<Status> status,
                             Ptr<ErrorResponderStats> stats)
    : scheduler_(scheduler), status_(std::move(status)), stats_(std::move(stats)) {
   pendingSyncSub_ = stats_->subscribePendingSync([this] { scheduleSyncCounterTask(); });
   handleInitialized();
}

PollCounterSm::~PollCounterSm() {
   pendingSyncSub_.reset();
   syncCounterTask_.reset();
}

void PollCounterSm::handleInitialized() {
   RAVEL_ASSERT(status_);
   RAVEL_ASSERT(stats_);
   syncCounterTask_ = std::make_unique<TimerTask>(scheduler_, "SyncCounterTask",
                                                  kSyncCounterPriority, [this] { doSync(); });
   initialized_ = true;
   doSync();
   TRACE(3, "returned");
}

void PollCounterSm::scheduleSyncCounterTask() {
   if (!initialized_ || !stats_->pendingSync())
      return;
   // Lowest delay wins: a timer already due sooner stays, so a burst costs one sync.
   syncCounterTask_->scheduleTaskDelay(kSyncCounterDelay);
}

void PollCounterSm::doSync() {
   ++syncCount_;
   stats_->updateEbpfStatsIs(true);
   for (auto& [af, afStats] : stats_->errorResponderAfStats()) {
      TRACE(5, "Polling af key: {}", af);
      auto afStatus = status_->afStatus.get(af);
      if (afStats->dirty) {
         if (afStatus) {
            for (size_t i = 0; i < kAfCounterCount; ++i) {
               auto id = static_cast<AfCounterId>(i);
               TRACE(6, "Syncing af counter key {} val {}", id, afStats->counter(id));
               afStatus->afCounterIs(id, afStats->counter(id));
            }
         }
         afStats->dirty = false;
      }
      for (auto& [vrf, vrfStats] : afStats->errorResponderVrfStats()) {
         if (!vrfStats->dirty)
            continue;
         if (auto vrfStatus = afStatus ? afStatus->vrfStatus.get(vrf) : nullptr) {
            for (size_t i = 0; i < kVrfCounterCount; ++i) {
               auto id = static_cast<VrfCounterId>(i);
               TRACE(6, "Syncing vrf counter key {} val {}", id, vrfStats->counter(id));
               vrfStatus->vrfCounterIs(id, vrfStats->counter(id));
            }
         }
         vrfStats->dirty = false;
      }
   }
   stats_->updateEbpfStatsIs(false);
   stats_->pendingSyncIs(false);
}

void PollCounterSm::clear() {
   TRACE(3, "clear");
   RAVEL_ASSERT(status());
   RAVEL_ASSERT(errorResponderStats());
   stats_->clearEbpfStatsIs(true);
   for (auto& [af, afStats] : stats_->errorResponderAfStats()) {
      afStats->counterDelAll();
      for (auto& [vrf, vrfStats] : afStats->errorResponderVrfStats())
         vrfStats->counterDelAll();
   }
   for (auto& [af, afStatus] : status_->afStatus) {
      afStatus->afCounterDelAll();
      for (auto& [vrf, vrfStatus] : afStatus->vrfStatus)
         vrfStatus->vrfCounterDelAll();
   }
   stats_->clearEbpfStatsIs(false);
   clearedCountInc(1);
}

void PollCounterSm::destroy() {
   doSync();
   initialized_ = false;
}

}  // namespace Ravel::ErrorResponder
