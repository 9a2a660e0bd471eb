#include "probe/ProbeResponderAgent.h"

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ProbeResponderAgent");

namespace Ravel::ProbeResponder {

namespace {
// The platform's shared-table kinds of the two tables mounted here.
constexpr int kArpTableMountKind = 2;
constexpr int kVrfIdMapMountKind = 1;
}  // namespace

Agent::~Agent() {
   rootSm_.reset();
}

void Agent::doInit(const Ptr<MountGroup>&) {
   cAgent()->localEntityIs("AllIntfStatusDir", "Interface::AllIntfStatusDir",
                           "interface/status/all");
   cAgent()->localEntityIs("AllIntfStatusLocalDir", "Interface::AllIntfStatusLocalDir",
                           "interface/status/local");
   TRACE(3, "doInit done");
}

void Agent::doMountsComplete(MountStatus status, const Ptr<EntityManager>& em) {
   TRACE(3, "{}", toString(status));
   RAVEL_ASSERT(allIntfStatusDir());
   RAVEL_ASSERT(ipStatus());
   RAVEL_ASSERT(ip6Status());
   auto ifIndexStatus = em->entityAs<IfIndexStatus>("interface/ifIndex/all");
   auto l3IntfStatusDir = em->entityAs<L3IntfStatusDir>("l3/intf/status");
   auto config = em->entityAs<Config>("icmp/probe/config");
   auto probeStatus = em->entityAs<Status>("icmp/probe/status");
   auto arpStatus = ptrCast<ArpTableStatus>(
       em->sharedTableMount("arp/status", "Arp::Table::Status", kArpTableMountKind));
   auto vrfIdMap = ptrCast<VrfIdMapStatus>(
       em->sharedTableMount("vrf/vrfIdMapStatus", "Vrf::VrfIdMap::Status", kVrfIdMapMountKind));
   // The mount profile provides these; a store without them still gets a working (idle)
   // responder rather than a crash.
   if (!config)
      config = make<Config>();
   if (!probeStatus)
      probeStatus = make<Status>();
   auto queues = queuesFactory();
   // A store without the ACL sources gets empty ones: a named source list then refuses all.
   Ptr<AclConfig> aclInput = em->entityAs<AclInput>("acl/config/input");
   Ptr<AclConfig> aclCli = em->entityAs<AclConfig>("acl/config/cli");
   // A VRF namespace's devices by ifIndex, as the Linux provider publishes them.
   auto kniOf = [em](const VrfName& vrf) {
      return em->entityAs<KniNsStatus>("kni/ns/" + vrf.nsName() + "/status");
   };
   rootSm_ =
       make<RootSm>(queues, allIntfStatusDir(), l3IntfStatusDir, ifIndexStatus, ipStatus(),
                    ip6Status(), arpStatus, vrfIdMap, config, probeStatus, pamCollection(),
                    aclInput ? aclInput : make<AclConfig>(), aclCli ? aclCli : make<AclConfig>(),
                    pamConfig() ? pamConfig() : make<PamConfig>(), kniOf);
}

void Agent::dumpState(DumpContext& ctx, int indent) const {
   if (rootSm_)
      rootSm_->dumpState(ctx, indent);
}

}  // namespace Ravel::ProbeResponder
