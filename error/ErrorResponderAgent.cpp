#include "error/ErrorResponderAgent.h"

#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ErrorResponderAgent");

namespace Ravel::ErrorResponder {

void Agent::doInit(const Ptr<MountGroup>&) {
   TRACE(3, "doInit done");
}

void Agent::doMountsComplete(MountStatus status, const Ptr<EntityManager>&) {
   TRACE(3, "{}", toString(status));
}

void Agent::dumpState(DumpContext& ctx, int indent) const {
   RAVEL_DUMP(ctx, indent, "ErrorResponder\n");
}

void Agent::clearCounters(unsigned socketFd) {
   // The root state machine arrives with the error responder's data path.
   DumpContext(static_cast<int>(socketFd))
       .printf("ErrorResponder::Agent::RootSm not yet initialized!");
}

}  // namespace Ravel::ErrorResponder
