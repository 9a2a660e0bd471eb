#include "probe/RootSm.h"

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"
#include "probe/ExtendedEchoReply.h"

RAVEL_TRACE_CATEGORY("ProbeResponderRootSm");

namespace Ravel::ProbeResponder {

namespace {
constexpr int kTaskPriority = 3;
constexpr uint32_t kIdentifierAndSequence = 0xffffff00u;
}  // namespace

RootSm::RootSm(Ptr<Queues> queues, Ptr<AllIntfStatusDir> allIntfStatusDir,
               Ptr<L3IntfStatusDir> l3IntfStatusDir, Ptr<IfIndexStatus> ifIndexStatus,
               Ptr<IpStatus> ipStatus, Ptr<Ip6Status> ip6Status, Ptr<ArpTableStatus> arpStatus,
               Ptr<VrfIdMapStatus> vrfIdMap, Ptr<Config> config, Ptr<Status> status,
               Ptr<PamCollection> pamCollection, Ptr<AclConfig> aclInput, Ptr<AclConfig> aclCli,
               Ptr<PamConfig> probeConfig, RequestPolicy::KniOf kniOf)
    : queues_(std::move(queues)),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      l3IntfStatusDir_(std::move(l3IntfStatusDir)),
      ifIndexStatus_(std::move(ifIndexStatus)),
      ipStatus_(std::move(ipStatus)),
      ip6Status_(std::move(ip6Status)),
      arpStatus_(std::move(arpStatus)),
      vrfIdMap_(std::move(vrfIdMap)),
      config_(std::move(config)),
      status_(std::move(status)),
      pamCollection_(std::move(pamCollection)),
      probeConfig_(std::move(probeConfig)),
      scheduler_(Scheduler::defaultScheduler()),
      parser_([this]() -> Status& {
         RAVEL_ASSERT(status_);
         return *status_;
      }()) {
   RAVEL_ASSERT(queues_);
   RAVEL_ASSERT(config_);
   inTask_ = std::make_unique<Task>(scheduler_, "process PROBE packet", kTaskPriority,
                                    [this] { processProbeQueue(); });
   outTask_ = std::make_unique<Task>(scheduler_, "send PROBE response", kTaskPriority,
                                     [this] { processSendQueue(); });
   intfIdByIfIndex_ = make<IntfIdByIfIndex>();
   intfIdByIfIndexSm_ = make<IntfIdByIfIndexSm>(ifIndexStatus_, intfIdByIfIndex_);
   allIntfAddrVrfTable_ = make<AllIntfAddrVrfTable>();
   vrfNameToId_ = make<NameToIdMap>();
   vrfReverseMapper_ = make<ReverseMapper>(vrfIdMap_, vrfNameToId_);
   policy_ =
       std::make_unique<RequestPolicy>(config_, intfIdByIfIndex_, allIntfAddrVrfTable_,
                                       std::move(aclInput), std::move(aclCli), std::move(kniOf));
   admission_ = make<RequestAdmission>(config_, intfIdByIfIndex_, ipStatus_, scheduler_);
   handler_ =
       std::make_unique<RequestHandler>(*policy_, allIntfStatusDir_, l3IntfStatusDir_, ipStatus_,
                                        ip6Status_, arpStatus_, vrfNameToId_, *status_);
   handleInitialized();
   RAVEL_ASSERT(probeConfig_);
   vrfsSub_ = config_->vrfs.subscribe([this] { handleVrfs(); });
   enabledSub_ = config_->enabled.subscribe([this] { handleVrfs(); });
   handleVrfs();
   inputSub_ = queues_->inputSubscribe([this] { handleInputQueued(); });
   outputSub_ = queues_->outputSubscribe([this] { handleOutputQueued(); });
   if (pamCollection_) {
      pamCollectionSub_ = pamCollection_->pam.subscribe([this](const VrfNameAndAddressFamily& k) {
         handlePamCollection(k, pamCollection_->pamGet(k));
      });
      for (auto& [key, pam] : pamCollection_->pam)
         handlePamCollection(key, pam);
   }
}

RootSm::~RootSm() {
   vrfsSub_.reset();
   enabledSub_.reset();
   for (auto& [vrf, sm] : vrfTableSm_)
      probeConfig_->vrfDel(vrf);
   pamCollectionSub_.reset();
   inputSub_.reset();
   outputSub_.reset();
   pamInputReactor_.clear();
}

// Only the default VRF gets an address table: requests arrive there only.
void RootSm::handleInitialized() {
   TRACE(3, "");
   intfAddrVrfTable_ = make<IntfAddrVrfTable>();
   allIntfAddrVrfTable_->table.is(VrfName::defaultVrf(), intfAddrVrfTable_);
   smConfig_.ipv6Enabled = true;
   intfAddrVrfTableSm_ = make<IntfAddrVrfTableSm>(
       VrfName::defaultVrf(), VrfName::defaultVrf().nsName(), scheduler_, ipStatus_, ip6Status_,
       make<VirtualIpStatus>(), make<VirtualIpStatus>(), nullptr, intfAddrVrfTable_, smConfig_);
}

void RootSm::handleVrfs() {
   std::vector<VrfName> gone;
   for (auto& [vrf, sm] : vrfTableSm_) {
      if (!config_->of(vrf).enabled)
         gone.push_back(vrf);
   }
   for (auto& vrf : gone) {
      TRACE(4, "PROBE off in vrf {}", vrf);
      probeConfig_->vrfDel(vrf);
      vrfTableSm_.erase(vrf);
      allIntfAddrVrfTable_->table.del(vrf);
   }
   for (auto& [vrf, o] : config_->vrfs()) {
      if (vrf.isDefault() || vrfTableSm_.count(vrf) || !config_->of(vrf).enabled)
         continue;
      TRACE(4, "PROBE on in vrf {}", vrf);
      auto table = make<IntfAddrVrfTable>();
      allIntfAddrVrfTable_->table.is(vrf, table);
      vrfTableSm_[vrf] = make<IntfAddrVrfTableSm>(
          vrf, vrf.nsName(), scheduler_, ipStatus_, ip6Status_, make<VirtualIpStatus>(),
          make<VirtualIpStatus>(), nullptr, table, smConfig_);
      probeConfig_->vrfIs(vrf);
   }
}

ParseResultCode RootSm::parsePacket(const QueueEntry& entry, PacketParserResult& result) const {
   IntermediateParserResult im;
   Pkt& pkt = *entry.pkt;
   ParseResultCode rc = parser_.parsePacket(std::span<const uint8_t>(pkt.data(), pkt.size()),
                                            entry.src, entry.dst, im, result);
   // The reply is written over the ICMP message: the IPv4 header goes once it is known.
   if (im.icmpOffset)
      pkt.pullFront(im.icmpOffset);
   return rc;
}

void RootSm::processOnePacket(const Ptr<QueueEntry>& entry) {
   auto result = packetParserResultFactory();
   ParseResultCode rc = parsePacket(*entry, *result);
   if (rc == ParseResultCode::malformedPacket)
      return;
   // A malformed object is judged as what it defaults to (ifIndex 0) before it is answered.
   if (!policy_->requestAllowed(entry->vrf, *result)) {
      status_->requestTypeNotAllowedInc(1);
      return;
   }
   if (!policy_->sourceAuthorized(*result, entry->src, entry->dst)) {
      status_->sourceNotAuthorizedInc(1);
      return;
   }
   auto handlerResult = probeHandlerResultFactory();
   handlerResult->reply = result->request & kIdentifierAndSequence;
   if (rc == ParseResultCode::malformedRequest) {
      handlerResult->icmpCode = ReplyCode::malformedQuery;
   } else {
      handler_->handleRequest(entry->vrf, *result, *handlerResult);
   }
   sendResponse(entry, *handlerResult);
}

void RootSm::sendResponse(const Ptr<QueueEntry>& entry, const ProbeHandlerResult& handlerResult) {
   Pkt& pkt = *entry->pkt;
   writeExtendedEchoReply(std::span<uint8_t>(pkt.data(), pkt.size()), entry->src.af(),
                          handlerResult);
   status_->codeCountInc(static_cast<uint8_t>(handlerResult.icmpCode), 1);
   queues_->outputEnq(entry);
}

void RootSm::handlePamCollection(const VrfNameAndAddressFamily& key, const Ptr<IpPam>& pam) {
   if (pam) {
      TRACE(4, "Adding reactor for {} pam in vrf {}", key.af, key.vrf);
      pamInputReactorIs(key, pam);
   } else {
      TRACE(4, "Deleting reactor and shutting down pam for {} in vrf {}", key.af, key.vrf);
      pamInputReactorDel(key);
   }
}

void RootSm::pamInputReactorIs(const VrfNameAndAddressFamily& key, const Ptr<IpPam>& pam) {
   if (pamInputReactor_.count(key))
      return;
   pamInputReactor_.emplace(key,
                            make<PamInputReactor>(key, pam, queues_, config_, status_, admission_));
}

void RootSm::pamInputReactorDel(const VrfNameAndAddressFamily& key) {
   auto it = pamInputReactor_.find(key);
   if (it == pamInputReactor_.end())
      return;
   Ptr<IpPam> pam = it->second->pam();
   pamInputReactor_.erase(it);
   pam->enabledIs(false);
}

void RootSm::handleInputQueued() {
   inTask_->scheduleTask();
}
void RootSm::handleOutputQueued() {
   outTask_->scheduleTask();
}

void RootSm::processProbeQueue() {
   TRACE(7, "processProbeQueue");
   uint64_t n = 0;
   while (Ptr<QueueEntry> entry = queues_->inputDeq()) {
      processOnePacket(entry);
      ++n;
      if (scheduler_.taskShouldYield())
         break;
   }
   inTask_->workCountInc(n);
   inTask_->pendingWorkIs(queues_->inputSize());
   if (queues_->inputSize())
      inTask_->scheduleTask();
}

// Replies go from the address the request was sent to, out of the interface it came in on:
// a link-local source is only valid there.
void RootSm::processSendQueue() {
   TRACE(7, "processSendQueue");
   uint64_t n = 0;
   while (Ptr<QueueEntry> entry = queues_->outputDeq()) {
      ++n;
      auto pam = pamCollection_ ? pamCollection_->pamGet({entry->vrf, entry->src.af()}) : nullptr;
      if (!pam) {
         TRACE(5, "Could not find output pam for af {} in vrf {}", entry->src.af(), entry->vrf);
         status_->noTxPamInc(1);
      } else {
         pam->txSrcIpAddrIs(entry->dst);
         pam->txDstIpAddrIs(entry->src);
         pam->txIfIndexIs(entry->rxIfIndex);
         pam->txPktIs(entry->pkt);
         TRACE(6, "Sent packet {}->{} in vrf {}", entry->dst, entry->src, entry->vrf);
         TRACE(8, "Sent packet {} {}->{} in vrf {}", entry->pkt->size(), entry->dst, entry->src,
               entry->vrf);
         if (pam->txErrno() == 0) {
            status_->responsesSentInc(1);
         } else {
            status_->txErrorsInc(1);
            status_->lastTxErrnoIs(pam->txErrno());
         }
      }
      if (scheduler_.taskShouldYield())
         break;
   }
   outTask_->workCountInc(n);
   outTask_->pendingWorkIs(queues_->outputSize());
   if (queues_->outputSize())
      outTask_->scheduleTask();
}

void RootSm::dumpState(DumpContext& ctx, int indent) const {
   RAVEL_DUMP(ctx, indent, "ProbeResponder\n");
   RAVEL_DUMP(ctx, indent + 2, "config enabled %d ifindex %d ifname %d ifaddr %d remote %d\n",
              config_->enabled(), config_->ifindex(), config_->ifname(), config_->ifaddr(),
              config_->remote());
   RAVEL_DUMP(ctx, indent + 2, "vrfs answering besides default #%u\n",
              static_cast<unsigned>(vrfTableSm_.size()));
   RAVEL_DUMP(ctx, indent + 2,
              "dropped rateLimited %llu notUnicast %llu sourceNotAuthorized %llu\n",
              static_cast<unsigned long long>(status_->rateLimited),
              static_cast<unsigned long long>(status_->notUnicast),
              static_cast<unsigned long long>(status_->sourceNotAuthorized));
   unsigned count = static_cast<unsigned>(pamInputReactor_.size());
   RAVEL_DUMP(ctx, indent + 2, "pamInputReactor #%u\n", count);
   bool cut = !ctx.verbose() && count > ctx.entryLimit();
   if (cut) {
      RAVEL_DUMP(ctx, indent + 4,
                 "-- The following list will be truncated, use verbose option to display all %u "
                 "entries --\n",
                 count);
      ctx.wasTruncatedIs(true);
   }
   uint32_t shown = 0;
   for (auto& [key, reactor] : pamInputReactor_) {
      if (cut && shown++ >= ctx.entryLimit())
         break;
      RAVEL_DUMP(ctx, indent + 4, "input reactor for %s\n", key.str().c_str());
   }
   if (cut) {
      RAVEL_DUMP(
          ctx, indent + 4,
          "-- This list has been truncated, use verbose option to display all %u entries --\n",
          count);
   }
   RAVEL_DUMP(ctx, indent + 2, "intfIdByIfindex #%u\n",
              static_cast<unsigned>(intfIdByIfIndex_->intfId.size()));
   RAVEL_DUMP(ctx, indent + 2, "intput queue #%u\n", static_cast<unsigned>(queues_->inputSize()));
   RAVEL_DUMP(ctx, indent + 2, "output queue #%u\n", static_cast<unsigned>(queues_->outputSize()));
}

}  // namespace Ravel::ProbeResponder
