#pragma once

// ICMP (RFC 792) and ICMPv6 (RFC 4443) error messages, plain or with an RFC 4884 extension
// structure carrying an RFC 5837 interface information object and a node identification
// object. Pure functions over bytes, from the ICMP header on: the agent builds errors with
// them, ravelctl reads them.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/values/Values.h"

namespace Ravel {

constexpr uint8_t kIcmpDestUnreach = 3;
constexpr uint8_t kIcmpTimeExceeded = 11;
constexpr uint8_t kIcmpParamProblem = 12;
constexpr uint8_t kIcmpCodeHostUnreach = 1;
constexpr uint8_t kIcmpCodeFragNeeded = 4;
constexpr uint8_t kIcmp6DestUnreach = 1;
constexpr uint8_t kIcmp6TimeExceeded = 3;
constexpr uint8_t kIcmp6CodeAddrUnreach = 3;

constexpr uint8_t kIcmpExtnClassIntfInfo = 2;  // RFC 5837

// Longest quote of a plain error: the IP datagram carrying it then fills the minimum MTU of its
// family (576 bytes for IPv4 by RFC 1812 section 4.3.2.3, 1280 for IPv6 by RFC 4443 section
// 2.4), less the IP header (20, 40) and the ICMP header (8).
constexpr size_t kIcmpErrorMaxQuote = 548;
constexpr size_t kIcmp6ErrorMaxQuote = 1232;
// With extensions the original datagram field is exactly this long (RFC 4884 section 5).
constexpr size_t kIcmpExtnQuoteLength = 128;
// RFC 5837 section 4.3: the name sub-object, length octet included, is at most 64 octets.
constexpr size_t kIcmpIntfNameMaxLength = 63;

// RFC 5837 section 4.1 interface roles, the two high bits of the C-Type.
enum class IcmpIntfRole : uint8_t { incoming = 0, subIp = 1, outgoing = 2, nextHop = 3 };
const char* toString(IcmpIntfRole role);

// The sub-objects of an interface information object. A field at its zero value (ifIndex 0,
// an unspecified or family-less address, an empty name, MTU 0) is left out when building; a
// received sub-object carrying a zero value reads the same as an absent one.
struct IcmpIntfInfoObject {
   IcmpIntfRole role = IcmpIntfRole::incoming;
   uint32_t ifIndex = 0;
   IpGenAddr addr;
   std::string name;  // cut to kIcmpIntfNameMaxLength bytes when built
   uint32_t mtu = 0;
   bool operator==(const IcmpIntfInfoObject&) const = default;
};

// The node identification object: the interface information object's address and name
// sub-objects under a configured class number, naming the node rather than an interface.
struct IcmpNodeIdObject {
   uint8_t classNum = 0;
   IpGenAddr addr;        // left out when unspecified
   std::string hostName;  // always sent, cut like an interface name
   bool operator==(const IcmpNodeIdObject&) const = default;
};

struct IcmpErrorSpec {
   AddressFamily af = AddressFamily::ipv4;
   uint8_t type = 0;
   uint8_t code = 0;
   // IPv4: the rest of header of the error being answered. Only the next-hop MTU (its low 16
   // bits) of a code 4 error and the pointer (its high 8 bits) of a parameter problem are kept;
   // every other error gets a zero rest of header.
   uint32_t restOfHeader = 0;
   std::span<const uint8_t> datagram;  // the offending packet from its IP header
   bool withExtensions = false;
   // In the order sent: incoming, sub-IP, outgoing, next hop (RFC 5837 section 4.1), at most one
   // of each role.
   std::vector<IcmpIntfInfoObject> intfs;
   std::optional<IcmpNodeIdObject> node;  // class number 0 is not allowed
};

// The built message's length.
size_t icmpErrorLength(const IcmpErrorSpec& spec);
// Writes the message at the start of `out`, which must hold icmpErrorLength(spec) bytes, and
// returns its length. The IPv4 checksum is filled; the ICMPv6 one is left 0 for the raw socket
// to fill (fillIcmp6Checksum in wire/ProbePacket.h computes it from the addresses).
size_t buildIcmpError(const IcmpErrorSpec& spec, std::span<uint8_t> out);
std::vector<uint8_t> buildIcmpError(const IcmpErrorSpec& spec);

enum class IcmpParseError : uint8_t {
   none,
   truncatedHeader,      // fewer than 8 bytes
   notAnError,           // a type RFC 4884 does not extend
   badChecksum,          // ICMP checksum (ICMPv6: only checked when given the addresses)
   lengthBelowMinimum,   // RFC 4884 length set but under 128 octets
   lengthBeyondMessage,  // RFC 4884 length past the end of the message
   truncatedExtnHeader,  // 1 to 3 bytes after the original datagram field
   badExtnVersion,       // extension header version other than 2
   badExtnChecksum,      // extension structure checksum
   truncatedObject,      // 1 to 3 bytes after the last object
   badObjectLength,      // object length under 4 or past the structure
   truncatedSubObject,   // a sub-object its C-Type announces does not fit
   badAfi,               // address sub-object with an AFI other than 1 or 2
   badNameLength,        // name sub-object length 0 or over 64
   trailingBytes,        // bytes left in an object after its sub-objects
   duplicateNodeObject,  // more than one node identification object
};
const char* toString(IcmpParseError e);

// An extension object the parser does not decode (e.g. RFC 4950 MPLS).
struct IcmpExtnRawObject {
   uint8_t classNum = 0;
   uint8_t cType = 0;
   std::vector<uint8_t> body;
   bool operator==(const IcmpExtnRawObject&) const = default;
};

struct IcmpErrorMessage {
   uint8_t type = 0;
   uint8_t code = 0;
   uint16_t checksum = 0;
   uint32_t restOfHeader = 0;
   uint16_t nextHopMtu = 0;     // IPv4 fragmentation needed, else 0
   size_t lengthField = 0;      // the RFC 4884 length in the family's units; 0 when unset
   std::vector<uint8_t> quote;  // the original datagram field, padding included
   bool hasExtensions = false;
   uint16_t extnChecksum = 0;  // 0: the sender did not checksum the structure
   std::vector<IcmpIntfInfoObject> intfs;
   std::optional<IcmpNodeIdObject> node;
   std::vector<IcmpExtnRawObject> otherObjects;
   bool operator==(const IcmpErrorMessage&) const = default;
};

struct IcmpParseOptions {
   AddressFamily af = AddressFamily::ipv4;
   // Class number of the node identification object; 0: no object is read as one.
   uint8_t nodeIdClassNum = 0;
   // ICMPv6: the IPv6 addresses of the packet, to check its checksum; unchecked without them.
   IpGenAddr src;
   IpGenAddr dst;
};

struct IcmpParseResult {
   std::optional<IcmpErrorMessage> msg;
   IcmpParseError error = IcmpParseError::none;
   explicit operator bool() const { return msg.has_value(); }
};

// Reads an error from the ICMP header on. Never reads outside `icmp`; anything malformed gives
// no message and the first fault found.
IcmpParseResult parseIcmpError(std::span<const uint8_t> icmp, const IcmpParseOptions& opts);

}  // namespace Ravel
