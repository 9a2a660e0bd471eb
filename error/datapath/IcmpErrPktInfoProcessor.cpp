#include "error/datapath/IcmpErrPktInfoProcessor.h"

#include <algorithm>

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("IcmpErrPktInfoProcessor");

namespace Ravel::ErrorResponder {

namespace {

std::span<const uint8_t> recordData(const packet_info& r) {
   return {r.data, std::min<size_t>(r.datalen, ICMP_DATA_MAX_SIZE)};
}

IpGenAddr recordAddr(const packet_info_addr& a, AddressFamily af) {
   if (af == AddressFamily::ipv4)
      return *IpGenAddr::fromBytes({reinterpret_cast<const uint8_t*>(&a.ip4), 4});
   return *IpGenAddr::fromBytes({a.ip6, 16});
}

// Only the IP header takes part in the match: the transport header may be cut from the quote.
std::span<const uint8_t> ipHeader(std::span<const uint8_t> d, AddressFamily af) {
   size_t len = 40;
   if (af == AddressFamily::ipv4)
      len = d.empty() ? 0 : size_t{d[0] & 0x0fu} * 4;
   return d.first(std::min(len, d.size()));
}

// The kernel's stand-in source of a router without an IPv4 address (RFC 7600): no socket of
// ours can send from it. The unspecified address, likewise.
bool usableSource(const IpGenAddr& src) {
   static const IpGenAddr dummy = *IpGenAddr::parse("192.0.0.8");
   return !src.isZero() && src != dummy;
}

}  // namespace

const char* toString(AclFilterAction a) {
   switch (a) {
      case AclFilterAction::extensions:
         return "extensions";
      case AclFilterAction::noExtensionsByDeny:
         return "noExtensionsByDeny";
      case AclFilterAction::noExtensionsByDefault:
         return "noExtensionsByDefault";
   }
   return "unknown";
}

IcmpErrPktInfoProcessor::IcmpErrPktInfoProcessor(IcmpErrPktInfoProcessorInputs inputs)
    : in_(std::move(inputs)) {
   RAVEL_ASSERT(in_.intfLookupHelper);
   RAVEL_ASSERT(in_.pamCollection);
   RAVEL_ASSERT(in_.config);
   RAVEL_ASSERT(in_.ebpfVrfStatus);
   RAVEL_ASSERT(in_.aclTypeConfig);
   RAVEL_ASSERT(in_.stats);
   RAVEL_ASSERT(in_.ebpfConfig);
   handleInitialized();
}

void IcmpErrPktInfoProcessor::handleInitialized() {
   if (in_.af == AddressFamily::ipv4)
      replyHandler_ = make<IcmpErrV4ReplyHandler>(in_.pamCollection, in_.stats);
   else if (in_.af == AddressFamily::ipv6)
      replyHandler_ = make<IcmpErrV6ReplyHandler>(in_.pamCollection, in_.stats);
   else
      RAVEL_ASSERT_MSG(false, "Unsupported AF");
}

void IcmpErrPktInfoProcessor::processPacketInfo(const packet_info& pktInfo) {
   TRACE(7, "{}", dumpPacketInfo(pktInfo));
   if (!nsValidate(pktInfo)) {
      in_.stats->incrAfCounter(in_.af, AfCounterId::nsValidationFailed);
      TRACE(5, "Ns validation failed for nsInode: {}", pktInfo.nsindex);
      // A VRF whose namespace is being programmed again may have dropped the kernel's error.
      if (auto e = in_.ebpfConfig->entryByInode.get(NsInode{pktInfo.nsindex}))
         lost(e->vrfName);
      return;
   }
   VrfName vrf = getVrf(pktInfo);
   in_.stats->incrAfCounter(in_.af, AfCounterId::pktInfoProcessed);
   IpGenAddr src = recordAddr(pktInfo.src_addr, in_.af);
   if (!usableSource(src)) {
      // The kernel's error goes through: its filter drops only errors with a local source.
      TRACE(6, "source {} is not ours to send from; left to the kernel", src);
      in_.stats->incrVrfCounter(in_.af, vrf, VrfCounterId::leftToKernel);
      return;
   }

   bool withExtensions = aclFilterResult(pktInfo, vrf);
   TRACE(7, "{}",
         withExtensions ? "Packet passed acl filter"
                        : "sending icmp error without extensions as default");
   ReplyPktMetadata metadata = fetchMetadata(pktInfo, vrf);
   if (!metadata.valid) {
      if (withExtensions)
         TRACE(0, "sending icmp error without extensions as the intf info cannot be retrieved");
      withExtensions = false;
   }
   replyHandler_->setPacketContext(pktInfo, metadata, in_.af);
   withExtensions = replyHandler_->createIcmpErrPacket(withExtensions);
   if (!replyHandler_->sendIcmpReply(withExtensions, vrf))
      lost(vrf);
   replyHandler_->pktDel();
}

void IcmpErrPktInfoProcessor::lost(const VrfName& vrf) const {
   if (in_.replacementLost)
      in_.replacementLost(vrf);
}

bool IcmpErrPktInfoProcessor::nsValidate(const packet_info& pktInfo) const {
   NsInode inode = pktInfo.nsindex;
   return in_.ebpfConfig->entryByInode.has(inode) && in_.ebpfVrfStatus->enabledInodeHas(inode);
}

VrfName IcmpErrPktInfoProcessor::getVrf(const packet_info& pktInfo) const {
   auto e = in_.ebpfConfig->entryByInode.get(NsInode{pktInfo.nsindex});
   return e ? e->vrfName : VrfName();
}

AclFilterAction IcmpErrPktInfoProcessor::aclFilterAction(const packet_info& pktInfo,
                                                         const VrfName& vrfName) const {
   auto vc = in_.config->vrfConfig.get(vrfName);
   bool v4 = in_.af == AddressFamily::ipv4;
   const std::string name = !vc ? std::string() : v4 ? vc->v4AclName() : vc->v6AclName();
   if (name.empty()) {
      TRACE(7, "filter is empty, sending RFC 5837 extended icmp error");
      return AclFilterAction::extensions;
   }
   const AclList* list = in_.aclTypeConfig->acl.find(name);
   if (!list) {
      TRACE(6, "configured filtername is not present, sending RFC 792 icmp error");
      return AclFilterAction::noExtensionsByDefault;
   }
   auto hdr = ipHeader(recordData(pktInfo), in_.af);
   AclMatch m = v4 ? matchesIpAcl(*list, hdr) : matchesIp6Acl(*list, hdr);
   if (!m.matched) {
      TRACE(6, "Sending RFC 792 icmp error packet as default action");
      return AclFilterAction::noExtensionsByDefault;
   }
   TRACE(6, "Acl match action val: {}", toString(m.action));
   if (m.action != AclAction::permit) {
      TRACE(6, "Sending RFC 792 icmp error as it hit deny acl");
      return AclFilterAction::noExtensionsByDeny;
   }
   TRACE(7, "Sending RFC 5837 extended icmp error packet as it hit accept acl");
   return AclFilterAction::extensions;
}

ReplyPktMetadata IcmpErrPktInfoProcessor::fetchMetadata(const packet_info& pktInfo,
                                                        const VrfName& vrfName) const {
   ReplyPktMetadata md;
   md.dstReplyIp = recordAddr(pktInfo.dst_addr, in_.af);
   md.srcReplyIp = recordAddr(pktInfo.src_addr, in_.af);
   IpGenAddr hostAddr = hostIdentifierAddress(vrfName);
   // The arrival device when the kernel saw one; else the device the packet was on.
   uint32_t in = pktInfo.iif ? pktInfo.iif : pktInfo.ifindex;
   TRACE(7, "Lookup interface details for ifindex: {}", in);
   IcmpIntfInfo intfInfo = in_.intfLookupHelper->icmpIntfInfo(in_.af, in, vrfName);
   if (!intfInfo.isValid)
      return md;
   if (pktInfo.oif) {
      md.outIntfInfo = in_.intfLookupHelper->icmpIntfInfo(in_.af, pktInfo.oif, vrfName);
      md.nextHop = nextHop(pktInfo);
   }
   if (auto vc = in_.config->vrfConfig.get(vrfName))
      md.disclosure = vc->disclosure();
   md.addHostName = in_.config->addHostName();
   md.nodeIdCodePoint = in_.config->nodeIdCodePoint();
   md.hostIdAddr = hostAddr;
   md.inIntfInfo = intfInfo;
   md.valid = true;
   TRACE(7, "fetchMetadata : {}", md);
   return md;
}

IpGenAddr IcmpErrPktInfoProcessor::nextHop(const packet_info& pktInfo) const {
   IpGenAddr gw = recordAddr(pktInfo.gateway, in_.af);
   if (!gw.isZero())
      return gw;
   // On-link: the packet's own destination, as its IP header says.
   auto d = recordData(pktInfo);
   size_t at = in_.af == AddressFamily::ipv4 ? 16 : 24,
          len = in_.af == AddressFamily::ipv4 ? 4 : 16;
   if (d.size() < at + len)
      return {};
   return *IpGenAddr::fromBytes(d.subspan(at, len));
}

IpGenAddr IcmpErrPktInfoProcessor::hostIdentifierAddress(const VrfName& vrfName) const {
   AddressFamily other = in_.af == AddressFamily::ipv4 ? AddressFamily::ipv6 : AddressFamily::ipv4;
   auto vc = in_.config->vrfConfig.get(vrfName);
   if (!vc || vc->nodeIdConfig().empty())
      return unspecifiedAddr(in_.af);
   const NodeIdVrfConfig& n = vc->nodeIdConfig();
   auto configured = [&n](AddressFamily af) {
      const IpGenAddr& a = af == AddressFamily::ipv4 ? n.ipv4 : n.ipv6;
      return a.af() == af && !a.isZero() ? a : IpGenAddr();
   };
   for (AddressFamily af : {in_.af, other}) {
      if (auto a = configured(af); a.af() != AddressFamily::ipunknown)
         return a;
   }
   if (!n.interface.empty()) {
      // A link-local address names nothing outside its link.
      for (AddressFamily af : {in_.af, other}) {
         IpGenAddr a = in_.intfLookupHelper->intfIPAddr(af, n.interface, vrfName);
         if (!a.isZero() && !isLinkLocalAddr(a))
            return a;
      }
   }
   return unspecifiedAddr(in_.af);
}

std::string IcmpErrPktInfoProcessor::dumpPacketInfo(const packet_info& r) const {
   bool v4 = in_.af == AddressFamily::ipv4;
   std::string s = fmt::format("ifindex: {}\nns id : {}\n", r.ifindex, r.nsindex);
   uint8_t type = v4 ? r.hdr.icmp4.type : r.hdr.icmp6.icmp6_type;
   uint8_t code = v4 ? r.hdr.icmp4.code : r.hdr.icmp6.icmp6_code;
   uint16_t cksum = v4 ? r.hdr.icmp4.checksum : r.hdr.icmp6.icmp6_cksum;
   const uint8_t* rest = v4 ? r.hdr.icmp4.rest : r.hdr.icmp6.icmp6_data;
   s += fmt::format("{}:\nType: {}\nCode: {}\nChecksum: {:#x}\nID: {:#x}\nSequence: {:#x}\n",
                    v4 ? "ICMP Header" : "ICMP6 Header", type, code, cksum, rest[0] << 8 | rest[1],
                    rest[2] << 8 | rest[3]);
   s += fmt::format("Destination IP: {}\nSource IP selected: {}\nDataLen: {}\nData:",
                    recordAddr(r.dst_addr, in_.af), recordAddr(r.src_addr, in_.af), r.datalen);
   for (uint8_t b : recordData(r))
      s += fmt::format("{:02x}", b);
   return s;
}

}  // namespace Ravel::ErrorResponder
