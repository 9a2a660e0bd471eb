#include "wire/ProbePacket.h"

#include <algorithm>

#include "platform/core/Assert.h"
#include "platform/values/Checksum.h"
#include "platform/values/PacketHeaders.h"

namespace Ravel {

namespace {

constexpr size_t kExtnAt = IcmpHdr::kSize;
constexpr size_t kObjAt = kExtnAt + IcmpExtnHdr::kSize;
constexpr size_t kBodyAt = kObjAt + IcmpExtnObjHdr::kSize;

size_t bodyLength(const ProbeTarget& target) {
   if (auto* name = std::get_if<std::string>(&target))
      return (name->size() + 3) & ~size_t{3};  // NUL-padded to a 4-byte boundary
   if (std::holds_alternative<uint32_t>(target))
      return 4;
   // IPv4 and IPv6 addresses end on a 4-byte boundary: no padding.
   return 4 + std::get<IpGenAddr>(target).bytes().size();
}

// Writes the body into its zeroed place and returns the C-Type.
uint8_t writeBody(std::span<uint8_t> body, const ProbeTarget& target) {
   if (auto* name = std::get_if<std::string>(&target)) {
      std::copy(name->begin(), name->end(), body.begin());
      return 1;
   }
   if (auto* index = std::get_if<uint32_t>(&target)) {
      store32(body, 0, *index);
      return 2;
   }
   const IpGenAddr& a = std::get<IpGenAddr>(target);
   uint16_t afi = a.isV4()   ? IcmpIntfIdAddress::kAfiIpv4
                  : a.isV6() ? IcmpIntfIdAddress::kAfiIpv6
                             : 0;
   store16(body, 0, afi);
   body[2] = static_cast<uint8_t>(a.bytes().size());
   std::copy(a.bytes().begin(), a.bytes().end(), body.begin() + 4);
   return 3;
}

}  // namespace

std::vector<uint8_t> buildExtendedEchoRequest(AddressFamily af, uint16_t identifier, uint8_t seq,
                                              bool local, const ProbeTarget& target) {
   size_t objLength = IcmpExtnObjHdr::kSize + bodyLength(target);
   RAVEL_ASSERT(objLength <= 0xffff);
   std::vector<uint8_t> m(kObjAt + objLength, 0);
   m[0] = af == AddressFamily::ipv6 ? kIcmp6ExtendedEchoRequest : kIcmpExtendedEchoRequest;
   store16(m, 4, identifier);
   m[6] = seq;
   m[7] = local ? 1 : 0;
   m[kExtnAt] = 2 << 4;  // RFC 4884 extension version 2
   store16(m, kObjAt, static_cast<uint16_t>(objLength));
   m[kObjAt + 2] = kIcmpExtnClassIntfId;
   m[kObjAt + 3] = writeBody(std::span(m).subspan(kBodyAt), target);
   store16(m, kExtnAt + 2, internetChecksum(std::span(m).subspan(kExtnAt)));
   if (af != AddressFamily::ipv6)
      store16(m, 2, internetChecksum(m));
   return m;
}

void fillIcmp6Checksum(std::span<uint8_t> msg, const IpGenAddr& src, const IpGenAddr& dst) {
   if (msg.size() < 4)
      return;
   store16(msg, 2, 0);
   store16(msg, 2, Icmp6Hdr(msg).computedChecksum(src, dst, static_cast<uint32_t>(msg.size())));
}

std::optional<ExtendedEchoReply> parseExtendedEchoReply(std::span<const uint8_t> icmp) {
   IcmpHdr h(icmp);
   if (h.size() < IcmpHdr::kSize ||
       (h.type() != kIcmpExtendedEchoReply && h.type() != kIcmp6ExtendedEchoReply))
      return std::nullopt;
   uint32_t rest = h.restOfHeader();
   ExtendedEchoReply r;
   r.type = h.type();
   r.code = h.code();
   r.identifier = static_cast<uint16_t>(rest >> 16);
   r.seq = static_cast<uint8_t>(rest >> 8);
   // Byte 7: State (3 bits), reserved (2), A, 4, 6.
   r.state = static_cast<uint8_t>((rest >> 5) & 0x7);
   r.active = rest & 0x04;
   r.ipv4 = rest & 0x02;
   r.ipv6 = rest & 0x01;
   return r;
}

const char* extendedEchoReplyCodeName(uint8_t code) {
   switch (code) {
      case 0:
         return "No Error";
      case 1:
         return "Malformed Query";
      case 2:
         return "No Such Interface";
      case 3:
         return "No Such Table Entry";
      case 4:
         return "Multiple Interfaces Satisfy Query";
      default:
         return "Unknown";
   }
}

}  // namespace Ravel
