#pragma once

// Keeps one family's kernel program in step with EbpfConfig: loaded while any VRF is enabled,
// with every enabled namespace written into its filter map.

#include <map>

#include "error/ErrorResponderCounterSm.h"
#include "error/ErrorResponderTypes.h"
#include "error/datapath/ErrorResponderEbpfHelper.h"
#include "platform/core/Scheduler.h"

namespace Ravel::ErrorResponder {

class EbpfProgSm : public Node {
 public:
   EbpfProgSm(AddressFamily af, Ptr<EbpfConfig> ebpfConfig, Ptr<EbpfInitStatus> ebpfInitStatus,
              Ptr<EbpfVrfStatus> ebpfVrfStatus, Ptr<Status> status,
              Ptr<EbpfHandlerContext> ebpfHandlerContext, Ptr<EbpfHelperBase> ebpfHelper,
              Ptr<ErrorResponderStats> errorResponderStats);
   ~EbpfProgSm() override;

   void handleInitialized();
   void handleVrfConfig();
   void handleVrfConfig(const VrfName& vrfName);
   void maybeLoadOrUnloadEbpf();
   void handleSizes();
   bool loadFailed() const { return failures_ != 0; }
   // The first retry after a failed load, doubled after each further failure up to the last.
   static constexpr Seconds kFirstRetry = 5.0;
   static constexpr Seconds kLastRetry = 300.0;
   void onDelete();
   // VRFs the filter map refused get another try when a place may have come free.
   void retryUnprogrammed();

   AddressFamily af() const { return af_; }
   const Ptr<Status>& status() const { return status_; }
   const Ptr<EbpfVrfStatus>& ebpfVrfStatus() const { return ebpfVrfStatus_; }
   const Ptr<EbpfInitStatus>& ebpfInitStatus() const { return ebpfInitStatus_; }
   const Ptr<EbpfConfig>& ebpfConfig() const { return ebpfConfig_; }
   const Ptr<EbpfHelperBase>& ebpfHelper() const { return ebpfHelper_; }
   const Ptr<EbpfHandlerContext>& ebpfHandlerContext() const { return ebpfHandlerContext_; }

   NsInode vrfNameToProgrammedInode(const VrfName& vrf) const {
      auto it = programmed_.find(vrf);
      return it == programmed_.end() ? 0 : it->second;
   }
   void vrfNameToProgrammedInodeIs(const VrfName& vrf, NsInode i) { programmed_[vrf] = i; }
   void vrfNameToProgrammedInodeDel(const VrfName& vrf) { programmed_.erase(vrf); }
   void vrfNameToProgrammedInodeDelAll() { programmed_.clear(); }
   const std::map<VrfName, NsInode>& vrfNameToProgrammedInode() const { return programmed_; }

   void dumpState(DumpContext& ctx, int indent) const;

 private:
   const AddressFamily af_;
   Ptr<EbpfConfig> ebpfConfig_;
   Ptr<EbpfInitStatus> ebpfInitStatus_;
   Ptr<EbpfVrfStatus> ebpfVrfStatus_;
   Ptr<Status> status_;
   Ptr<EbpfHandlerContext> ebpfHandlerContext_;
   Ptr<EbpfHelperBase> ebpfHelper_;
   Ptr<ErrorResponderStats> errorResponderStats_;
   std::map<VrfName, NsInode> programmed_;
   bool initialized_ = false;
   uint32_t failures_ = 0;  // loads failed in a row; retried from the timer, not per VRF change
   TimerTask retryTimer_;
   Subscription entrySub_;
   Subscription ringBufSzSub_;
   Subscription vrfMapSzSub_;
};

}  // namespace Ravel::ErrorResponder
