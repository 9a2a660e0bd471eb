#include "probe/ProbeResponderAgent.h"

#include "platform/Assert.h"
#include "platform/Trace.h"

RAVEL_TRACE_CATEGORY("ProbeResponderAgent");

namespace Ravel::ProbeResponder {

void Agent::doInit(const Ptr<MountGroup>&) {
   cAgent()->localEntityIs("AllIntfStatusDir", "Interface::AllIntfStatusDir",
                           "interface/status/all");
   cAgent()->localEntityIs("AllIntfStatusLocalDir", "Interface::AllIntfStatusLocalDir",
                           "interface/status/local");
   TRACE(3, "doInit done");
}

void Agent::doMountsComplete(MountStatus status, const Ptr<EntityManager>&) {
   TRACE(3, "{}", toString(status));
   RAVEL_ASSERT(allIntfStatusDir());
   RAVEL_ASSERT(ipStatus());
   RAVEL_ASSERT(ip6Status());
}

void Agent::dumpState(DumpContext& ctx, int indent) const {
   RAVEL_DUMP(ctx, indent, "ProbeResponder\n");
}

}  // namespace Ravel::ProbeResponder
