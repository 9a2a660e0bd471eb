#include "agent/RavelAgent.h"

#include <cstdlib>

#include "error/ErrorResponderAgent.h"
#include "platform/config/FeatureToggle.h"
#include "platform/core/Lumen.h"
#include "platform/core/Trace.h"
#include "probe/ProbeResponderAgent.h"

RAVEL_TRACE_CATEGORY("Ravel");

namespace Ravel {

RootSm::RootSm(Ptr<PamCollection> pamCollection) : pamCollection_(std::move(pamCollection)) {
   RAVEL_ASSERT(pamCollection_);
   handleInitialized();
}

void RootSm::handleInitialized() {
   TRACE(3, "");
}

Agent::Agent(CAgent* framework) : CAgent(framework) {
   pamCollection_ = make<PamCollection>();
   errConfig_ = make<PamConfig>();
   probeConfig_ = make<PamConfig>();
   pamStatus_ = make<PamStatus>();
}

Agent::~Agent() {
   pamCollection_.reset();
   errConfig_.reset();
   probeConfig_.reset();
   pamStatus_.reset();
   rootSm_.reset();
   if (pamSm_)
      pamSm_->hasNotificationActiveIs(false);
   pamSm_.reset();
   probeAgent_.reset();
   errorResponderAgent_.reset();
   if (showAgentDebugCallback_) {
      showAgentDebugCallback_->parentIs(nullptr);
      agentCommandRequestDirSm()->callbackDel(showAgentDebugCallback_->name());
   }
   showAgentDebugCallback_.reset();
   if (errorResponderClearCountersCallback_) {
      errorResponderClearCountersCallback_->parentIs(nullptr);
      agentCommandRequestDirSm()->callbackDel(errorResponderClearCountersCallback_->name());
   }
   errorResponderClearCountersCallback_.reset();
}

std::string Agent::lumenNameTemplate() const {
   std::string name = this->name();
   if (!std::getenv("LUMENDIR"))
      name += "-%d";
   return name + ".lmn";
}

void Agent::doInit() {
   TRACE(3, "");
   if (!std::getenv("LUMEN_DISABLE")) {
      static const uint32_t kRingSizes[lumen::kLevels] = {32,  32,  32,  32,  32,
                                                          512, 256, 128, 128, 128};
      lumen::initialize(lumenNameTemplate(), kRingSizes, nullptr, 0, 24, 0, true, 512);
   }
   auto mg = entityManager()->mountGroupIs(this);
   mg->profileIs("Ravel");
   probeAgentIs(this)->doInit(mg);
   errorResponderAgentIs(this)->doInit(mg);
   localEntitiesCreatedIs(true);
   probeConfig_->vrfIs(VrfName::defaultVrf());
   mg->close(false, "", 0);
}

void Agent::doMountsComplete(MountStatus status, Ptr<EntityManager> em) {
   TRACE(3, "doMountsComplete {}", toString(status));
   auto allIntfStatusDir = em->entityAs<AllIntfStatusDir>("interface/status/all");
   auto ipStatus = em->entityAs<IpStatus>("ip/status");
   auto ip6Status = em->entityAs<Ip6Status>("ip6/status");
   auto allVrfStatusLocal = em->entityAs<AllVrfStatusLocal>("ip/vrf/status/local");
   if (probeAgent_) {
      probeAgent_->allIntfStatusDirIs(allIntfStatusDir);
      probeAgent_->ipStatusIs(ipStatus);
      probeAgent_->ip6StatusIs(ip6Status);
      probeAgent_->pamConfigIs(probeConfig_);
      probeAgent_->doMountsComplete(status, em);
   }
   if (errorResponderAgent_) {
      errorResponderAgent_->allVrfStatusLocalIs(allVrfStatusLocal);
      errorResponderAgent_->allIntfStatusDirIs(allIntfStatusDir);
      errorResponderAgent_->ipStatusIs(ipStatus);
      errorResponderAgent_->ip6StatusIs(ip6Status);
      errorResponderAgent_->pamConfigIs(errConfig_);
      errorResponderAgent_->doMountsComplete(status, em);
   }
   rootSm_ = make<RootSm>(pamCollection_);
   pamSm_ = make<PamSm>(errConfig_, probeConfig_, allVrfStatusLocal, pamStatus_);
   agentCommandRequestDirSm()->callbackIs(showAgentDebugCallbackIs());
   agentCommandRequestDirSm()->callbackIs(errorResponderClearCountersCallbackIs());
   if (auto reg = em->entityAs<ShowDebug>("agent/debug/registry/Ravel")) {
      reg->commandType.set(showAgentDebugCallback_->name());
   }
}

Ptr<ProbeResponder::Agent> Agent::probeAgentIs(CAgent* cAgent) {
   if (probeAgent_ && probeAgent_->cAgent() == cAgent)
      return probeAgent_;
   probeAgent_ = make<ProbeResponder::Agent>(cAgent);
   probeAgent_->pamCollectionIs(pamStatus_ ? pamStatus_->pamCollection() : nullptr);
   return probeAgent_;
}

Ptr<ErrorResponder::Agent> Agent::errorResponderAgentIs(CAgent* cAgent) {
   if (errorResponderAgent_ && errorResponderAgent_->cAgent() == cAgent) {
      return errorResponderAgent_;
   }
   errorResponderAgent_ = make<ErrorResponder::Agent>(cAgent);
   errorResponderAgent_->pamCollectionIs(pamStatus_ ? pamStatus_->pamCollection() : nullptr);
   return errorResponderAgent_;
}

void Agent::pamStatusIs(const Ptr<PamStatus>& s) {
   pamStatus_ = s;
   Ptr<PamCollection> c = s ? s->pamCollection() : nullptr;
   if (probeAgent_)
      probeAgent_->pamCollectionIs(c);
   if (errorResponderAgent_)
      errorResponderAgent_->pamCollectionIs(c);
}

Ptr<ShowAgentDebugCallback> Agent::showAgentDebugCallbackIs() {
   if (!showAgentDebugCallback_) {
      showAgentDebugCallback_ = make<ShowAgentDebugCallback>(this);
      showAgentDebugCallback_->parentIs(this);
   }
   return showAgentDebugCallback_;
}

Ptr<ErrorResponderClearCountersCallback> Agent::errorResponderClearCountersCallbackIs() {
   if (!errorResponderClearCountersCallback_) {
      errorResponderClearCountersCallback_ = make<ErrorResponderClearCountersCallback>(this);
      errorResponderClearCountersCallback_->parentIs(this);
   }
   return errorResponderClearCountersCallback_;
}

void ShowAgentDebugCallback::handleCommand(unsigned socketFd, const std::string& command) {
   TRACE(3, "handleCommand socket fd {}, command: {}", socketFd, command);
   if (command == "DebugAgentState") {
      DumpContext ctx(static_cast<int>(socketFd));
      agent_->dumpState(ctx, 0);
   } else {
      DumpContext(static_cast<int>(socketFd)).printf("Unknown command: %s", command.c_str());
   }
}

void ErrorResponderClearCountersCallback::handleCommand(unsigned socketFd,
                                                        const std::string& command) {
   TRACE(3, "handleCommand socket fd {}, command: {}", socketFd, command);
   DumpContext out(static_cast<int>(socketFd));
   if (command != "clear counters") {
      out.printf("Unknown command: %s", command.c_str());
   } else if (auto er = agent_->errorResponderAgent()) {
      er->clearCounters(socketFd);
   } else {
      out.printf("ErrorResponder::Agent not yet initialized!");
   }
}

void Agent::dumpState(DumpContext& ctx, int indent) const {
   // Read once per process: the file may be edited later, the dump reports what was in force.
   static const bool ndVrf =
       featureToggleEnabled("Ravel.json", "IcmpExtendedErrorResponderNdVrf", true);
   RAVEL_DUMP(ctx, indent, "Toggle State:\n");
   RAVEL_DUMP(ctx, indent + 2, "Extended Error Responder on non-default VRF: %d\n", ndVrf ? 1 : 0);
   RAVEL_DUMP(ctx, indent, "\n");
   const auto& pams = pamStatus_->pamCollection()->pam;
   unsigned count = static_cast<unsigned>(pams.size());
   RAVEL_DUMP(ctx, indent, "pams #%u\n", count);
   bool cut = !ctx.verbose() && count > ctx.entryLimit();
   if (cut) {
      RAVEL_DUMP(ctx, indent,
                 "-- The following list will be truncated, use verbose option to display all %u "
                 "entries --\n",
                 count);
      ctx.wasTruncatedIs(true);
   }
   uint32_t shown = 0;
   for (auto& [key, pam] : pams) {
      if (cut && shown >= ctx.entryLimit())
         break;
      ++shown;
      RAVEL_DUMP(ctx, indent, "pam %s\n", key.str().c_str());
      dumpIpPamState(ctx, indent + 4, *pam);
   }
   if (cut) {
      RAVEL_DUMP(ctx, indent,
                 "-- This list has been truncated, use verbose option to display all %u entries "
                 "--\n",
                 count);
   }
   RAVEL_DUMP(ctx, indent, "\n");
   if (probeAgent_)
      probeAgent_->dumpState(ctx, indent);
   RAVEL_DUMP(ctx, indent, "\n");
   if (errorResponderAgent_)
      errorResponderAgent_->dumpState(ctx, indent);
}

void dumpIpPamState(DumpContext& ctx, int indent, const IpPam& pam) {
   const auto& c = pam.counters();
   RAVEL_DUMP(ctx, indent, "IpPam enabled %d protocol %d netNs %s\n", pam.enabled() ? 1 : 0,
              pam.protocol(), pam.netNs().empty() ? "default" : pam.netNs().c_str());
   RAVEL_DUMP(ctx, indent, "tx %d pkts %d bytes %d drops %d errors errno=%d\n",
              static_cast<int>(c.txPkts), static_cast<int>(c.txBytes), static_cast<int>(c.txDrops),
              static_cast<int>(c.txErrors), pam.txErrno());
   RAVEL_DUMP(ctx, indent, "rx %d pkts %d bytes %d drops %d errors\n", static_cast<int>(c.rxPkts),
              static_cast<int>(c.rxBytes), static_cast<int>(c.rxDrops),
              static_cast<int>(c.rxErrors));
}

}  // namespace Ravel

extern "C" Ravel::Ptr<Ravel::CAgent> agentFactory(Ravel::CAgent* cAgent) {
   return Ravel::make<Ravel::Agent>(cAgent);
}
