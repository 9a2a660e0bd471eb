#include "probe/ProbeResponderAgent.h"

#include <cstring>

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"
#include "platform/values/Checksum.h"
#include "platform/values/PacketHeaders.h"

RAVEL_TRACE_CATEGORY("ProbeResponderAgent");

namespace Ravel::ProbeResponder {

namespace {

constexpr int kTaskPriority = 3;
constexpr uint8_t kIcmpExtendedEchoRequest = 42;
constexpr uint8_t kIcmpExtendedEchoReply = 43;
constexpr uint8_t kIcmp6ExtendedEchoRequest = 160;
constexpr uint8_t kIcmp6ExtendedEchoReply = 161;
constexpr uint8_t kIntfIdClass = 3;
constexpr uint8_t kStateReachable = 2;

uint16_t read16(const uint8_t* p) {
   return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
uint32_t read32(const uint8_t* p) {
   return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

// RFC 3629 well-formedness: no overlongs, surrogates or code points past U+10FFFF.
bool validUtf8(std::string_view s) {
   size_t i = 0;
   while (i < s.size()) {
      auto c = static_cast<unsigned char>(s[i]);
      size_t len;
      uint32_t cp;
      if (c < 0x80) {
         ++i;
         continue;
      } else if ((c & 0xe0) == 0xc0) {
         len = 2;
         cp = c & 0x1f;
      } else if ((c & 0xf0) == 0xe0) {
         len = 3;
         cp = c & 0x0f;
      } else if ((c & 0xf8) == 0xf0) {
         len = 4;
         cp = c & 0x07;
      } else {
         return false;
      }
      if (i + len > s.size())
         return false;
      for (size_t k = 1; k < len; ++k) {
         auto cc = static_cast<unsigned char>(s[i + k]);
         if ((cc & 0xc0) != 0x80)
            return false;
         cp = cp << 6 | (cc & 0x3f);
      }
      static constexpr uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
      if (cp < kMin[len] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff))
         return false;
      i += len;
   }
   return true;
}

}  // namespace

// ---- input reactor

PamInputReactor::PamInputReactor(VrfNameAndAddressFamily key, Ptr<IpPam> pam, Ptr<Queues> queues,
                                 Ptr<Config> config, Ptr<Status> status)
    : key_(std::move(key)),
      pam_(std::move(pam)),
      queues_(std::move(queues)),
      config_(std::move(config)),
      status_(std::move(status)) {
   RAVEL_ASSERT(pam_);
   RAVEL_ASSERT(queues_);
   RAVEL_ASSERT(config_);
   RAVEL_ASSERT(status_);
   sub_ = pam_->readable().subscribe([this] { handlePamReadable(); });
}

void PamInputReactor::handlePamReadable() {
   // Hold ourselves: enqueueing runs reactors that may drop this one.
   Ptr<PamInputReactor> self(this);
   while (Ptr<Pkt> pkt = pam_->rxPkt()) {
      uint32_t limit = config_->maxQueueLength();
      size_t in = queues_->inputSize(), out = queues_->outputSize();
      if (in > limit || out > limit) {
         TRACE(5, "Dropping packet {}->{} in vrf {} due to queue lengths - input {} output {}",
               pam_->rxSrcIpAddr(), pam_->rxDstIpAddr(), key_.vrf, in, out);
         status_->queueTooLongInc(1);
         continue;
      }
      auto entry = queueEntryFactory();
      entry->pkt = pkt;
      entry->src = pam_->rxSrcIpAddr();
      entry->dst = pam_->rxDstIpAddr();
      entry->vrf = key_.vrf;
      entry->rxIfIndex = pam_->rxIfIndex();
      TRACE(6, "Received packet {}->{} in vrf {}", entry->src, entry->dst, entry->vrf);
      TRACE(8, "Received packet {} {}->{} in vrf {}", pkt->size(), entry->src, entry->dst,
            entry->vrf);
      status_->requestsReceivedInc(1);
      queues_->inputEnq(entry);
   }
}

// ---- root state machine

RootSm::RootSm(Ptr<Queues> queues, Ptr<AllIntfStatusDir> allIntfStatusDir,
               Ptr<L3IntfStatusDir> l3IntfStatusDir, Ptr<IfIndexStatus> ifIndexStatus,
               Ptr<IpStatus> ipStatus, Ptr<Ip6Status> ip6Status, Ptr<ArpTableStatus> arpStatus,
               Ptr<VrfIdMapStatus> vrfIdMap, Ptr<Config> config, Ptr<Status> status,
               Ptr<PamCollection> pamCollection)
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
      scheduler_(Scheduler::defaultScheduler()) {
   RAVEL_ASSERT(queues_);
   RAVEL_ASSERT(config_);
   RAVEL_ASSERT(status_);
   inTask_ = std::make_unique<Task>(scheduler_, "process PROBE packet", kTaskPriority,
                                    [this] { processProbeQueue(); });
   outTask_ = std::make_unique<Task>(scheduler_, "send PROBE response", kTaskPriority,
                                     [this] { processSendQueue(); });
   intfIdByIfIndex_ = make<IntfIdByIfIndex>();
   intfIdByIfIndexSm_ = make<IntfIdByIfIndexSm>(ifIndexStatus_, intfIdByIfIndex_);
   allIntfAddrVrfTable_ = make<AllIntfAddrVrfTable>();
   vrfNameToId_ = make<NameToIdMap>();
   vrfReverseMapper_ = make<ReverseMapper>(vrfIdMap_, vrfNameToId_);
   handleInitialized();
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
   pamCollectionSub_.reset();
   inputSub_.reset();
   outputSub_.reset();
   pamInputReactor_.clear();
}

void RootSm::handleInitialized() {
   TRACE(3, "");
   intfAddrVrfTable_ = make<IntfAddrVrfTable>();
   allIntfAddrVrfTable_->table.is(VrfName::defaultVrf(), intfAddrVrfTable_);
   smConfig_.ipv6Enabled = true;
   intfAddrVrfTableSm_ = make<IntfAddrVrfTableSm>(
       VrfName::defaultVrf(), VrfName::defaultVrf().nsName(), scheduler_, ipStatus_, ip6Status_,
       make<VirtualIpStatus>(), make<VirtualIpStatus>(), nullptr, intfAddrVrfTable_, smConfig_);
}

ParseResultCode RootSm::parsePacket(const QueueEntry& entry, PacketParserResult& result) const {
   IntermediateParserResult im;
   ParseResultCode rc;
   switch (entry.src.af()) {
      case AddressFamily::ipv4:
         rc = parseIcmp4(*entry.pkt, im, result);
         break;
      case AddressFamily::ipv6:
         rc = parseIcmp6(entry, im, result);
         break;
      default:
         TRACE(5, "Unknown address family");
         status_->unknownAfInc(1);
         return ParseResultCode::malformedPacket;
   }
   if (rc != ParseResultCode::good)
      return rc;
   rc = parseExtendedIcmp(*entry.pkt, im);
   if (rc != ParseResultCode::good)
      return rc;
   return parseExtendedIcmpObject(im, result);
}

namespace {
void parsedHeader(const Pkt& pkt, IntermediateParserResult& im, PacketParserResult& result) {
   const uint8_t* d = pkt.data();
   im.pktBytes = 8;
   im.code = d[1];
   im.extnHdr = d + 8;
   result.request = read32(d + 4);
}
}  // namespace

ParseResultCode RootSm::parseIcmp4(Pkt& pkt, IntermediateParserResult& im,
                                   PacketParserResult& result) const {
   if (pkt.size() < 20) {
      TRACE(5, "Not enough bytes in the packet for IP");
      status_->pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   IpHdr ip(std::span<const uint8_t>(pkt.data(), pkt.size()));
   if (ip.version() != 4) {
      TRACE(5, "Not IPv4");
      status_->unknownAfInc(1);
      return ParseResultCode::malformedPacket;
   }
   if (pkt.size() < ip.headerLength()) {
      TRACE(5, "Not enough bytes in the packet for full IP header");
      status_->pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   pkt.pullFront(ip.headerLength());
   size_t m = pkt.size();
   if (m < 8) {
      TRACE(5, "Not enough bytes in the packet for ICMP");
      status_->pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   if (pkt.data()[0] != kIcmpExtendedEchoRequest) {
      TRACE(5, "Ignoring ICMP type {}", pkt.data()[0]);
      status_->incorrectIcmpTypeInc(1);
      return ParseResultCode::malformedPacket;
   }
   uint16_t sum =
       IcmpHdr(std::span<const uint8_t>(pkt.data(), m)).computedChecksum(static_cast<uint16_t>(m));
   if (sum != 0) {
      TRACE(5, "Bad ICMP checksum {}", sum);
      status_->incorrectIcmpChecksumInc(1);
      return ParseResultCode::malformedPacket;
   }
   parsedHeader(pkt, im, result);
   return ParseResultCode::good;
}

ParseResultCode RootSm::parseIcmp6(const QueueEntry& entry, IntermediateParserResult& im,
                                   PacketParserResult& result) const {
   const Pkt& pkt = *entry.pkt;
   size_t m = pkt.size();
   if (m < 4) {
      TRACE(5, "Not enough bytes in the packet for ICMPv6");
      status_->pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   if (pkt.data()[0] != kIcmp6ExtendedEchoRequest) {
      TRACE(5, "Ignoring ICMP6 type {}", pkt.data()[0]);
      status_->incorrectIcmpTypeInc(1);
      return ParseResultCode::malformedPacket;
   }
   uint16_t sum = Icmp6Hdr(std::span<const uint8_t>(pkt.data(), m))
                      .computedChecksum(entry.src, entry.dst, static_cast<uint32_t>(m));
   if (sum != 0) {
      TRACE(5, "Bad ICMP6 checksum {}", sum);
      status_->incorrectIcmpChecksumInc(1);
      return ParseResultCode::malformedPacket;
   }
   if (m < 8) {
      TRACE(5, "Not enough bytes in the packet for Extended Echo");
      status_->pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   parsedHeader(pkt, im, result);
   return ParseResultCode::good;
}

ParseResultCode RootSm::parseExtendedIcmp(const Pkt& pkt, IntermediateParserResult& im) const {
   size_t m = pkt.size();
   const uint8_t* d = pkt.data();
   im.pktBytesInc(4);
   if (m < im.pktBytes) {
      TRACE(5, "Not enough bytes in the packet for ICMP Extension header");
      status_->pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   unsigned version = read16(d + 8) >> 12;
   if (version != 2) {
      TRACE(5, "Wrong version number {} in extension header", version);
      status_->badExtensionHeaderInc(1);
      return ParseResultCode::malformedPacket;
   }
   im.pktBytesInc(4);
   if (m < im.pktBytes) {
      TRACE(5, "Not enough bytes in the packet for interface ID header");
      status_->pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   uint16_t length = read16(d + 12);
   im.pktBytesInc(-4);
   im.pktBytesInc(length);
   if (m < im.pktBytes) {
      TRACE(5, "Not enough bytes in the packet for interface ID object");
      status_->pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   uint16_t span = static_cast<uint16_t>(length + 4);
   uint16_t sum = IcmpExtnHdr(std::span<const uint8_t>(d + 8, span)).computedChecksum(span);
   if (sum != 0) {
      TRACE(5, "Bad Extension Header checksum");
      status_->incorrectExtensionChecksumInc(1);
      return ParseResultCode::malformedPacket;
   }
   return ParseResultCode::good;
}

ParseResultCode RootSm::parseExtendedIcmpObject(IntermediateParserResult& im,
                                                PacketParserResult& result) const {
   const uint8_t* obj = im.extnHdr + 4;
   uint16_t length = read16(obj);
   uint8_t classNum = obj[2];
   uint8_t cType = obj[3];
   if (classNum != kIntfIdClass) {
      TRACE(5, "Bad Extension Object Class {}", classNum);
      status_->badExtensionObjectInc(1);
      return ParseResultCode::malformedRequest;
   }
   std::span<const uint8_t> body(obj + 4, length > 4 ? length - 4u : 0u);
   switch (cType) {
      case 2: {
         IcmpIntfIdIfIndex v(body);
         if (v.valid()) {
            result.interface = RequestedInterface::ifIndex(static_cast<int32_t>(v.ifIndex()));
            TRACE(6, "Parsed ifIndex {}", result.interface.ifIndexValue());
            return ParseResultCode::good;
         }
         TRACE(5, "Badly formatted ifIndex Interface ID");
         break;
      }
      case 3: {
         IcmpIntfIdAddress v(body);
         if (v.valid()) {
            result.interface = RequestedInterface::ifAddr(v.addr());
            TRACE(6, "Parsed ifAddr {}", result.interface.ifAddrValue());
            return ParseResultCode::good;
         }
         TRACE(5, "Badly formatted IP Address Interface ID");
         break;
      }
      case 1: {
         IcmpIntfIdIfName v(body);
         if (v.valid()) {
            result.interface = RequestedInterface::ifName(v.ifName());
            TRACE(6, "Parsed interface name {}", result.interface.ifNameValue());
            return ParseResultCode::good;
         }
         TRACE(5, "Badly formatted Interface Name Interface ID");
         break;
      }
      default:
         TRACE(5, "Bad Extension Object C-Type {}", cType);
         break;
   }
   status_->badExtensionObjectInc(1);
   return ParseResultCode::malformedRequest;
}

bool RootSm::requestAllowed(const PacketParserResult& result) const {
   if (!config_->enabled()) {
      TRACE(4, "Not enabled, why did we get a packet?");
      return false;
   }
   const RequestedInterface& intf = result.interface;
   if (!result.localNode()) {
      if (!config_->remote())
         TRACE(4, "Request specified disallowed remote L=0");
      return config_->remote();
   }
   if (intf.containsIfName()) {
      if (!config_->ifname())
         TRACE(4, "Request specified disallowed ifName {}", intf.ifNameValue());
      return config_->ifname();
   }
   if (intf.containsIfIndex()) {
      if (!config_->ifindex()) {
         TRACE(4, "Request specified disallowed ifIndex {}", intf.ifIndexValue());
      }
      return config_->ifindex();
   }
   if (intf.containsIfAddr()) {
      if (!config_->ifaddr())
         TRACE(4, "Request specified disallowed ifAddr {}", intf.ifAddrValue());
      return config_->ifaddr();
   }
   TRACE(0, "This shouldn't be reachable");
   return false;
}

IntfId RootSm::determineInterface(const VrfName& requestVrf,
                                  const PacketParserResult& result) const {
   const RequestedInterface& intf = result.interface;
   if (intf.containsIfIndex()) {
      uint32_t n = static_cast<uint32_t>(intf.ifIndexValue());
      IntfId id = intfIdByIfIndex_->intfId.get(n);
      TRACE(6, "ifIndex {} => {}", intf.ifIndexValue(), id);
      return id;
   }
   if (intf.containsIfName()) {
      const std::string& s = intf.ifNameValue();
      TRACE(6, "Converting ifName {}", s);
      if (!validUtf8(s)) {
         TRACE(5, "Not valid UTF8: {}", s);
         return IntfId();
      }
      try {
         return IntfId(s);
      } catch (const std::exception& e) {
         TRACE(5, "Exception converting {}: {}", s, e.what());
         return IntfId();
      }
   }
   if (intf.containsIfAddr()) {
      const IpGenAddr& a = intf.ifAddrValue();
      auto table = allIntfAddrVrfTable_->table.get(requestVrf);
      if (!table) {
         TRACE(5, "no intfAddrTable for vrf {}", requestVrf);
         return IntfId();
      }
      const IntfAddrEntry* e = table->entry.find({a, IntfId()});
      if (!e) {
         TRACE(5, "no entry in intfAddrTable for {} in vrf {}", a, requestVrf);
         return IntfId();
      }
      TRACE(6, "ifAddr {} => {}", a, e->intfId);
      return e->intfId;
   }
   return IntfId();
}

void RootSm::processOnePacket(const Ptr<QueueEntry>& entry) {
   auto result = packetParserResultFactory();
   ParseResultCode rc = parsePacket(*entry, *result);
   if (rc == ParseResultCode::malformedPacket)
      return;
   if (!requestAllowed(*result)) {
      status_->requestTypeNotAllowedInc(1);
      return;
   }
   auto handlerResult = probeHandlerResultFactory();
   handlerResult->reply = result->request & 0xffffff00u;
   if (rc == ParseResultCode::malformedRequest) {
      handlerResult->icmpCode = 1;
   } else {
      handleRequest(entry->vrf, *result, *handlerResult);
   }
   sendResponse(entry, *handlerResult);
}

void RootSm::handleRequest(const VrfName& vrf, const PacketParserResult& result,
                           ProbeHandlerResult& handlerResult) const {
   if (result.localNode()) {
      handleLocalRequest(vrf, result, handlerResult);
   } else {
      handleRemoteRequest(vrf, result, handlerResult);
   }
}

void RootSm::handleLocalRequest(const VrfName& requestVrf, const PacketParserResult& result,
                                ProbeHandlerResult& handlerResult) const {
   IntfId intf = determineInterface(requestVrf, result);
   if (intf.empty()) {
      handlerResult.icmpCode = 2;
      status_->interfaceLookupFailedInc(1);
      return;
   }
   auto intfStatus = allIntfStatusDir_ ? allIntfStatusDir_->intfStatus.get(intf) : nullptr;
   auto l3 = l3IntfStatusDir_ ? l3IntfStatusDir_->intfStatus.get(intf) : nullptr;
   VrfName vrf = l3 ? l3->vrf() : VrfName::defaultVrf();
   TRACE(5, "intf {} intfStatus? {} l3IntfStatus? {} vrf {} requestVrf {}", intf, bool(intfStatus),
         bool(l3), vrf, requestVrf);
   if (!intfStatus || vrf != requestVrf) {
      handlerResult.icmpCode = 2;
      status_->wrongVrfRequestedInc(1);
      return;
   }
   uint32_t bits = 0;
   if (intfStatus->operStatus() == OperStatus::up) {
      auto ip = ipStatus_ ? ipStatus_->ipIntfStatus.get(intf) : nullptr;
      auto ip6 = ip6Status_ ? ip6Status_->ip6IntfStatus.get(intf) : nullptr;
      bits = ProbeHandlerResult::kActive;
      if (ip && ip->ipv4Running())
         bits |= ProbeHandlerResult::kIpv4;
      if (ip6 && ip6->ipv6Running())
         bits |= ProbeHandlerResult::kIpv6;
   }
   handlerResult.reply = (handlerResult.reply & 0xffffff00u) | bits;
   handlerResult.icmpCode = 0;
}

void RootSm::handleRemoteRequest(const VrfName& requestVrf, const PacketParserResult& result,
                                 ProbeHandlerResult& handlerResult) const {
   handlerResult.reply &= 0xffffff00u;
   if (!result.interface.containsIfAddr()) {
      status_->remoteRequestMalformedInc(1);
      handlerResult.icmpCode = 1;
      return;
   }
   const IpGenAddr& addr = result.interface.ifAddrValue();
   const VrfId* vrfId = vrfNameToId_->id.find(requestVrf);
   if (!vrfId) {
      TRACE(5, "No vrfId for vrf {}", requestVrf);
      handlerResult.icmpCode = 3;
      return;
   }
   size_t matches = 0;
   if (arpStatus_ && (addr.isV4() || addr.isV6())) {
      const auto& table = addr.isV4() ? arpStatus_->arp : arpStatus_->nd;
      try {
         for (auto it = table.map().lower_bound({*vrfId, addr, IntfId()});
              it != table.end() && it->first.vrfId == *vrfId && it->first.addr == addr; ++it) {
            ++matches;
         }
      } catch (const SharedTableCorruption& e) {
         if (arpStatus_->corruptionHandler)
            arpStatus_->corruptionHandler(e.what());
      }
   }
   TRACE(5, "Matching {} in vrf {} arp/nd table (vrfId {}) resulted in {} matches", addr,
         requestVrf, *vrfId, matches);
   if (matches == 1) {
      handlerResult.icmpCode = 0;
      handlerResult.stateIs(kStateReachable);
   } else {
      handlerResult.icmpCode = matches == 0 ? 3 : 4;
   }
}

void RootSm::sendResponse(const Ptr<QueueEntry>& entry, const ProbeHandlerResult& handlerResult) {
   Pkt& pkt = *entry->pkt;
   uint8_t* d = pkt.data();
   bool v4 = entry->src.isV4();
   d[0] = v4 ? kIcmpExtendedEchoReply : kIcmp6ExtendedEchoReply;
   d[1] = handlerResult.icmpCode;
   d[2] = d[3] = 0;
   d[4] = static_cast<uint8_t>(handlerResult.reply >> 24);
   d[5] = static_cast<uint8_t>(handlerResult.reply >> 16);
   d[6] = static_cast<uint8_t>(handlerResult.reply >> 8);
   d[7] = static_cast<uint8_t>(handlerResult.reply);
   if (v4) {
      uint16_t sum = internetChecksum(std::span<const uint8_t>(d, pkt.size()));
      d[2] = static_cast<uint8_t>(sum >> 8);
      d[3] = static_cast<uint8_t>(sum);
   }
   status_->codeCountInc(handlerResult.icmpCode, 1);
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
   pamInputReactor_.emplace(key, make<PamInputReactor>(key, pam, queues_, config_, status_));
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
         // Out of the arrival interface: a link-local source is only valid there.
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

// ---- sub-agent

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
   auto arpStatus =
       ptrCast<ArpTableStatus>(em->sharedTableMount("arp/status", "Arp::Table::Status", 2));
   auto vrfIdMap = ptrCast<VrfIdMapStatus>(
       em->sharedTableMount("vrf/vrfIdMapStatus", "Vrf::VrfIdMap::Status", 1));
   // The mount profile provides these; a store without them still gets a working (idle)
   // responder rather than a crash.
   if (!config)
      config = make<Config>();
   if (!probeStatus)
      probeStatus = make<Status>();
   auto queues = queuesFactory();
   rootSm_ = make<RootSm>(queues, allIntfStatusDir(), l3IntfStatusDir, ifIndexStatus, ipStatus(),
                          ip6Status(), arpStatus, vrfIdMap, config, probeStatus, pamCollection());
}

void Agent::dumpState(DumpContext& ctx, int indent) const {
   if (rootSm_)
      rootSm_->dumpState(ctx, indent);
}

}  // namespace Ravel::ProbeResponder
