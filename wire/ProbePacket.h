#pragma once

// RFC 8335 messages as a client builds and reads them.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "platform/values/Values.h"

namespace Ravel {

constexpr uint8_t kIcmpExtendedEchoRequest = 42;
constexpr uint8_t kIcmpExtendedEchoReply = 43;
constexpr uint8_t kIcmp6ExtendedEchoRequest = 160;
constexpr uint8_t kIcmp6ExtendedEchoReply = 161;
constexpr uint8_t kIcmpExtnClassIntfId = 3;  // Interface Identification Object

// The interface a request asks about: by name, ifIndex or address.
using ProbeTarget = std::variant<std::string, uint32_t, IpGenAddr>;

// The ICMP (type 42) or ICMPv6 (type 160) Extended Echo Request, from the ICMP header on, with
// an Interface Identification Object (RFC 8335 section 2). The IPv4 checksum is filled; the
// IPv6 one is left 0 (raw ICMPv6 sockets fill it; see fillIcmp6Checksum). An address of the
// unknown family gives AFI 0 with no address: a malformed query, for tests.
std::vector<uint8_t> buildExtendedEchoRequest(AddressFamily af, uint16_t identifier, uint8_t seq,
                                              bool local, const ProbeTarget& target);
// Sets the ICMPv6 checksum of a whole message, RFC 8200 pseudo-header included.
void fillIcmp6Checksum(std::span<uint8_t> msg, const IpGenAddr& src, const IpGenAddr& dst);

struct ExtendedEchoReply {
   uint8_t type = 0;
   uint8_t code = 0;
   uint16_t identifier = 0;
   uint8_t seq = 0;
   uint8_t state = 0;
   bool active = false;
   bool ipv4 = false;
   bool ipv6 = false;
};

// From the ICMP header on; nullopt unless type 43 or 161 with at least 8 bytes. The checksum
// is not checked.
std::optional<ExtendedEchoReply> parseExtendedEchoReply(std::span<const uint8_t> icmp);
const char* extendedEchoReplyCodeName(uint8_t code);

}  // namespace Ravel
