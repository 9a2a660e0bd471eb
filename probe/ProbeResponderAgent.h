#pragma once

#include "agent/MiniAgent.h"
#include "probe/RootSm.h"

namespace Ravel::ProbeResponder {

// The RFC 8335 responder's sub-agent: its mounts and its root state machine.
class Agent : public MiniAgent {
 public:
   explicit Agent(CAgent* cAgent) : MiniAgent(cAgent) {}
   ~Agent() override;
   void doMountsComplete(MountStatus status, const Ptr<EntityManager>& em) override;
   void doInit(const Ptr<MountGroup>& mountGroup) override;
   void dumpState(DumpContext& ctx, int indent) const override;
   const Ptr<RootSm>& rootSm() const { return rootSm_; }

 private:
   Ptr<RootSm> rootSm_;
};

}  // namespace Ravel::ProbeResponder
