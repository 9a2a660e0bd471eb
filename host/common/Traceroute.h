#pragma once

// `ravelctl traceroute`: a traceroute that reads the RFC 4884 extension structure of every
// error it gets back and prints its RFC 5837 interface information and node identification
// objects in words. The socket-free parts are pure functions, tested without root: matching a
// reply to its probe and decoding it (TraceReplies.cpp), rendering a hop (TraceRender.cpp); the
// run itself (options, sockets, the loop) is in Traceroute.cpp.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "platform/values/Values.h"
#include "wire/IcmpExtension.h"

namespace Ravel::host {

enum class TraceProto : uint8_t { udp, icmp };

// Classic traceroute's first destination port; probe n goes to kTraceBasePort + n.
constexpr uint16_t kTraceBasePort = 33434;
// Bytes after the echo header or in the UDP datagram of each probe.
constexpr size_t kTraceProbePayload = 32;

// ICMP types and codes told apart here beyond those of wire/IcmpExtension.h.
constexpr uint8_t kIcmpEchoReply = 0;
constexpr uint8_t kIcmpEchoRequest = 8;
constexpr uint8_t kIcmpCodePortUnreach = 3;
constexpr uint8_t kIcmp6PacketTooBig = 2;
constexpr uint8_t kIcmp6ParamProblem = 4;
constexpr uint8_t kIcmp6EchoRequest = 128;
constexpr uint8_t kIcmp6EchoReply = 129;
constexpr uint8_t kIcmp6CodePortUnreach = 4;

bool isDestUnreach(AddressFamily af, uint8_t type);

// What marks this run's probes. UDP: the source port of our socket, destination port
// kTraceBasePort + probe number. ICMP: echo identifier `ident`, sequence = probe number.
struct TraceSession {
   AddressFamily af = AddressFamily::ipv4;
   TraceProto proto = TraceProto::udp;
   IpGenAddr dst;
   uint16_t ident = 0;
};

// A received ICMP message that answers one of the session's probes.
struct TraceMatch {
   uint16_t probe = 0;  // the probe number
   uint8_t type = 0;
   uint8_t code = 0;
   bool fromDestination = false;  // port unreachable (UDP) or echo reply (ICMP)
};

// Matches `icmp` (from the ICMP header on) to a probe: an echo reply by its identifier and
// sequence, an error by the datagram it quotes (destination address, protocol, ports or echo
// identifier and sequence). nullopt for anything else.
std::optional<TraceMatch> matchTraceReply(const TraceSession& s, std::span<const uint8_t> icmp);

// The ICMP echo request of probe `seq`, from the type on; the ICMPv6 checksum is left 0 for
// the kernel to fill. `payloadLength` bytes of a counting pattern follow the header.
std::vector<uint8_t> buildTraceEcho(AddressFamily af, uint16_t ident, uint16_t seq,
                                    size_t payloadLength);

// One answer to one probe.
struct TraceReply {
   IpGenAddr from;
   double rttMs = 0;
   uint8_t type = 0;
   uint8_t code = 0;
   // The decoded error; unset for an echo reply. A message whose parse failed carries the
   // failure in `error` and no message.
   IcmpParseResult parsed;
};

struct TraceHop {
   unsigned ttl = 0;
   // One entry per probe sent with this TTL, in sending order; nullopt: no answer in time.
   std::vector<std::optional<TraceReply>> probes;
};

struct TraceResult {
   std::string destination;  // as given on the command line
   IpGenAddr address;
   TraceProto proto = TraceProto::udp;
   std::vector<TraceHop> hops;
   bool reached = false;
};

// Decodes an answer; `local` is the address it was sent to (for the ICMPv6 checksum).
TraceReply decodeTraceReply(const TraceMatch& m, std::span<const uint8_t> icmp,
                            const IpGenAddr& from, const IpGenAddr& local, double rttMs,
                            uint8_t nodeIdClassNum);

// "time exceeded in transit", "port unreachable", ...; "type T code C" for the rest.
std::string icmpMeaning(AddressFamily af, uint8_t type, uint8_t code);
// Text from the wire made safe for a terminal: printable ASCII kept, other bytes as \xNN.
std::string printableName(const std::string& raw);

// The lines of one hop, each ending in '\n'.
std::string renderTraceHopText(const TraceHop& hop);
nlohmann::json traceHopJson(const TraceHop& hop);
nlohmann::json traceResultJson(const TraceResult& r);

// `ravelctl traceroute DEST ...`; returns 0 when the destination answered, 1 otherwise.
// Throws UsageError for bad arguments.
int runTraceroute(const std::vector<std::string>& args);

}  // namespace Ravel::host
