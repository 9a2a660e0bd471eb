#pragma once

#include "agent/RavelCommon.h"

namespace Ravel::ErrorResponder {

// The extended ICMP error responder's sub-agent.
class Agent : public MiniAgent {
 public:
   explicit Agent(CAgent* cAgent) : MiniAgent(cAgent) {}
   void doMountsComplete(MountStatus status, const Ptr<EntityManager>& em) override;
   void doInit(const Ptr<MountGroup>& mountGroup) override;
   void dumpState(DumpContext& ctx, int indent) const override;
   // Clears the counters, or says why it cannot.
   void clearCounters(unsigned socketFd);
};

}  // namespace Ravel::ErrorResponder
