#include "error/datapath/ErrorResponderEbpfpacket.h"

#include <unistd.h>

#include <algorithm>
#include <climits>

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

#include <cstring>

RAVEL_TRACE_CATEGORY("ErrorResponderEbpfpacket");

namespace Ravel::ErrorResponder {

std::string ReplyPktMetadata::str() const {
   return fmt::format(
       "inIntfInfo=({}) addHostName={} hostIdAddr={} nodeIdCodePoint={} dstReplyIp={} "
       "srcReplyIp={} valid={}",
       inIntfInfo, addHostName, hostIdAddr, nodeIdCodePoint, dstReplyIp, srcReplyIp, valid);
}

std::string systemHostName() {
   char buf[HOST_NAME_MAX + 1] = {};
   if (gethostname(buf, sizeof buf - 1) != 0)
      return {};
   return buf;
}

IcmpErrReplyHandler::IcmpErrReplyHandler(Ptr<PamCollection> pamCollection,
                                         Ptr<ErrorResponderStats> stats)
    : pamCollection_(std::move(pamCollection)), stats_(std::move(stats)) {
   RAVEL_ASSERT(pamCollection_);
   RAVEL_ASSERT(stats_);
}

void IcmpErrReplyHandler::setPacketContext(const packet_info& pktInfo,
                                           const ReplyPktMetadata& metadata, AddressFamily af) {
   pktInfo_ = &pktInfo;
   metadata_ = metadata;
   af_ = af;
}

IcmpErrorSpec IcmpErrReplyHandler::errorSpec(bool withExtensions) const {
   RAVEL_ASSERT(pktInfo_);
   const packet_info& r = *pktInfo_;
   IcmpErrorSpec s;
   s.af = af_;
   bool v4 = af_ == AddressFamily::ipv4;
   s.type = v4 ? r.hdr.icmp4.type : r.hdr.icmp6.icmp6_type;
   s.code = v4 ? r.hdr.icmp4.code : r.hdr.icmp6.icmp6_code;
   if (v4)
      s.restOfHeader = uint32_t{r.hdr.icmp4.rest[0]} << 24 | uint32_t{r.hdr.icmp4.rest[1]} << 16 |
                       uint32_t{r.hdr.icmp4.rest[2]} << 8 | r.hdr.icmp4.rest[3];
   s.datagram = {r.data, std::min<size_t>(r.datalen, ICMP_DATA_MAX_SIZE)};
   s.withExtensions = withExtensions;
   if (!withExtensions)
      return s;
   std::string host = metadata_.addHostName || metadata_.nodeIdCodePoint ? hostName() : "";
   const Disclosure& d = metadata_.disclosure;
   for (auto [role, i, what] :
        {std::tuple{IcmpIntfRole::incoming, &metadata_.inIntfInfo, &d.incoming},
         std::tuple{IcmpIntfRole::outgoing, &metadata_.outIntfInfo, &d.outgoing}}) {
      if (!i->isValid || !what->any())
         continue;
      IcmpIntfInfoObject o;
      o.role = role;
      o.ifIndex = what->ifIndex ? i->nosIfIndex : 0;
      o.addr = what->address ? i->intfAddr : IpGenAddr();
      // The codec cuts names to the 63 octets RFC 5837 section 4.3 allows.
      if (what->name)
         o.name = metadata_.addHostName ? i->qualifiedIntfName(host) : i->intfId.str();
      o.mtu = what->mtu ? i->intfMtu : 0;
      s.intfs.push_back(o);
   }
   if (d.nextHop.address && metadata_.nextHop.af() == af_)
      s.intfs.push_back({IcmpIntfRole::nextHop, 0, metadata_.nextHop, "", 0});
   if (metadata_.nodeIdCodePoint != 0)
      s.node = IcmpNodeIdObject{metadata_.nodeIdCodePoint, metadata_.hostIdAddr, host};
   // Nothing left to tell: a plain error.
   s.withExtensions = !s.intfs.empty() || s.node;
   return s;
}

bool IcmpErrReplyHandler::buildInto(size_t bufferSize, bool withExtensions) {
   TRACE(6, "icmpExt: {}", withExtensions);
   IcmpErrorSpec spec = errorSpec(withExtensions);
   if (af_ == AddressFamily::ipv4 && spec.code == kIcmpCodeFragNeeded)
      TRACE(7, "Adding mtu to IcmpError FragNeeded : {}", spec.restOfHeader & 0xffff);
   size_t len = icmpErrorLength(spec);
   RAVEL_ASSERT(len <= bufferSize);
   pkt_ = Pkt::create(bufferSize);
   pkt_->sizeIs(len);
   buildIcmpError(spec, pkt_->bytes());
   return spec.withExtensions;
}

bool IcmpErrV4ReplyHandler::createIcmpErrPacket(bool withExtensions) {
   return buildInto(kBufferSize, withExtensions);
}

bool IcmpErrV6ReplyHandler::createIcmpErrPacket(bool withExtensions) {
   return buildInto(kBufferSize, withExtensions);
}

bool IcmpErrReplyHandler::send(bool withExtensions, const VrfName& vrfName) {
   RAVEL_ASSERT(pkt());
   TRACE(7, "Sending packet to dst : {} pktdump: {:02x}", metadata_.dstReplyIp,
         fmt::join(pkt_->bytes(), ""));
   stats_->incrVrfCounter(af_, vrfName, VrfCounterId::replyAttempted);
   auto pam = pamCollection_->pamGet({vrfName, af_});
   if (!pam) {
      if (auto held = failureReports_.allow(MonotonicClock().now()))
         TRACE(1, "vrf {}: no {} PAM to send the error on; {} more failures since", vrfName, af_,
               *held);
      stats_->incrVrfCounter(af_, vrfName, VrfCounterId::pamNotFound);
      return false;
   }
   pam->txMarkIs(kErrorReplySockMark);
   pam->txSrcIpAddrIs(metadata_.srcReplyIp);
   pam->txDstIpAddrIs(metadata_.dstReplyIp);
   pam->txTtlIs(kErrorReplyTtl);
   // A link-local destination is only reachable through the link the offending packet came
   // in on; anything else is routed. The PAM is shared, so a previous choice is reset.
   pam->txIfIndexIs(isLinkLocalAddr(metadata_.dstReplyIp) ? pktInfo_->ifindex : 0);
   pam->txPktIs(pkt_);
   if (pam->txErrno() != 0) {
      if (auto held = failureReports_.allow(MonotonicClock().now()))
         TRACE(1, "vrf {}: sending the error to {} failed: {}; {} more failures since", vrfName,
               metadata_.dstReplyIp, std::strerror(pam->txErrno()), *held);
      stats_->incrVrfCounter(af_, vrfName, VrfCounterId::replySendFailed);
      return false;
   }
   TRACE(7, "ICMP reply sent to source");
   stats_->incrVrfCounter(
       af_, vrfName,
       withExtensions ? VrfCounterId::extendedErrorSent : VrfCounterId::rfc792ErrorSent);
   return true;
}

bool IcmpErrV4ReplyHandler::sendIcmpReply(bool withExtensions, const VrfName& vrfName) {
   return send(withExtensions, vrfName);
}

bool IcmpErrV6ReplyHandler::sendIcmpReply(bool withExtensions, const VrfName& vrfName) {
   return send(withExtensions, vrfName);
}

}  // namespace Ravel::ErrorResponder
