#include "host/common/Traceroute.h"

#include <fmt/format.h>

#include "platform/values/Checksum.h"

namespace Ravel::host {

namespace {

uint16_t be16(std::span<const uint8_t> b, size_t at) {
   return static_cast<uint16_t>(b[at] << 8 | b[at + 1]);
}

bool isEchoReply(AddressFamily af, uint8_t type) {
   return type == (af == AddressFamily::ipv6 ? kIcmp6EchoReply : kIcmpEchoReply);
}

bool isError(AddressFamily af, uint8_t type) {
   if (af == AddressFamily::ipv6) {
      return type == kIcmp6DestUnreach || type == kIcmp6PacketTooBig ||
             type == kIcmp6TimeExceeded || type == kIcmp6ParamProblem;
   }
   return type == kIcmpDestUnreach || type == kIcmpTimeExceeded || type == kIcmpParamProblem;
}

}  // namespace

bool isDestUnreach(AddressFamily af, uint8_t type) {
   return type == (af == AddressFamily::ipv6 ? kIcmp6DestUnreach : kIcmpDestUnreach);
}

std::optional<TraceMatch> matchTraceReply(const TraceSession& s, std::span<const uint8_t> icmp) {
   if (icmp.size() < 8)
      return std::nullopt;
   bool v6 = s.af == AddressFamily::ipv6;
   TraceMatch m;
   m.type = icmp[0];
   m.code = icmp[1];
   if (isEchoReply(s.af, m.type)) {
      if (s.proto != TraceProto::icmp || be16(icmp, 4) != s.ident)
         return std::nullopt;
      m.probe = be16(icmp, 6);
      m.fromDestination = true;
      return m;
   }
   if (!isError(s.af, m.type))
      return std::nullopt;
   // The quoted datagram: our probe's IP header, then at least the 8 bytes every error quotes.
   auto quote = icmp.subspan(8);
   uint8_t proto;
   std::span<const uint8_t> dst, payload;
   if (v6) {
      if (quote.size() < 48 || quote[0] >> 4 != 6)
         return std::nullopt;
      proto = quote[6];
      dst = quote.subspan(24, 16);
      payload = quote.subspan(40);
   } else {
      if (quote.size() < 20 || quote[0] >> 4 != 4)
         return std::nullopt;
      size_t hl = size_t{quote[0] & 0x0fu} * 4;
      if (hl < 20 || quote.size() < hl + 8)
         return std::nullopt;
      proto = quote[9];
      dst = quote.subspan(16, 4);
      payload = quote.subspan(hl);
   }
   auto want = s.dst.bytes();
   if (!std::equal(dst.begin(), dst.end(), want.begin(), want.end()))
      return std::nullopt;
   if (s.proto == TraceProto::udp) {
      uint16_t dport = be16(payload, 2);
      if (proto != IPPROTO_UDP || be16(payload, 0) != s.ident || dport < kTraceBasePort)
         return std::nullopt;
      m.probe = static_cast<uint16_t>(dport - kTraceBasePort);
      m.fromDestination = isDestUnreach(s.af, m.type) &&
                          m.code == (v6 ? kIcmp6CodePortUnreach : kIcmpCodePortUnreach);
      return m;
   }
   uint8_t echo = v6 ? kIcmp6EchoRequest : kIcmpEchoRequest;
   if (proto != (v6 ? int{IPPROTO_ICMPV6} : int{IPPROTO_ICMP}) || payload[0] != echo ||
       be16(payload, 4) != s.ident)
      return std::nullopt;
   m.probe = be16(payload, 6);
   return m;
}

std::vector<uint8_t> buildTraceEcho(AddressFamily af, uint16_t ident, uint16_t seq,
                                    size_t payloadLength) {
   bool v6 = af == AddressFamily::ipv6;
   std::vector<uint8_t> m(8 + payloadLength);
   m[0] = v6 ? kIcmp6EchoRequest : kIcmpEchoRequest;
   m[4] = static_cast<uint8_t>(ident >> 8);
   m[5] = static_cast<uint8_t>(ident);
   m[6] = static_cast<uint8_t>(seq >> 8);
   m[7] = static_cast<uint8_t>(seq);
   for (size_t i = 0; i < payloadLength; ++i)
      m[8 + i] = static_cast<uint8_t>(0x40 + i);
   if (!v6) {
      uint16_t c = internetChecksum(m);
      m[2] = static_cast<uint8_t>(c >> 8);
      m[3] = static_cast<uint8_t>(c);
   }
   return m;
}

TraceReply decodeTraceReply(const TraceMatch& m, std::span<const uint8_t> icmp,
                            const IpGenAddr& from, const IpGenAddr& local, double rttMs,
                            uint8_t nodeIdClassNum) {
   TraceReply r;
   r.from = from;
   r.rttMs = rttMs;
   r.type = m.type;
   r.code = m.code;
   // Only the errors RFC 4884 extends are read; a packet too big has nothing to show.
   bool extendable = from.isV6() ? m.type == kIcmp6DestUnreach || m.type == kIcmp6TimeExceeded
                                 : m.type == kIcmpDestUnreach || m.type == kIcmpTimeExceeded ||
                                       m.type == kIcmpParamProblem;
   if (!extendable)
      return r;
   IcmpParseOptions opts;
   opts.af = from.af();
   opts.nodeIdClassNum = nodeIdClassNum;
   if (from.isV6() && local.isV6()) {
      opts.src = from;
      opts.dst = local;
   }
   r.parsed = parseIcmpError(icmp, opts);
   return r;
}

std::string icmpMeaning(AddressFamily af, uint8_t type, uint8_t code) {
   if (af == AddressFamily::ipv6) {
      static const char* const unreach[] = {"no route to destination",
                                            "communication administratively prohibited",
                                            "beyond scope of source address",
                                            "address unreachable",
                                            "port unreachable",
                                            "source address failed ingress/egress policy",
                                            "reject route to destination"};
      if (type == kIcmp6DestUnreach && code < std::size(unreach))
         return unreach[code];
      if (type == kIcmp6TimeExceeded && code == 0)
         return "hop limit exceeded in transit";
      if (type == kIcmp6TimeExceeded && code == 1)
         return "fragment reassembly time exceeded";
      if (type == kIcmp6PacketTooBig)
         return "packet too big";
      if (type == kIcmp6ParamProblem)
         return "parameter problem";
      if (type == kIcmp6EchoReply)
         return "echo reply";
   } else {
      static const char* const unreach[] = {"network unreachable",
                                            "host unreachable",
                                            "protocol unreachable",
                                            "port unreachable",
                                            "fragmentation needed",
                                            "source route failed",
                                            "destination network unknown",
                                            "destination host unknown",
                                            "source host isolated",
                                            "network administratively prohibited",
                                            "host administratively prohibited",
                                            "network unreachable for type of service",
                                            "host unreachable for type of service",
                                            "communication administratively prohibited",
                                            "host precedence violation",
                                            "precedence cutoff in effect"};
      if (type == kIcmpDestUnreach && code < std::size(unreach))
         return unreach[code];
      if (type == kIcmpTimeExceeded && code == 0)
         return "time exceeded in transit";
      if (type == kIcmpTimeExceeded && code == 1)
         return "fragment reassembly time exceeded";
      if (type == kIcmpParamProblem)
         return "parameter problem";
      if (type == kIcmpEchoReply)
         return "echo reply";
   }
   return fmt::format("type {} code {}", type, code);
}

}  // namespace Ravel::host
