#pragma once

#include <map>
#include <memory>

#include "agent/RavelCommon.h"
#include "platform/core/Scheduler.h"
#include "platform/store/IntfTables.h"
#include "probe/ProbeResponderTypes.h"
#include "probe/ProbeSchema.h"

namespace Ravel::ProbeResponder {

// Reads every packet waiting on one PAM into the input queue, unless a queue is over its limit.
class PamInputReactor : public Node {
 public:
   PamInputReactor(VrfNameAndAddressFamily key, Ptr<IpPam> pam, Ptr<Queues> queues,
                   Ptr<Config> config, Ptr<Status> status);
   void handlePamReadable();
   const VrfNameAndAddressFamily& key() const { return key_; }
   const Ptr<IpPam>& pam() const { return pam_; }

 private:
   VrfNameAndAddressFamily key_;
   Ptr<IpPam> pam_;
   Ptr<Queues> queues_;
   Ptr<Config> config_;
   Ptr<Status> status_;
   Subscription sub_;
};

// The probe responder: lookup tables, queues, per-PAM input reactors, the per-packet pipeline
// (parse, policy, interface, reply) and the two tasks that drain the queues.
class RootSm : public Node {
 public:
   RootSm(Ptr<Queues> queues, Ptr<AllIntfStatusDir> allIntfStatusDir,
          Ptr<L3IntfStatusDir> l3IntfStatusDir, Ptr<IfIndexStatus> ifIndexStatus,
          Ptr<IpStatus> ipStatus, Ptr<Ip6Status> ip6Status, Ptr<ArpTableStatus> arpStatus,
          Ptr<VrfIdMapStatus> vrfIdMap, Ptr<Config> config, Ptr<Status> status,
          Ptr<PamCollection> pamCollection);
   ~RootSm() override;

   void handleInitialized();

   // Parser (RFC 8335 section 2). Each failure counts once and traces once.
   ParseResultCode parsePacket(const QueueEntry& entry, PacketParserResult& result) const;
   ParseResultCode parseIcmp4(Pkt& pkt, IntermediateParserResult& im,
                              PacketParserResult& result) const;
   ParseResultCode parseIcmp6(const QueueEntry& entry, IntermediateParserResult& im,
                              PacketParserResult& result) const;
   ParseResultCode parseExtendedIcmp(const Pkt& pkt, IntermediateParserResult& im) const;
   ParseResultCode parseExtendedIcmpObject(IntermediateParserResult& im,
                                           PacketParserResult& result) const;

   // Policy and interface determination.
   bool requestAllowed(const PacketParserResult& result) const;
   IntfId determineInterface(const VrfName& requestVrf, const PacketParserResult& result) const;

   // Handling and reply construction (RFC 8335 section 3).
   void processOnePacket(const Ptr<QueueEntry>& entry);
   void handleRequest(const VrfName& vrf, const PacketParserResult& result,
                      ProbeHandlerResult& handlerResult) const;
   void handleLocalRequest(const VrfName& vrf, const PacketParserResult& result,
                           ProbeHandlerResult& handlerResult) const;
   void handleRemoteRequest(const VrfName& vrf, const PacketParserResult& result,
                            ProbeHandlerResult& handlerResult) const;
   void sendResponse(const Ptr<QueueEntry>& entry, const ProbeHandlerResult& handlerResult);

   // Reactors and tasks.
   void handlePamCollection(const VrfNameAndAddressFamily& key, const Ptr<IpPam>& pam);
   void handleInputQueued();
   void handleOutputQueued();
   void processProbeQueue();
   void processSendQueue();
   void pamInputReactorIs(const VrfNameAndAddressFamily& key, const Ptr<IpPam>& pam);
   void pamInputReactorDel(const VrfNameAndAddressFamily& key);

   void dumpState(DumpContext& ctx, int indent) const;

   const Ptr<Queues>& queues() const { return queues_; }
   const Ptr<Status>& status() const { return status_; }
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
   Subscription inputSub_;
   Subscription outputSub_;
   Subscription pamCollectionSub_;
};

// The RFC 8335 responder's sub-agent.
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
