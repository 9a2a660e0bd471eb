#include "error/EbpfRingBufSm.h"

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ErrorResponderRingBufSm");

namespace Ravel::ErrorResponder {

namespace {
constexpr int kTaskPriority = 3;
}

EbpfRingBufSm::EbpfRingBufSm(AddressFamily af, Ptr<EbpfInitStatus> ebpfInitStatus,
                             Ptr<EbpfHandlerContext> ebpfHandlerCtx, Ptr<EbpfHelperBase> helper,
                             Ptr<ErrorResponderStats> errorResponderStats,
                             PktInfoProcessor processor, Scheduler& taskScheduler)
    : af_(af),
      name_(af == AddressFamily::ipv4 ? "v4RingBufSm" : "v6RingBufSm"),
      ebpfInitStatus_(std::move(ebpfInitStatus)),
      ebpfHandlerCtx_(std::move(ebpfHandlerCtx)),
      helper_(std::move(helper)),
      errorResponderStats_(std::move(errorResponderStats)),
      processor_(std::move(processor)),
      taskScheduler_(taskScheduler) {
   RAVEL_ASSERT(ebpfInitStatus_ && ebpfHandlerCtx_ && helper_ && errorResponderStats_);
   pktInfoSub_ = ebpfHandlerCtx_->subscribePktInfoInReg([this] { handleEbpfPktInfo(); });
   updateStatsSub_ = errorResponderStats_->subscribeUpdateEbpfStats([this] {
      if (errorResponderStats_->updateEbpfStats())
         updateEbpfRingBufAllStats();
   });
   clearStatsSub_ = errorResponderStats_->subscribeClearEbpfStats([this] {
      if (errorResponderStats_->clearEbpfStats())
         clearEbpfRingBufStats();
   });
   handleInitialized();
}

EbpfRingBufSm::~EbpfRingBufSm() {
   if (task_)
      task_->taskWatchReadableIs(false);
}

void EbpfRingBufSm::handleInitialized() {
   TRACE(3, "handleInitialized");
   RAVEL_ASSERT(af_ == AddressFamily::ipv4 || af_ == AddressFamily::ipv6);
   RAVEL_ASSERT(processor_);
   taskIs();
   initialized_ = true;
}

void EbpfRingBufSm::taskIs() {
   // Made while the family's program is loaded, which is when the ring exists.
   RAVEL_ASSERT(ebpfInitStatus_->ebpfProgLoaded());
   task_ =
       std::make_unique<FdTask>(taskScheduler_, name_ + "Task", kTaskPriority,
                                ebpfInitStatus_->params().ringBufFd, [this] { doRingBufTask(); });
   task_->taskWatchReadableIs(true);
   // Records queued before the task existed.
   doRingBufTask();
}

void EbpfRingBufSm::doRingBufTask() {
   TRACE(5, "{}", af_);
   if (!ebpfInitStatus_->ebpfProgLoaded())
      return;
   ++fdReadEventCnt_;
   TRACE(6, " calling ringBuf consume");
   helper_->consume(ebpfInitStatus_->params());
}

// Runs inside the ring's callback, for one record.
void EbpfRingBufSm::handleEbpfPktInfo() {
   TRACE(6, "Dequeuing the packet Info");
   EBPFIcmpPacketInfoBase* pktInfo = ebpfHandlerCtx_->pktInfoInReg();
   RAVEL_ASSERT(pktInfo);
   processor_(*pktInfo);
   if (taskScheduler_.taskShouldYield()) {
      TRACE(7, "handle_event yielding");
      // Runs again on a later turn, without waiting for another wake-up.
      task_->scheduleTaskReadable();
      ebpfHandlerCtx_->pktInfoProcessYieldStatusIs(ProcessingState::yield);
   } else {
      ebpfHandlerCtx_->pktInfoProcessYieldStatusIs(ProcessingState::processing);
   }
}

void EbpfRingBufSm::updateEbpfRingBufAllStats() {
   TRACE(8, "updateEbpfRingBufAllStats");
   if (!ebpfInitStatus_->ebpfProgLoaded())
      return;
   EbpfKernelStats k;
   if (!helper_->kernelStats(ebpfInitStatus_->params(), k))
      k = {};  // traced by the loader; read as 0
   auto stats = errorResponderStats_->errorResponderAfStatsIs(af_);
   // Only a change is worth a sync: the kernel's counts move without telling anyone.
   if (stats->counter(AfCounterId::ringBufDropped) != k.dropped ||
       stats->counter(AfCounterId::ringBufQueued) != k.queued) {
      stats->counterIs(AfCounterId::ringBufDropped, k.dropped);
      stats->counterIs(AfCounterId::ringBufQueued, k.queued);
      stats->dirty = true;
      errorResponderStats_->pendingSyncIs(true);
   }
}

void EbpfRingBufSm::clearEbpfRingBufStats() {
   TRACE(3, "af: {}", af_);
   if (ebpfInitStatus_->ebpfProgLoaded())
      helper_->kernelStatsClear(ebpfInitStatus_->params());
}

void EbpfRingBufSm::dumpState(DumpContext& ctx, int indent) const {
   ctx.printf("%*c%s af=%s initialized=%d\n", indent, ' ', name_.c_str(), toString(af_),
              initialized_);
   ctx.printf("%*ctask=%s\n", indent + 2, ' ', task_ ? task_->name().c_str() : "null");
   ctx.printf("%*cfdReadEventCnt=%llu\n", indent + 2, ' ',
              static_cast<unsigned long long>(fdReadEventCnt_));
}

}  // namespace Ravel::ErrorResponder
