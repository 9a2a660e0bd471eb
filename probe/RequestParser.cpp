#include "probe/RequestParser.h"

#include <linux/icmpv6.h>
#include <netinet/ip_icmp.h>

#include "platform/core/Trace.h"
#include "platform/values/PacketHeaders.h"

RAVEL_TRACE_CATEGORY("ProbeRequestParser");

namespace Ravel::ProbeResponder {

namespace {

constexpr uint8_t kExtensionVersion = 2;  // RFC 4884 section 7
constexpr uint8_t kIntfIdClass = 3;       // Interface Identification Object, RFC 8335 section 2.1
constexpr size_t kExtendedEchoSize = IcmpHdr::kSize;

// Bytes 0-7 are known to be present.
void parsedHeader(std::span<const uint8_t> icmp, IntermediateParserResult& im,
                  PacketParserResult& result) {
   IcmpHdr h(icmp);
   im.pktBytes = kExtendedEchoSize;
   im.code = h.code();
   im.extnHdr = icmp.subspan(kExtendedEchoSize);
   result.request = h.restOfHeader();
}

}  // namespace

ParseResultCode RequestParser::parsePacket(std::span<const uint8_t> bytes, const IpGenAddr& src,
                                           const IpGenAddr& dst, IntermediateParserResult& im,
                                           PacketParserResult& result) const {
   ParseResultCode rc;
   switch (src.af()) {
      case AddressFamily::ipv4:
         rc = parseIcmp4(bytes, im, result);
         break;
      case AddressFamily::ipv6:
         rc = parseIcmp6(bytes, src, dst, im, result);
         break;
      default:
         TRACE(5, "Unknown address family");
         status_.unknownAfInc(1);
         return ParseResultCode::malformedPacket;
   }
   if (rc != ParseResultCode::good)
      return rc;
   rc = parseExtendedIcmp(bytes.subspan(im.icmpOffset), im);
   if (rc != ParseResultCode::good)
      return rc;
   return parseExtendedIcmpObject(im, result);
}

ParseResultCode RequestParser::parseIcmp4(std::span<const uint8_t> bytes,
                                          IntermediateParserResult& im,
                                          PacketParserResult& result) const {
   if (bytes.size() < IpHdr::kMinSize) {
      TRACE(5, "Not enough bytes in the packet for IP");
      status_.pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   IpHdr ip(bytes);
   if (ip.version() != 4) {
      TRACE(5, "Not IPv4");
      status_.unknownAfInc(1);
      return ParseResultCode::malformedPacket;
   }
   if (bytes.size() < ip.headerLength()) {
      TRACE(5, "Not enough bytes in the packet for full IP header");
      status_.pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   // From here on the message is the ICMP one; the reply is written over it.
   im.icmpOffset = static_cast<uint32_t>(ip.headerLength());
   std::span<const uint8_t> icmp = bytes.subspan(im.icmpOffset);
   size_t m = icmp.size();
   if (m < kExtendedEchoSize) {
      TRACE(5, "Not enough bytes in the packet for ICMP");
      status_.pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   IcmpHdr h(icmp);
   if (h.type() != ICMP_EXT_ECHO) {
      TRACE(5, "Ignoring ICMP type {}", h.type());
      status_.incorrectIcmpTypeInc(1);
      return ParseResultCode::malformedPacket;
   }
   uint16_t sum = h.computedChecksum(static_cast<uint16_t>(m));
   if (sum != 0) {
      TRACE(5, "Bad ICMP checksum {}", sum);
      status_.incorrectIcmpChecksumInc(1);
      return ParseResultCode::malformedPacket;
   }
   parsedHeader(icmp, im, result);
   return ParseResultCode::good;
}

// Checks in another order than IPv4 (type and checksum before the Extended Echo length): the
// order decides which counter a short or damaged message moves.
ParseResultCode RequestParser::parseIcmp6(std::span<const uint8_t> icmp, const IpGenAddr& src,
                                          const IpGenAddr& dst, IntermediateParserResult& im,
                                          PacketParserResult& result) const {
   size_t m = icmp.size();
   if (m < 4) {
      TRACE(5, "Not enough bytes in the packet for ICMPv6");
      status_.pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   Icmp6Hdr h(icmp);
   if (h.type() != ICMPV6_EXT_ECHO_REQUEST) {
      TRACE(5, "Ignoring ICMP6 type {}", h.type());
      status_.incorrectIcmpTypeInc(1);
      return ParseResultCode::malformedPacket;
   }
   uint16_t sum = h.computedChecksum(src, dst, static_cast<uint32_t>(m));
   if (sum != 0) {
      TRACE(5, "Bad ICMP6 checksum {}", sum);
      status_.incorrectIcmpChecksumInc(1);
      return ParseResultCode::malformedPacket;
   }
   if (m < kExtendedEchoSize) {
      TRACE(5, "Not enough bytes in the packet for Extended Echo");
      status_.pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   parsedHeader(icmp, im, result);
   return ParseResultCode::good;
}

ParseResultCode RequestParser::parseExtendedIcmp(std::span<const uint8_t> icmp,
                                                 IntermediateParserResult& im) const {
   size_t m = icmp.size();
   im.pktBytesInc(IcmpExtnHdr::kSize);
   if (m < im.pktBytes) {
      TRACE(5, "Not enough bytes in the packet for ICMP Extension header");
      status_.pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   IcmpExtnHdr extn(im.extnHdr);
   if (extn.version() != kExtensionVersion) {
      TRACE(5, "Wrong version number {} in extension header", extn.version());
      status_.badExtensionHeaderInc(1);
      return ParseResultCode::malformedPacket;
   }
   im.pktBytesInc(IcmpExtnObjHdr::kSize);
   if (m < im.pktBytes) {
      TRACE(5, "Not enough bytes in the packet for interface ID header");
      status_.pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   // A Length below the object header's own size passes: the header is already known to be
   // there, and the body check decides.
   uint16_t length = IcmpExtnObjHdr(im.extnHdr.subspan(IcmpExtnHdr::kSize)).length();
   im.pktBytesInc(-static_cast<int32_t>(IcmpExtnObjHdr::kSize));
   im.pktBytesInc(length);
   if (m < im.pktBytes) {
      TRACE(5, "Not enough bytes in the packet for interface ID object");
      status_.pktTooShortInc(1);
      return ParseResultCode::malformedPacket;
   }
   // The header and the first object only; later objects are neither summed nor read.
   uint16_t covered = static_cast<uint16_t>(length + IcmpExtnHdr::kSize);
   uint16_t sum = extn.computedChecksum(covered);
   if (sum != 0) {
      TRACE(5, "Bad Extension Header checksum");
      status_.incorrectExtensionChecksumInc(1);
      return ParseResultCode::malformedPacket;
   }
   return ParseResultCode::good;
}

ParseResultCode RequestParser::parseExtendedIcmpObject(const IntermediateParserResult& im,
                                                       PacketParserResult& result) const {
   IcmpExtnObjHdr obj(im.extnHdr.subspan(IcmpExtnHdr::kSize));
   if (obj.classNum() != kIntfIdClass) {
      TRACE(5, "Bad Extension Object Class {}", obj.classNum());
      status_.badExtensionObjectInc(1);
      return ParseResultCode::malformedRequest;
   }
   switch (obj.cType()) {
      case ICMP_EXT_ECHO_CTYPE_INDEX: {
         IcmpIntfIdIfIndex v(obj.body());
         if (v.valid()) {
            result.interface = RequestedInterface::ifIndex(static_cast<int32_t>(v.ifIndex()));
            TRACE(6, "Parsed ifIndex {}", result.interface.ifIndexValue());
            return ParseResultCode::good;
         }
         TRACE(5, "Badly formatted ifIndex Interface ID");
         break;
      }
      case ICMP_EXT_ECHO_CTYPE_ADDR: {
         IcmpIntfIdAddress v(obj.body());
         if (v.valid()) {
            result.interface = RequestedInterface::ifAddr(v.addr());
            TRACE(6, "Parsed ifAddr {}", result.interface.ifAddrValue());
            return ParseResultCode::good;
         }
         TRACE(5, "Badly formatted IP Address Interface ID");
         break;
      }
      case ICMP_EXT_ECHO_CTYPE_NAME: {
         IcmpIntfIdIfName v(obj.body());
         if (v.valid()) {
            result.interface = RequestedInterface::ifName(v.ifName());
            TRACE(6, "Parsed interface name {}", result.interface.ifNameValue());
            return ParseResultCode::good;
         }
         TRACE(5, "Badly formatted Interface Name Interface ID");
         break;
      }
      default:
         TRACE(5, "Bad Extension Object C-Type {}", obj.cType());
         break;
   }
   status_.badExtensionObjectInc(1);
   return ParseResultCode::malformedRequest;
}

}  // namespace Ravel::ProbeResponder
