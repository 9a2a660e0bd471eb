#include "error/ErrorResponderEbpfSm.h"

#include <fmt/format.h>

#include <algorithm>

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ErrorResponderEbpfSm");

namespace Ravel::ErrorResponder {

EbpfProgSm::EbpfProgSm(AddressFamily af, Ptr<EbpfConfig> ebpfConfig,
                       Ptr<EbpfInitStatus> ebpfInitStatus, Ptr<EbpfVrfStatus> ebpfVrfStatus,
                       Ptr<Status> status, Ptr<EbpfHandlerContext> ebpfHandlerContext,
                       Ptr<EbpfHelperBase> ebpfHelper, Ptr<ErrorResponderStats> errorResponderStats)
    : af_(af),
      ebpfConfig_(std::move(ebpfConfig)),
      ebpfInitStatus_(std::move(ebpfInitStatus)),
      ebpfVrfStatus_(std::move(ebpfVrfStatus)),
      status_(std::move(status)),
      ebpfHandlerContext_(std::move(ebpfHandlerContext)),
      ebpfHelper_(std::move(ebpfHelper)),
      errorResponderStats_(std::move(errorResponderStats)),
      retryTimer_(Scheduler::defaultScheduler(), "EbpfLoadRetry", 4,
                  [this] { handleVrfConfig(); }) {
   RAVEL_ASSERT(ebpfConfig_);
   entrySub_ = ebpfConfig_->entry.subscribe([this](const VrfName& n) { handleVrfConfig(n); });
   ringBufSzSub_ = ebpfConfig_->ringBufSz.subscribe([this] { handleSizes(); });
   vrfMapSzSub_ = ebpfConfig_->vrfMapSz.subscribe([this] { handleSizes(); });
   handleInitialized();
}

EbpfProgSm::~EbpfProgSm() {
   entrySub_.reset();
   ringBufSzSub_.reset();
   vrfMapSzSub_.reset();
   onDelete();
}

void EbpfProgSm::handleInitialized() {
   TRACE(3, "handleInitialized");
   RAVEL_ASSERT(status());
   RAVEL_ASSERT(ebpfVrfStatus());
   RAVEL_ASSERT(ebpfInitStatus());
   RAVEL_ASSERT(ebpfConfig());
   RAVEL_ASSERT(ebpfHelper());
   RAVEL_ASSERT(ebpfHandlerContext());
   RAVEL_ASSERT(af() != AddressFamily::ipunknown);
   handleVrfConfig();
   initialized_ = true;
}

void EbpfProgSm::handleVrfConfig() {
   TRACE(4, "af: {} ebpfProgLoaded: {}", af_, ebpfInitStatus_->ebpfProgLoaded());
   if (auto afStatus = status_->afStatus.get(af_)) {
      std::vector<VrfName> leftOver;
      for (auto& [vrf, s] : afStatus->vrfStatus) {
         if (!ebpfConfig_->entry.has(vrf))
            leftOver.push_back(vrf);
      }
      for (auto& vrf : leftOver)
         handleVrfConfig(vrf);
   }
   std::vector<VrfName> names;
   for (auto& [vrf, e] : ebpfConfig_->entry)
      names.push_back(vrf);
   for (auto& vrf : names)
      handleVrfConfig(vrf);
}

void EbpfProgSm::maybeLoadOrUnloadEbpf() {
   TRACE(4, "af: {}", af_);
   if (!ebpfConfig_->entry.empty()) {
      if (ebpfInitStatus_->ebpfProgLoaded()) {
         TRACE(5, "program already loaded. nothing to do");
         return;
      }
      if (retryTimer_.currentExpirationTime() != kNever)
         return;  // reported; the timer tries again
      TRACE(4, "Creating Stats object");
      errorResponderStats_->errorResponderAfStatsIs(af_);
      TRACE(4, "Loading ebpf program.");
      EbpfInitParams params = ebpfHelper_->loadProgram(ebpfConfig_, ebpfHandlerContext_);
      ebpfInitStatus_->paramsIs(params);
      if (!params) {
         // The loader has said why. The family stays unloaded and the kernel's errors flow.
         ++failures_;
         Seconds delay = kFirstRetry;
         for (uint32_t i = 1; i < failures_ && delay < kLastRetry; ++i)
            delay *= 2;
         delay = std::min(delay, kLastRetry);
         TRACE(1,
               "af: {} program not loaded; error responder off for this family, next try in {} s",
               af_, delay);
         status_->ebpfLoadFailedInc();
         Scheduler& sched = retryTimer_.scheduler();
         status_->loadRetry[af_] = {ebpfHelper_->lastLoadError(), failures_, sched.now() + delay};
         retryTimer_.scheduleTaskDelay(delay);
         errorResponderStats_->errorResponderAfStatsDel(af_);
         return;
      }
      failures_ = 0;
      status_->loadRetry.erase(af_);
      status_->afStatusIs(af_);
      return;
   }
   failures_ = 0;
   retryTimer_.cancel();
   status_->loadRetry.erase(af_);
   if (!ebpfInitStatus_->ebpfProgLoaded()) {
      TRACE(5, "Program already unloaded. nothing to do");
      return;
   }
   status_->afStatusDel(af_);
   TRACE(4, "Unloading ebpf program.");
   ebpfHelper_->unloadProgram(ebpfInitStatus_->params());
   ebpfInitStatus_->paramsIs({});
   TRACE(4, "Deleting stats");
   errorResponderStats_->errorResponderAfStatsDel(af_);
   status_->afStatusDel(af_);
}

void EbpfProgSm::handleSizes() {
   // Sizes apply at load time; they give a failed load another chance at once.
   if (!loadFailed())
      return;
   retryTimer_.cancel();
   handleVrfConfig();
}

void EbpfProgSm::handleVrfConfig(const VrfName& vrfName) {
   TRACE(4, "af: {} vrfName: {} ebpfProgLoaded: {}", af_, vrfName,
         ebpfInitStatus_->ebpfProgLoaded());
   maybeLoadOrUnloadEbpf();
   auto entry = ebpfConfig_->entry.get(vrfName);
   bool loaded = ebpfInitStatus_->ebpfProgLoaded();
   int32_t nsMapFd = ebpfInitStatus_->params().nsMapFd;
   if (entry && loaded) {
      NsInode nsInodeForVrf = entry->nsInode;
      RAVEL_ASSERT_MSG(
          !!nsInodeForVrf,
          fmt::format("trying to program invalid nsInode for vrf {}", vrfName).c_str());
      RAVEL_ASSERT_MSG(status()->afStatus.get(af()), "Unexpected, afStatus not present");
      NsInode old = vrfNameToProgrammedInode(vrfName);
      if (old == nsInodeForVrf)
         return;  // already programmed with this inode
      RAVEL_ASSERT_MSG(!ebpfVrfStatus()->enabledInodeHas(nsInodeForVrf),
                       fmt::format("Unexpected error while programming vrf {} with nsInode {} "
                                   "nsInode already programmed",
                                   vrfName, nsInodeForVrf)
                           .c_str());
      if (old) {
         TRACE(4, "unprogramming stale inode {} for vrf {}", old, vrfName);
         ebpfHelper_->removeFromVrfMap(nsMapFd, old);
         ebpfVrfStatus_->enabledInodeDel(old);
      }
      TRACE(4, "programming vrfName: {} with inode {}", vrfName, nsInodeForVrf);
      if (!ebpfHelper_->addToVrfMap(nsMapFd, nsInodeForVrf)) {
         // The loader has said why; the VRF keeps the kernel's errors.
         status_->vrfMapAddFailedInc();
         if (old)
            vrfNameToProgrammedInodeDel(vrfName);
         return;
      }
      vrfNameToProgrammedInodeIs(vrfName, nsInodeForVrf);
      ebpfVrfStatus_->enabledInodeIs(nsInodeForVrf);
      status_->afStatus.get(af_)->vrfStatusIs(vrfName);
      if (auto afStats = errorResponderStats_->errorResponderAfStats(af_))
         afStats->errorResponderVrfStatsIs(vrfName);
      return;
   }
   if (NsInode inode = vrfNameToProgrammedInode(vrfName)) {
      if (loaded) {
         TRACE(4, "unprogramming inode: {} belonging to vrfName: {}", inode, vrfName);
         ebpfHelper_->removeFromVrfMap(nsMapFd, inode);
      } else {
         ebpfHelper_->afterUnload();  // the map went with the program
      }
      ebpfVrfStatus_->enabledInodeDel(inode);
      vrfNameToProgrammedInodeDel(vrfName);
   }
   if (auto afStats = errorResponderStats_->errorResponderAfStats(af_))
      afStats->errorResponderVrfStatsDel(vrfName);
   if (auto afStatus = status_->afStatus.get(af_))
      afStatus->vrfStatusDel(vrfName);
   if (loaded)
      retryUnprogrammed();
}

void EbpfProgSm::retryUnprogrammed() {
   std::vector<VrfName> waiting;
   for (auto& [vrf, e] : ebpfConfig_->entry) {
      if (!vrfNameToProgrammedInode(vrf))
         waiting.push_back(vrf);
   }
   for (auto& vrf : waiting)
      handleVrfConfig(vrf);
}

void EbpfProgSm::onDelete() {
   TRACE(3, "onDelete");
   status_->afStatusDel(af_);
   if (ebpfInitStatus_->ebpfProgLoaded()) {
      ebpfHelper_->unloadProgram(ebpfInitStatus_->params());
      ebpfInitStatus_->paramsIs({});
   }
   ebpfVrfStatus_->enabledInodeDelAll();
   vrfNameToProgrammedInodeDelAll();
   ebpfHelper_->afterUnload();
}

void EbpfProgSm::dumpState(DumpContext& ctx, int indent) const {
   RAVEL_DUMP(ctx, indent, "af=%s\n", toString(af_));
   RAVEL_DUMP(ctx, indent, "ebpfConfig=%s\n", displayPtr(ebpfConfig_.get()).c_str());
   RAVEL_DUMP(ctx, indent, "ebpfInitStatus=%s\n", displayPtr(ebpfInitStatus_.get()).c_str());
   RAVEL_DUMP(ctx, indent, "ebpfVrfStatus=%s\n", displayPtr(ebpfVrfStatus_.get()).c_str());
   RAVEL_DUMP(ctx, indent, "ebpfHelper=%s\n", displayPtr(ebpfHelper_.get()).c_str());
   RAVEL_DUMP(ctx, indent, "vrfNameToProgrammedInode[] %d\n", static_cast<int>(programmed_.size()));
   for (auto& [vrf, inode] : programmed_) {
      RAVEL_DUMP(ctx, indent + 2, "%s->%llu\n", vrf.str().c_str(),
                 static_cast<unsigned long long>(inode));
   }
}

}  // namespace Ravel::ErrorResponder
