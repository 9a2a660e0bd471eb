#pragma once

#include "agent/RavelCommon.h"

namespace Ravel::ProbeResponder {

// The RFC 8335 responder's sub-agent.
class Agent : public MiniAgent {
public:
   explicit Agent(CAgent* cAgent) : MiniAgent(cAgent) {}
   void doMountsComplete(MountStatus status, const Ptr<EntityManager>& em) override;
   void doInit(const Ptr<MountGroup>& mountGroup) override;
   void dumpState(DumpContext& ctx, int indent) const override;
};

}  // namespace Ravel::ProbeResponder
