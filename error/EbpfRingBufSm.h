#pragma once

// Drains one family's ring buffer on the scheduler while its kernel program is loaded: a
// descriptor task on the ring's epoll descriptor runs one consume pass per wake-up, records are
// processed one by one inside the loader's callback (never copied), and after each record the
// scheduler's yield check may end the pass, leaving the rest in the ring for the next turn. It
// also publishes the kernel program's own queued/dropped counts and clears them.

#include <functional>
#include <memory>

#include "error/ErrorResponderCounterSm.h"
#include "error/ErrorResponderTypes.h"
#include "error/datapath/ErrorResponderEbpfHelper.h"
#include "platform/core/Scheduler.h"

namespace Ravel::ErrorResponder {

class EbpfRingBufSm : public Node {
 public:
   // Processes one record, inside the ring's callback.
   using PktInfoProcessor = std::function<void(EBPFIcmpPacketInfoBase& pktInfo)>;

   EbpfRingBufSm(AddressFamily af, Ptr<EbpfInitStatus> ebpfInitStatus,
                 Ptr<EbpfHandlerContext> ebpfHandlerCtx, Ptr<EbpfHelperBase> helper,
                 Ptr<ErrorResponderStats> errorResponderStats, PktInfoProcessor processor,
                 Scheduler& taskScheduler);
   ~EbpfRingBufSm() override;

   const std::string& name() const { return name_; }
   uint64_t fdReadEventCnt() const { return fdReadEventCnt_; }
   void dumpState(DumpContext& ctx, int indent) const;

 private:
   void handleInitialized();
   void taskIs();
   void doRingBufTask();
   void handleEbpfPktInfo();
   void updateEbpfRingBufAllStats();
   void clearEbpfRingBufStats();

   const AddressFamily af_;
   const std::string name_;
   Ptr<EbpfInitStatus> ebpfInitStatus_;
   Ptr<EbpfHandlerContext> ebpfHandlerCtx_;
   Ptr<EbpfHelperBase> helper_;
   Ptr<ErrorResponderStats> errorResponderStats_;
   PktInfoProcessor processor_;
   Scheduler& taskScheduler_;
   std::unique_ptr<FdTask> task_;
   uint64_t fdReadEventCnt_ = 0;
   bool initialized_ = false;
   Subscription pktInfoSub_;
   Subscription updateStatsSub_;
   Subscription clearStatsSub_;
};

}  // namespace Ravel::ErrorResponder
