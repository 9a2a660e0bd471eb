#include "platform/ProbePacket.h"

#include "platform/Checksum.h"
#include "platform/PacketHeaders.h"

namespace Ravel {

namespace {
void put16(std::vector<uint8_t>& b, size_t at, uint16_t v) {
   b[at] = static_cast<uint8_t>(v >> 8);
   b[at + 1] = static_cast<uint8_t>(v);
}
}  // namespace

std::vector<uint8_t> buildExtendedEchoRequest(AddressFamily af, uint16_t identifier, uint8_t seq,
                                              bool local, const ProbeTarget& target) {
   bool v6 = af == AddressFamily::ipv6;
   std::vector<uint8_t> m = {static_cast<uint8_t>(v6 ? 160 : 42),
                             0,
                             0,
                             0,
                             static_cast<uint8_t>(identifier >> 8),
                             static_cast<uint8_t>(identifier),
                             seq,
                             static_cast<uint8_t>(local ? 1 : 0)};
   // Extension header (version 2) and the object header; lengths and checksum filled below.
   m.insert(m.end(), {0x20, 0, 0, 0, 0, 0, 3, 0});
   uint8_t cType;
   if (auto* name = std::get_if<std::string>(&target)) {
      cType = 1;
      m.insert(m.end(), name->begin(), name->end());
      m.resize(m.size() + (4 - name->size() % 4) % 4, 0);
   } else if (auto* index = std::get_if<uint32_t>(&target)) {
      cType = 2;
      m.insert(m.end(), {static_cast<uint8_t>(*index >> 24), static_cast<uint8_t>(*index >> 16),
                         static_cast<uint8_t>(*index >> 8), static_cast<uint8_t>(*index)});
   } else {
      cType = 3;
      const IpGenAddr& a = std::get<IpGenAddr>(target);
      m.insert(m.end(), {0, static_cast<uint8_t>(a.isV4() ? 1 : 2),
                         static_cast<uint8_t>(a.bytes().size()), 0});
      m.insert(m.end(), a.bytes().begin(), a.bytes().end());
   }
   m[15] = cType;
   put16(m, 12, static_cast<uint16_t>(m.size() - 12));
   put16(m, 10, internetChecksum({m.data() + 8, m.size() - 8}));
   if (!v6)
      put16(m, 2, internetChecksum(m));
   return m;
}

void fillIcmp6Checksum(std::span<uint8_t> msg, const IpGenAddr& src, const IpGenAddr& dst) {
   if (msg.size() < 4)
      return;
   msg[2] = msg[3] = 0;
   uint16_t sum = Icmp6Hdr(msg).computedChecksum(src, dst, static_cast<uint32_t>(msg.size()));
   msg[2] = static_cast<uint8_t>(sum >> 8);
   msg[3] = static_cast<uint8_t>(sum);
}

std::optional<ExtendedEchoReply> parseExtendedEchoReply(std::span<const uint8_t> icmp) {
   if (icmp.size() < 8 || (icmp[0] != 43 && icmp[0] != 161))
      return std::nullopt;
   ExtendedEchoReply r;
   r.type = icmp[0];
   r.code = icmp[1];
   r.identifier = static_cast<uint16_t>(icmp[4] << 8 | icmp[5]);
   r.seq = icmp[6];
   r.state = icmp[7] >> 5;
   r.active = icmp[7] & 0x04;
   r.ipv4 = icmp[7] & 0x02;
   r.ipv6 = icmp[7] & 0x01;
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
