#include "error/ErrorResponderAgent.h"

#include "error/datapath/NftKernelErrorFilter.h"

#include <dlfcn.h>

#include <cstdlib>

#include <fmt/format.h>

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ErrorResponderAgent");

namespace Ravel::ErrorResponder {

namespace {

constexpr const char* kTestLib = "libRavelTestLib.so";
constexpr const char* kTestFactory = "ebpfTestHelperFactory";
constexpr AddressFamily kFamilies[] = {AddressFamily::ipv4, AddressFamily::ipv6};

}  // namespace

RootSm::RootSm(RootSmInputs inputs, HelperSetup helperSetup,
               std::unique_ptr<KernelErrorFilter> kernelErrorFilter)
    : in_(std::move(inputs)), helperSetup_(std::move(helperSetup)) {
   RAVEL_ASSERT(in_.status);
   RAVEL_ASSERT(in_.config);
   afStatusSub_ = in_.status->afStatus.subscribe([this](const AddressFamily& af) { handleAf(af); });
   vrfConfigSub_ =
       in_.config->vrfConfig.subscribe([this](const VrfName& n) { handleVrfPamConfig(n); });
   errorResponderStats_ = make<ErrorResponderStats>();
   RAVEL_ASSERT(in_.ebpfConfig);
   intfLookupHelper_ =
       intfLookupHelperFactory({in_.allIntfStatusDir, in_.allIntfStatusLocalDir, in_.kniStatus,
                                in_.ipStatus, in_.ip6Status, in_.ebpfConfig, in_.em});
   aclConfig_ = make<AclConfig>();
   aclConfigAggregatorSm_ = make<AclConfigAggregatorSm>(in_.aclInput, in_.aclCli, aclConfig_);
   pollCounterSm_ =
       make<PollCounterSm>(Scheduler::defaultScheduler(), in_.status, errorResponderStats_);
   RAVEL_ASSERT(in_.allVrfStatusLocal);
   configSm_ = make<ConfigSm>(in_.config, in_.allVrfStatusLocal, in_.ebpfConfig, in_.status);
   // Extended errors need the VRF's PAMs whether the VRF or the global switch enabled them.
   ebpfEntrySub_ =
       in_.ebpfConfig->entry.subscribe([this](const VrfName& vrf) { handleVrfPamConfig(vrf); });
   for (AddressFamily af : kFamilies) {
      handlerContext_[idx(af)] = make<EbpfHandlerContext>(errorResponderStats_);
      initStatus_[idx(af)] = make<EbpfInitStatus>(af);
      vrfStatus_[idx(af)] = make<EbpfVrfStatus>();
   }
   handleInitialized();
   std::vector<VrfName> names;
   for (auto& [name, c] : in_.config->vrfConfig)
      names.push_back(name);
   for (auto& [name, e] : in_.ebpfConfig->entry)
      names.push_back(name);
   for (auto& n : names)
      handleVrfPamConfig(n);
   kernelErrorGuard_ = make<KernelErrorGuardSm>(
       KernelErrorGuardInputs{in_.config,
                              in_.ebpfConfig,
                              in_.allVrfStatusLocal,
                              in_.status,
                              in_.pamCollection,
                              {vrfStatus_[0], vrfStatus_[1]}},
       kernelErrorFilter ? std::move(kernelErrorFilter) : std::make_unique<NftKernelErrorFilter>(),
       [this](AddressFamily af) { return recordsLost(af); }, Scheduler::defaultScheduler());
}

std::optional<uint64_t> RootSm::recordsLost(AddressFamily af) const {
   if (!ringBufSm_[idx(af)])
      return std::nullopt;  // nothing drains the family (not loaded, or the substitute loader)
   EbpfKernelStats k;
   if (!helper_[idx(af)]->kernelStats(initStatus_[idx(af)]->params(), k))
      return std::nullopt;  // drops could go unseen
   uint64_t rejected = 0;
   if (auto s = errorResponderStats_->errorResponderAfStats(af))
      rejected =
          s->counter(AfCounterId::invalidDataSize) + s->counter(AfCounterId::insufficientDataLen);
   return k.dropped + rejected;
}

RootSm::~RootSm() {
   kernelErrorGuard_.reset();  // the kernel's errors flow again before anything else goes
   ebpfEntrySub_.reset();
   afStatusSub_.reset();
   vrfConfigSub_.reset();
   intfLookupHelper_.reset();
   aclConfigAggregatorSm_.reset();
   pollCounterSm_->destroy();
   pollCounterSm_.reset();
   configSm_.reset();  // removes every EbpfConfig entry it made
   for (AddressFamily af : kFamilies)
      progSm_[idx(af)].reset();  // unloads
   for (auto& h : helper_)
      h.reset();
   // The substitute library stays loaded: objects it made may outlive this root.
}

void RootSm::handleInitialized() {
   TRACE(3, "handleInitialized");
   RAVEL_ASSERT(allVrfStatusLocal());
   RAVEL_ASSERT(allIntfStatusDir());
   RAVEL_ASSERT(allIntfStatusLocalDir());
   RAVEL_ASSERT(kniStatus());
   RAVEL_ASSERT(ipStatus());
   RAVEL_ASSERT(ip6Status());
   RAVEL_ASSERT(config());
   RAVEL_ASSERT(status());
   RAVEL_ASSERT(configSm());
   RAVEL_ASSERT(intfLookupHelper());
   setupEpfHelper();
   RAVEL_ASSERT(v4EbpfHelper());
   in_.status->afStatusDelAll();
   for (AddressFamily af : kFamilies) {
      RAVEL_ASSERT(helper_[idx(af)]);
      progSm_[idx(af)] = make<EbpfProgSm>(af, in_.ebpfConfig, initStatus_[idx(af)],
                                          vrfStatus_[idx(af)], in_.status, handlerContext_[idx(af)],
                                          helper_[idx(af)], errorResponderStats_);
   }
   initialized_ = true;
   for (AddressFamily af : kFamilies)
      handleAf(af);
}

void RootSm::setupEpfHelper() {
   TRACE(3, "setupEpfHelper");
   mockEbpfEnvironment_ = std::getenv("MOCK_EBPF_HELPER") != nullptr;
   if (helperSetup_) {
      helperSetup_(*this);
      return;
   }
   if (mockEbpfEnvironment_) {
      void* testLibHandle = ::dlopen(kTestLib, RTLD_NOW | RTLD_GLOBAL);
      RAVEL_ASSERT_MSG(testLibHandle,
                       fmt::format("dlopen({}) failed: {}", kTestLib, ::dlerror() ?: "").c_str());
      testLibHandle_ = testLibHandle;
      void* fptr = ::dlsym(testLibHandle, kTestFactory);
      RAVEL_ASSERT_MSG(fptr, fmt::format("dlsym({}) failed", kTestFactory).c_str());
      auto helper = reinterpret_cast<EbpfTestHelperFactoryFn>(fptr)();
      helper_[0] = helper;
      helper_[1] = helper;
      return;
   }
   helper_[0] = ebpfIpv4HelperFactory();
   helper_[1] = ebpfIpv6HelperFactory();
}

void RootSm::handleAf(AddressFamily af) {
   TRACE(4, "{}", af);
   if (!initialized_) {
      TRACE(4, "Not initialized, return early");
      return;
   }
   const char* name = af == AddressFamily::ipv4 ? "v4RingBufSm" : "v6RingBufSm";
   if (in_.status->afStatus.get(af)) {
      RAVEL_ASSERT_MSG(initStatus_[idx(af)]->ebpfProgLoaded(),
                       "Unexpected, EBPF program not loaded yet.");
      if (af == AddressFamily::ipv4)
         RAVEL_ASSERT_MSG(!ringBufSm_[0], "Unexpected, v4RingBufSm already exists!");
      else
         RAVEL_ASSERT_MSG(!ringBufSm_[1], "Unexpected, v6RingBufSm already exists!");
      TRACE(4, "Creating {}", name);
      // The substitute loader's descriptors are inert: nothing to drain.
      if (mockEbpfEnvironment_)
         return;
      // The aggregate's per-family lists are never replaced: the processor follows them.
      auto processor = make<IcmpPktInfoProcessor>(IcmpErrPktInfoProcessorInputs{
          af, intfLookupHelper_, in_.pamCollection, in_.config, vrfStatus_[idx(af)],
          aclConfig_->of(af), errorResponderStats_, in_.ebpfConfig,
          [this, af](const VrfName& vrf) { kernelErrorGuard_->replacementLost(vrf, af); }});
      processor_[idx(af)] = processor;
      ringBufSm_[idx(af)] = make<EbpfRingBufSm>(
          af, initStatus_[idx(af)], handlerContext_[idx(af)], helper_[idx(af)],
          errorResponderStats_,
          [processor](EBPFIcmpPacketInfoBase& pktInfo) { processor->processPacketInfo(pktInfo); },
          Scheduler::defaultScheduler());
   } else {
      TRACE(4, "Deleting {}Del", name);
      // Before the program is unloaded and its ring's descriptor closed.
      ringBufSm_[idx(af)].reset();
      processor_[idx(af)].reset();
   }
}

void RootSm::handleVrfPamConfig(const VrfName& vrfName) {
   TRACE(4, "handleVrfPamConfig");
   bool configured = in_.config->vrfConfig.has(vrfName) || in_.ebpfConfig->entry.has(vrfName);
   if (configured && !in_.pamConfig->vrfHas(vrfName)) {
      TRACE(4, "Added config vrfName {}", vrfName);
      in_.pamConfig->vrfIs(vrfName);
   } else if (!configured && in_.pamConfig->vrfHas(vrfName)) {
      TRACE(4, "Deleted config vrfName {}", vrfName);
      in_.pamConfig->vrfDel(vrfName);
   }
}

void RootSm::dumpState(DumpContext& ctx, int indent) const {
   auto p = [](const auto& x) { return displayPtr(x.get()); };
   RAVEL_DUMP(ctx, indent, "ErrorResponder::RootSm %s\n", displayPtr(this).c_str());
   int in = indent + 2;
   RAVEL_DUMP(ctx, in, "mockEbpfEnvironment=%d\n", mockEbpfEnvironment_ ? 1 : 0);
   RAVEL_DUMP(ctx, in, "allIntfStatusDir=%s\n", p(in_.allIntfStatusDir).c_str());
   RAVEL_DUMP(ctx, in, "allIntfStatusLocalDir=%s\n", p(in_.allIntfStatusLocalDir).c_str());
   RAVEL_DUMP(ctx, in, "ipStatus=%s\n", p(in_.ipStatus).c_str());
   RAVEL_DUMP(ctx, in, "ip6Status=%s\n", p(in_.ip6Status).c_str());
   RAVEL_DUMP(ctx, in, "allVrfStatusLocal=%s\n", p(in_.allVrfStatusLocal).c_str());
   RAVEL_DUMP(ctx, in, "aclInput=%s\n", p(in_.aclInput).c_str());
   RAVEL_DUMP(ctx, in, "aclCli=%s\n", p(in_.aclCli).c_str());
   RAVEL_DUMP(ctx, in, "pamCollection=%s\n", p(in_.pamCollection).c_str());
   RAVEL_DUMP(ctx, in, "taskScheduler=%s\n", displayPtr(&Scheduler::defaultScheduler()).c_str());
   // The counters are synchronised on the same scheduler.
   RAVEL_DUMP(ctx, in, "statsScheduler=%s\n", displayPtr(&Scheduler::defaultScheduler()).c_str());
   dumpEbpfConfig(ctx, in, *in_.ebpfConfig);
   dumpConfig(ctx, in, *in_.config);
   dumpStatus(ctx, in, *in_.status);
   if (intfLookupHelper_)
      RAVEL_DUMP(ctx, in, "intfLookupHelper\n");
   RAVEL_DUMP(ctx, in, "errorResponderStats\n");
   errorResponderStats_->dumpState(ctx, in + 2);
   for (AddressFamily af : kFamilies) {
      RAVEL_DUMP(ctx, in, "%sEbpfHandlerContext\n", af == AddressFamily::ipv4 ? "v4" : "v6");
      handlerContext_[idx(af)]->dumpState(ctx, in + 2);
   }
   for (AddressFamily af : kFamilies) {
      RAVEL_DUMP(ctx, in, "%sEbpfHelper\n", af == AddressFamily::ipv4 ? "v4" : "v6");
      if (helper_[idx(af)])
         helper_[idx(af)]->dumpState(ctx, in + 2);
   }
   for (AddressFamily af : kFamilies) {
      RAVEL_DUMP(ctx, in, "%sEbpfInitStatus\n", af == AddressFamily::ipv4 ? "v4" : "v6");
      initStatus_[idx(af)]->dumpState(ctx, in + 2);
   }
   for (AddressFamily af : kFamilies) {
      RAVEL_DUMP(ctx, in, "%sEbpfVrfStatus\n", af == AddressFamily::ipv4 ? "v4" : "v6");
      vrfStatus_[idx(af)]->dumpState(ctx, in + 2);
   }
   RAVEL_DUMP(ctx, in, "configSm\n");
   configSm_->dumpState(ctx, in + 2);
   if (kernelErrorGuard_)
      kernelErrorGuard_->dumpState(ctx, in);
   for (AddressFamily af : kFamilies) {
      if (!progSm_[idx(af)])
         continue;
      RAVEL_DUMP(ctx, in, "%sEbpfProgSm\n", af == AddressFamily::ipv4 ? "v4" : "v6");
      progSm_[idx(af)]->dumpState(ctx, in + 2);
   }
   for (AddressFamily af : kFamilies) {
      if (!ringBufSm_[idx(af)])
         continue;
      RAVEL_DUMP(ctx, in, "%sRingBufSm\n", af == AddressFamily::ipv4 ? "v4" : "v6");
      ringBufSm_[idx(af)]->dumpState(ctx, in + 2);
   }
}

Agent::~Agent() {
   rootSm_.reset();
}

void Agent::doInit(const Ptr<MountGroup>&) {
   TRACE(3, "doInit");
   cAgent()->localEntityIs("AllIntfStatusDir", AllIntfStatusDir::kTypeName, "interface/status/all");
   cAgent()->localEntityIs("AllIntfStatusLocalDir", AllIntfStatusLocalDir::kTypeName,
                           "interface/status/local");
   TRACE(3, "doInit done");
}

void Agent::doMountsComplete(MountStatus status, const Ptr<EntityManager>& em) {
   TRACE(3, "doMountsComplete {}", toString(status));
   RAVEL_ASSERT(pamConfig());
   // A store without the network state (or without our records) leaves the error responder
   // idle rather than stopping the agent: the probe responder may still run.
   if (!allIntfStatusDir() || !allVrfStatusLocal() || !ipStatus() || !ip6Status()) {
      TRACE(1, "network state not mounted; error responder idle");
      return;
   }
   RootSmInputs in;
   in.allIntfStatusDir = allIntfStatusDir();
   in.allIntfStatusLocalDir = em->entityAs<AllIntfStatusLocalDir>("interface/status/local");
   // The default namespace's kernel interfaces; the Linux provider fills the table.
   in.kniStatus = ptrCast<KniNsStatus>(em->mount("kni/ns/default/status", KniNsStatus::kTypeName));
   in.ipStatus = ipStatus();
   in.ip6Status = ip6Status();
   in.allVrfStatusLocal = allVrfStatusLocal();
   in.aclInput = em->entityAs<AclInput>("acl/config/input");
   in.aclCli = em->entityAs<AclConfig>("acl/config/cli");
   in.config = em->entityAs<Config>("icmp/errorResponder/config");
   in.status = em->entityAs<Status>("icmp/errorResponder/status");
   in.ebpfConfig = em->entityAs<EbpfConfig>("icmp/errorResponder/ebpfConfig");
   in.pamConfig = pamConfig();
   in.pamCollection = pamCollection();
   in.em = em;
   if (!in.allIntfStatusLocalDir || !in.kniStatus || !in.aclInput || !in.aclCli || !in.config ||
       !in.status || !in.ebpfConfig) {
      TRACE(1, "error responder records not mounted; error responder idle");
      return;
   }
   rootSmIs(in);
}

Ptr<RootSm> Agent::rootSmIs(const RootSmInputs& inputs) {
   if (rootSm_ && rootSm_->inputs() == inputs)
      return rootSm_;
   rootSm_.reset();  // the old one removes its entries before the new one adds them
   rootSm_ = make<RootSm>(inputs, helperSetup_);
   return rootSm_;
}

void Agent::dumpState(DumpContext& ctx, int indent) const {
   if (rootSm_)
      rootSm_->dumpState(ctx, indent);
   else
      RAVEL_DUMP(ctx, indent, "ErrorResponder::RootSm null\n");
}

void Agent::clearCounters(unsigned socketFd) {
   TRACE(3, "clearCounters");
   if (!rootSm_) {
      DumpContext(static_cast<int>(socketFd))
          .printf("ErrorResponder::Agent::RootSm not yet initialized!");
      return;
   }
   RAVEL_ASSERT(rootSm()->pollCounterSm());
   rootSm_->pollCounterSm()->clear();
}

}  // namespace Ravel::ErrorResponder
