#pragma once

#include <map>
#include <memory>

#include "agent/MiniAgent.h"
#include "platform/core/Scheduler.h"
#include "platform/store/IntfTables.h"
#include "probe/PacketParserResult.h"
#include "probe/PamInputReactor.h"
#include "probe/ProbeHandlerResult.h"
#include "probe/ProbeSchema.h"
#include "probe/Queues.h"
#include "probe/RequestAdmission.h"
#include "probe/RequestHandler.h"
#include "probe/RequestParser.h"
#include "probe/RequestPolicy.h"

namespace Ravel::ProbeResponder {

// The probe responder's root: it keeps the lookup tables filled, puts an input reactor on
// every PAM, and runs the two tasks that drain the queues. The input task takes each request
// through the parser, the policy and the handler and writes the reply over it; the output
// task sends the replies.
class RootSm : public Node {
 public:
   RootSm(Ptr<Queues> queues, Ptr<AllIntfStatusDir> allIntfStatusDir,
          Ptr<L3IntfStatusDir> l3IntfStatusDir, Ptr<IfIndexStatus> ifIndexStatus,
          Ptr<IpStatus> ipStatus, Ptr<Ip6Status> ip6Status, Ptr<ArpTableStatus> arpStatus,
          Ptr<VrfIdMapStatus> vrfIdMap, Ptr<Config> config, Ptr<Status> status,
          Ptr<PamCollection> pamCollection, Ptr<AclConfig> aclInput, Ptr<AclConfig> aclCli,
          Ptr<PamConfig> probeConfig, RequestPolicy::KniOf kniOf);
   ~RootSm() override;

   void handleInitialized();

   // The per-packet pipeline. For IPv4, parsing leaves the buffer starting at the ICMP header.
   ParseResultCode parsePacket(const QueueEntry& entry, PacketParserResult& result) const;
   void processOnePacket(const Ptr<QueueEntry>& entry);
   void sendResponse(const Ptr<QueueEntry>& entry, const ProbeHandlerResult& handlerResult);

   // Reactors and tasks.
   void handlePamCollection(const VrfNameAndAddressFamily& key, const Ptr<IpPam>& pam);
   void handleInputQueued();
   void handleOutputQueued();
   void processProbeQueue();
   void processSendQueue();
   void pamInputReactorIs(const VrfNameAndAddressFamily& key, const Ptr<IpPam>& pam);
   void pamInputReactorDel(const VrfNameAndAddressFamily& key);
   // The VRFs besides the default that answer get their PAMs and address tables.
   void handleVrfs();

   void dumpState(DumpContext& ctx, int indent) const;

   const Ptr<Queues>& queues() const { return queues_; }
   const Ptr<Status>& status() const { return status_; }
   const RequestParser& parser() const { return parser_; }
   const RequestPolicy& policy() const { return *policy_; }
   const RequestHandler& handler() const { return *handler_; }
   const Task& inTask() const { return *inTask_; }
   const Task& outTask() const { return *outTask_; }
   const std::map<VrfNameAndAddressFamily, Ptr<PamInputReactor>>& pamInputReactor() const {
      return pamInputReactor_;
   }
   const Ptr<AllIntfAddrVrfTable>& allIntfAddrVrfTable() const { return allIntfAddrVrfTable_; }

 private:
   Ptr<Queues> queues_;
   Ptr<AllIntfStatusDir> allIntfStatusDir_;
   Ptr<L3IntfStatusDir> l3IntfStatusDir_;
   Ptr<IfIndexStatus> ifIndexStatus_;
   Ptr<IpStatus> ipStatus_;
   Ptr<Ip6Status> ip6Status_;
   Ptr<ArpTableStatus> arpStatus_;
   Ptr<VrfIdMapStatus> vrfIdMap_;
   Ptr<Config> config_;
   Ptr<Status> status_;
   Ptr<PamCollection> pamCollection_;
   Ptr<PamConfig> probeConfig_;
   Scheduler& scheduler_;
   std::unique_ptr<Task> inTask_;
   std::unique_ptr<Task> outTask_;
   std::map<VrfNameAndAddressFamily, Ptr<PamInputReactor>> pamInputReactor_;
   Ptr<IntfIdByIfIndex> intfIdByIfIndex_;
   Ptr<IntfIdByIfIndexSm> intfIdByIfIndexSm_;
   Ptr<AllIntfAddrVrfTable> allIntfAddrVrfTable_;
   Ptr<IntfAddrVrfTable> intfAddrVrfTable_;
   Ptr<IntfAddrVrfTableSm> intfAddrVrfTableSm_;
   Ptr<NameToIdMap> vrfNameToId_;
   Ptr<ReverseMapper> vrfReverseMapper_;
   IntfAddrVrfTableSmConfig smConfig_;
   RequestParser parser_;
   std::unique_ptr<RequestPolicy> policy_;
   Ptr<RequestAdmission> admission_;
   std::map<VrfName, Ptr<IntfAddrVrfTableSm>> vrfTableSm_;
   Subscription vrfsSub_;
   Subscription enabledSub_;
   std::unique_ptr<RequestHandler> handler_;
   Subscription inputSub_;
   Subscription outputSub_;
   Subscription pamCollectionSub_;
};

}  // namespace Ravel::ProbeResponder
