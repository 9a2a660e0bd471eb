#pragma once

#include <functional>

#include "agent/MiniAgent.h"
#include "error/AclConfigAggregatorSm.h"
#include "error/EbpfRingBufSm.h"
#include "error/ErrorResponderConfigSm.h"
#include "error/ErrorResponderCounterSm.h"
#include "error/ErrorResponderEbpfSm.h"
#include "error/KernelErrorGuardSm.h"
#include "error/datapath/IcmpErrPktInfoProcessor.h"
#include "error/datapath/InterfaceLookupHelper.h"
#include "error/datapath/KernelErrorFilter.h"
#include "platform/store/Acl.h"

namespace Ravel::ErrorResponder {

// What the root state machine is built from.
struct RootSmInputs {
   Ptr<AllIntfStatusDir> allIntfStatusDir;
   Ptr<AllIntfStatusLocalDir> allIntfStatusLocalDir;
   Ptr<KniNsStatus> kniStatus;  // the default namespace's kernel interfaces
   Ptr<IpStatus> ipStatus;
   Ptr<Ip6Status> ip6Status;
   Ptr<AllVrfStatusLocal> allVrfStatusLocal;
   Ptr<AclInput> aclInput;
   Ptr<AclConfig> aclCli;
   Ptr<EbpfConfig> ebpfConfig;
   Ptr<Config> config;
   Ptr<PamConfig> pamConfig;
   Ptr<Status> status;
   Ptr<PamCollection> pamCollection;
   Ptr<EntityManager> em;
   bool operator==(const RootSmInputs&) const = default;
};

// Owns every part of the error responder and asks for PAMs in each configured VRF.
class RootSm : public Node {
 public:
   // Picks the loaders; tests hand in their own, the daemon leaves it empty.
   using HelperSetup = std::function<void(RootSm&)>;

   // `kernelErrorFilter` null: the nftables one.
   explicit RootSm(RootSmInputs inputs, HelperSetup helperSetup = nullptr,
                   std::unique_ptr<KernelErrorFilter> kernelErrorFilter = nullptr);
   ~RootSm() override;

   void handleInitialized();
   void setupEpfHelper();
   void handleAf(AddressFamily af);
   void handleVrfPamConfig(const VrfName& vrfName);
   void dumpState(DumpContext& ctx, int indent) const;

   const RootSmInputs& inputs() const { return in_; }
   bool mockEbpfEnvironment() const { return mockEbpfEnvironment_; }
   bool initialized() const { return initialized_; }
   const Ptr<ConfigSm>& configSm() const { return configSm_; }
   const Ptr<PollCounterSm>& pollCounterSm() const { return pollCounterSm_; }
   const Ptr<ErrorResponderStats>& errorResponderStats() const { return errorResponderStats_; }
   // The lists the processors filter with, aggregated from both ACL sources.
   const Ptr<AclConfig>& aclConfig() const { return aclConfig_; }
   const Ptr<AclConfigAggregatorSm>& aclConfigAggregatorSm() const {
      return aclConfigAggregatorSm_;
   }
   const Ptr<EbpfConfig>& ebpfConfig() const { return in_.ebpfConfig; }
   const Ptr<Config>& config() const { return in_.config; }
   const Ptr<Status>& status() const { return in_.status; }
   const Ptr<PamConfig>& pamConfig() const { return in_.pamConfig; }
   const Ptr<AllVrfStatusLocal>& allVrfStatusLocal() const { return in_.allVrfStatusLocal; }
   const Ptr<AllIntfStatusDir>& allIntfStatusDir() const { return in_.allIntfStatusDir; }
   const Ptr<AllIntfStatusLocalDir>& allIntfStatusLocalDir() const {
      return in_.allIntfStatusLocalDir;
   }
   const Ptr<KniNsStatus>& kniStatus() const { return in_.kniStatus; }
   const Ptr<IpStatus>& ipStatus() const { return in_.ipStatus; }
   const Ptr<Ip6Status>& ip6Status() const { return in_.ip6Status; }

   const Ptr<EbpfHelperBase>& v4EbpfHelper() const { return helper_[0]; }
   const Ptr<EbpfHelperBase>& v6EbpfHelper() const { return helper_[1]; }
   void v4EbpfHelperIs(const Ptr<EbpfHelperBase>& h) { helper_[0] = h; }
   void v6EbpfHelperIs(const Ptr<EbpfHelperBase>& h) { helper_[1] = h; }
   const Ptr<EbpfProgSm>& ebpfProgSm(AddressFamily af) const { return progSm_[idx(af)]; }
   const Ptr<EbpfRingBufSm>& ebpfRingBufSm(AddressFamily af) const { return ringBufSm_[idx(af)]; }
   const Ptr<IntfLookupHelper>& intfLookupHelper() const { return intfLookupHelper_; }
   const Ptr<KernelErrorGuardSm>& kernelErrorGuard() const { return kernelErrorGuard_; }
   const Ptr<EbpfInitStatus>& ebpfInitStatus(AddressFamily af) const {
      return initStatus_[idx(af)];
   }
   const Ptr<EbpfVrfStatus>& ebpfVrfStatus(AddressFamily af) const { return vrfStatus_[idx(af)]; }
   const Ptr<EbpfHandlerContext>& ebpfHandlerContext(AddressFamily af) const {
      return handlerContext_[idx(af)];
   }

 private:
   static size_t idx(AddressFamily af) { return af == AddressFamily::ipv6 ? 1 : 0; }
   std::optional<uint64_t> recordsLost(AddressFamily af) const;

   RootSmInputs in_;
   bool mockEbpfEnvironment_ = false;
   HelperSetup helperSetup_;
   void* testLibHandle_ = nullptr;

   Ptr<ErrorResponderStats> errorResponderStats_;
   Ptr<AclConfig> aclConfig_;
   Ptr<AclConfigAggregatorSm> aclConfigAggregatorSm_;
   Ptr<PollCounterSm> pollCounterSm_;
   Ptr<ConfigSm> configSm_;
   Ptr<EbpfHandlerContext> handlerContext_[2];
   Ptr<EbpfInitStatus> initStatus_[2];
   Ptr<EbpfVrfStatus> vrfStatus_[2];
   Ptr<EbpfHelperBase> helper_[2];
   Ptr<EbpfProgSm> progSm_[2];
   Ptr<IntfLookupHelper> intfLookupHelper_;
   // While the family's program is loaded.
   Ptr<IcmpPktInfoProcessor> processor_[2];
   Ptr<EbpfRingBufSm> ringBufSm_[2];
   Ptr<KernelErrorGuardSm> kernelErrorGuard_;
   bool initialized_ = false;
   Subscription afStatusSub_;
   Subscription vrfConfigSub_;
   Subscription ebpfEntrySub_;
};

// The extended ICMP error responder's sub-agent.
class Agent : public MiniAgent {
 public:
   explicit Agent(CAgent* cAgent) : MiniAgent(cAgent) {}
   ~Agent() override;
   void doMountsComplete(MountStatus status, const Ptr<EntityManager>& em) override;
   void doInit(const Ptr<MountGroup>& mountGroup) override;
   void dumpState(DumpContext& ctx, int indent) const override;
   // Clears the counters, or says why it cannot.
   void clearCounters(unsigned socketFd);

   const Ptr<RootSm>& rootSm() const { return rootSm_; }
   // Keeps the running root when nothing it was built from changed.
   Ptr<RootSm> rootSmIs(const RootSmInputs& inputs);
   // How roots pick their loaders; tests set it before doMountsComplete.
   void helperSetupIs(RootSm::HelperSetup s) { helperSetup_ = std::move(s); }

 private:
   Ptr<RootSm> rootSm_;
   RootSm::HelperSetup helperSetup_;
};

}  // namespace Ravel::ErrorResponder
