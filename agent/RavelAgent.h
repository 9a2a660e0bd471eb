#pragma once

#include <map>
#include <string>

#include "agent/MiniAgent.h"
#include "pam/PamSm.h"

namespace Ravel {

namespace ProbeResponder {
class Agent;
}
namespace ErrorResponder {
class Agent;
}

// Holds per-name PAM maps that nothing fills; kept for the agent's structure.
class RootSm : public Node {
 public:
   explicit RootSm(Ptr<PamCollection> pamCollection);
   void handleInitialized();
   void v4PamIs(const std::string& k, const Ptr<IpPam>& p) { v4Pam_[k] = p; }
   void v4PamDel(const std::string& k) { v4Pam_.erase(k); }
   void v4PamDelAll() { v4Pam_.clear(); }
   void v6PamIs(const std::string& k, const Ptr<IpPam>& p) { v6Pam_[k] = p; }
   void v6PamDel(const std::string& k) { v6Pam_.erase(k); }
   void v6PamDelAll() { v6Pam_.clear(); }
   size_t v4PamCount() const { return v4Pam_.size(); }
   size_t v6PamCount() const { return v6Pam_.size(); }

 private:
   Ptr<PamCollection> pamCollection_;
   std::map<std::string, Ptr<IpPam>> v4Pam_;
   std::map<std::string, Ptr<IpPam>> v6Pam_;
};

class Agent;

class ShowAgentDebugCallback : public AgentCommandCallback {
 public:
   explicit ShowAgentDebugCallback(Agent* agent)
       : AgentCommandCallback("Ravel", "dumpState"), agent_(agent) {}
   void handleCommand(unsigned socketFd, const std::string& command) override;

 private:
   Agent* agent_;
};

class ErrorResponderClearCountersCallback : public AgentCommandCallback {
 public:
   explicit ErrorResponderClearCountersCallback(Agent* agent)
       : AgentCommandCallback("Ravel", "errorResponderClearCounters"), agent_(agent) {}
   void handleCommand(unsigned socketFd, const std::string& command) override;

 private:
   Agent* agent_;
};

// The plug-in: owns the PAM records, the PAM manager and the two sub-agents.
class Agent : public CAgent {
 public:
   explicit Agent(CAgent* framework);
   ~Agent() override;

   void doInit() override;
   void doMountsComplete(MountStatus status, Ptr<EntityManager> em) override;
   void dumpState(DumpContext& ctx, int indent) const;

   Ptr<ProbeResponder::Agent> probeAgentIs(CAgent* cAgent);
   Ptr<ErrorResponder::Agent> errorResponderAgentIs(CAgent* cAgent);
   Ptr<ShowAgentDebugCallback> showAgentDebugCallbackIs();
   Ptr<ErrorResponderClearCountersCallback> errorResponderClearCountersCallbackIs();
   void pamStatusIs(const Ptr<PamStatus>& s);

   const Ptr<PamCollection>& pamCollection() const { return pamCollection_; }
   const Ptr<PamConfig>& errConfig() const { return errConfig_; }
   const Ptr<PamConfig>& probeConfig() const { return probeConfig_; }
   const Ptr<PamStatus>& pamStatus() const { return pamStatus_; }
   const Ptr<RootSm>& rootSm() const { return rootSm_; }
   const Ptr<PamSm>& pamSm() const { return pamSm_; }
   const Ptr<ProbeResponder::Agent>& probeAgent() const { return probeAgent_; }
   const Ptr<ErrorResponder::Agent>& errorResponderAgent() const { return errorResponderAgent_; }

   // The trace file name template doInit initialises the recorder with.
   std::string lumenNameTemplate() const;

 private:
   Ptr<PamCollection> pamCollection_;
   Ptr<PamConfig> errConfig_;
   Ptr<PamConfig> probeConfig_;
   Ptr<PamStatus> pamStatus_;
   Ptr<RootSm> rootSm_;
   Ptr<PamSm> pamSm_;
   Ptr<ProbeResponder::Agent> probeAgent_;
   Ptr<ErrorResponder::Agent> errorResponderAgent_;
   Ptr<ShowAgentDebugCallback> showAgentDebugCallback_;
   Ptr<ErrorResponderClearCountersCallback> errorResponderClearCountersCallback_;
};

void dumpIpPamState(DumpContext& ctx, int indent, const IpPam& pam);

}  // namespace Ravel

extern "C" Ravel::Ptr<Ravel::CAgent> agentFactory(Ravel::CAgent* cAgent);
