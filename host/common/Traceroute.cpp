#include "host/common/Traceroute.h"

#include <fcntl.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/common/CtlCommands.h"
#include "host/common/ProbeClient.h"
#include "platform/core/Fd.h"
#include "platform/values/Checksum.h"

namespace Ravel::host {

namespace {

constexpr uint8_t kIcmpEchoReply = 0;
constexpr uint8_t kIcmpEchoRequest = 8;
constexpr uint8_t kIcmpCodePortUnreach = 3;
constexpr uint8_t kIcmp6PacketTooBig = 2;
constexpr uint8_t kIcmp6ParamProblem = 4;
constexpr uint8_t kIcmp6EchoRequest = 128;
constexpr uint8_t kIcmp6EchoReply = 129;
constexpr uint8_t kIcmp6CodePortUnreach = 4;
constexpr size_t kProbePayload = 32;

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

bool isDestUnreach(AddressFamily af, uint8_t type) {
   return type == (af == AddressFamily::ipv6 ? kIcmp6DestUnreach : kIcmpDestUnreach);
}

}  // namespace

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

std::string printableName(const std::string& raw) {
   std::string out;
   for (unsigned char c : raw) {
      if (c >= 0x20 && c < 0x7f && c != '\\')
         out += static_cast<char>(c);
      else
         out += fmt::format("\\x{:02x}", c);
   }
   return out;
}

namespace {

const char* roleWords(IcmpIntfRole role) {
   switch (role) {
      case IcmpIntfRole::incoming:
         return "incoming";
      case IcmpIntfRole::subIp:
         return "sub-IP";
      case IcmpIntfRole::outgoing:
         return "outgoing";
      case IcmpIntfRole::nextHop:
         return "next-hop";
   }
   return "unknown";
}

std::string hexBytes(std::span<const uint8_t> b) {
   std::string s;
   for (size_t i = 0; i < b.size(); ++i)
      s += fmt::format("{}{:02x}", i > 0 && i % 4 == 0 ? " " : "", b[i]);
   return s;
}

// The extension lines of a reply, without indentation; empty for none.
std::vector<std::string> extensionLines(const TraceReply& r) {
   std::vector<std::string> out;
   if (!r.parsed.msg) {
      if (r.parsed.error != IcmpParseError::none)
         out.push_back(fmt::format("extensions could not be read: {}", toString(r.parsed.error)));
      return out;
   }
   const IcmpErrorMessage& m = *r.parsed.msg;
   if (!m.hasExtensions)
      return out;
   for (const auto& i : m.intfs) {
      std::vector<std::string> parts;
      if (!i.name.empty())
         parts.push_back("name " + printableName(i.name));
      if (i.ifIndex != 0)
         parts.push_back(fmt::format("ifIndex {}", i.ifIndex));
      if (!i.addr.isZero())
         parts.push_back("address " + i.addr.str());
      if (i.mtu != 0)
         parts.push_back(fmt::format("MTU {}", i.mtu));
      out.push_back(
          fmt::format("{} interface: {}", roleWords(i.role),
                      parts.empty() ? "no details" : fmt::format("{}", fmt::join(parts, ", "))));
   }
   if (m.node) {
      std::vector<std::string> parts;
      if (!m.node->hostName.empty())
         parts.push_back("host " + printableName(m.node->hostName));
      if (!m.node->addr.isZero())
         parts.push_back("address " + m.node->addr.str());
      out.push_back(fmt::format(
          "node: {}", parts.empty() ? "no details" : fmt::format("{}", fmt::join(parts, ", "))));
   }
   for (const auto& o : m.otherObjects) {
      out.push_back(fmt::format("object class {}, c-type {}, {} bytes: {}", o.classNum, o.cType,
                                o.body.size(), hexBytes(o.body)));
   }
   if (out.empty())
      out.push_back("extensions: no objects");
   return out;
}

double roundMs(double ms) {
   return std::round(ms * 1000) / 1000;
}

}  // namespace

std::string renderTraceHopText(const TraceHop& hop) {
   // Consecutive probes answered alike (same address, type, code and extensions) share a line;
   // a lost probe is a '*' on the line it falls in.
   struct Line {
      const TraceReply* reply = nullptr;
      std::vector<std::string> extn;
      size_t leadingStars = 0;
      std::vector<std::string> items;
   };
   std::vector<Line> lines;
   for (const auto& p : hop.probes) {
      if (!p) {
         if (lines.empty())
            lines.emplace_back();
         lines.back().items.push_back("*");
         if (!lines.back().reply)
            ++lines.back().leadingStars;
         continue;
      }
      auto extn = extensionLines(*p);
      bool same = !lines.empty() && lines.back().reply && lines.back().reply->from == p->from &&
                  lines.back().reply->type == p->type && lines.back().reply->code == p->code &&
                  lines.back().extn == extn;
      if (!same && (lines.empty() || lines.back().reply))
         lines.emplace_back();
      Line& l = lines.back();
      if (!l.reply) {
         l.reply = &*p;
         l.extn = std::move(extn);
      }
      l.items.push_back(fmt::format("{:.3f} ms", p->rttMs));
   }
   if (lines.empty())
      lines.emplace_back();
   std::string out;
   bool first = true;
   for (const Line& l : lines) {
      out += first ? fmt::format("{:2}  ", hop.ttl) : std::string(4, ' ');
      first = false;
      std::vector<std::string> items = l.items;
      if (l.reply) {
         items.insert(items.begin() + static_cast<ptrdiff_t>(l.leadingStars), l.reply->from.str());
         items.push_back(icmpMeaning(l.reply->from.af(), l.reply->type, l.reply->code));
      }
      out += fmt::format("{}\n", fmt::join(items, "  "));
      for (const auto& e : l.extn)
         out += fmt::format("       {}\n", e);
   }
   return out;
}

namespace {

nlohmann::json extensionsJson(const TraceReply& r) {
   nlohmann::json j = nlohmann::json::object();
   if (!r.parsed.msg) {
      j["error"] = toString(r.parsed.error);
      return j;
   }
   const IcmpErrorMessage& m = *r.parsed.msg;
   if (!m.intfs.empty()) {
      auto& a = j["interfaces"] = nlohmann::json::array();
      for (const auto& i : m.intfs) {
         nlohmann::json o = {{"role", toString(i.role)}};
         if (i.ifIndex != 0)
            o["ifIndex"] = i.ifIndex;
         if (!i.addr.isZero())
            o["address"] = i.addr.str();
         if (!i.name.empty())
            o["name"] = printableName(i.name);
         if (i.mtu != 0)
            o["mtu"] = i.mtu;
         a.push_back(std::move(o));
      }
   }
   if (m.node) {
      nlohmann::json o = nlohmann::json::object();
      if (!m.node->addr.isZero())
         o["address"] = m.node->addr.str();
      if (!m.node->hostName.empty())
         o["hostName"] = printableName(m.node->hostName);
      j["node"] = std::move(o);
   }
   if (!m.otherObjects.empty()) {
      auto& a = j["other"] = nlohmann::json::array();
      for (const auto& o : m.otherObjects) {
         std::string hex;
         for (uint8_t b : o.body)
            hex += fmt::format("{:02x}", b);
         a.push_back({{"classNum", o.classNum}, {"cType", o.cType}, {"hex", hex}});
      }
   }
   return j;
}

}  // namespace

nlohmann::json traceHopJson(const TraceHop& hop) {
   nlohmann::json replies = nlohmann::json::array();
   for (const auto& p : hop.probes) {
      if (!p)
         continue;
      nlohmann::json r = {{"address", p->from.str()},
                          {"rttMs", roundMs(p->rttMs)},
                          {"type", p->type},
                          {"code", p->code},
                          {"meaning", icmpMeaning(p->from.af(), p->type, p->code)}};
      bool withExtn =
          p->parsed.msg ? p->parsed.msg->hasExtensions : p->parsed.error != IcmpParseError::none;
      if (withExtn)
         r["extensions"] = extensionsJson(*p);
      replies.push_back(std::move(r));
   }
   return {{"ttl", hop.ttl}, {"probes", hop.probes.size()}, {"replies", std::move(replies)}};
}

nlohmann::json traceResultJson(const TraceResult& r) {
   nlohmann::json hops = nlohmann::json::array();
   for (const auto& h : r.hops)
      hops.push_back(traceHopJson(h));
   return {{"destination", r.destination},
           {"address", r.address.str()},
           {"family", toString(r.address.af())},
           {"protocol", r.proto == TraceProto::udp ? "udp" : "icmp"},
           {"reached", r.reached},
           {"hops", std::move(hops)}};
}

namespace {

struct TraceOptions {
   std::string dest;
   int family = AF_UNSPEC;
   std::string vrf;
   unsigned maxHops = 30;
   TraceProto proto = TraceProto::udp;
   unsigned queries = 3;
   double timeout = 1.0;
   uint8_t nodeIdClass = 0;
   bool json = false;
};

unsigned number(const std::string& opt, const std::string& text, unsigned lo, unsigned hi) {
   size_t used = 0;
   unsigned long v = 0;
   try {
      v = std::stoul(text, &used);
   } catch (const std::logic_error&) {
      used = 0;
   }
   if (used == 0 || used != text.size() || v < lo || v > hi)
      throw UsageError(fmt::format("{} takes a number from {} to {}", opt, lo, hi));
   return static_cast<unsigned>(v);
}

TraceOptions parseOptions(const std::vector<std::string>& args) {
   TraceOptions o;
   for (size_t i = 1; i < args.size(); ++i) {
      const std::string& a = args[i];
      auto value = [&]() -> const std::string& {
         if (i + 1 >= args.size())
            throw UsageError(a + " needs a value");
         return args[++i];
      };
      if (a == "-4") {
         o.family = AF_INET;
      } else if (a == "-6") {
         o.family = AF_INET6;
      } else if (a == "--vrf") {
         o.vrf = value();
         if (o.vrf.empty() || o.vrf.find('/') != std::string::npos || o.vrf.size() > 100)
            throw UsageError("--vrf takes a VRF name");
      } else if (a == "--max-hops") {
         o.maxHops = number(a, value(), 1, 255);
      } else if (a == "--udp") {
         o.proto = TraceProto::udp;
      } else if (a == "--icmp") {
         o.proto = TraceProto::icmp;
      } else if (a == "--queries") {
         o.queries = number(a, value(), 1, 10);
      } else if (a == "--timeout") {
         const std::string& t = value();
         size_t used = 0;
         try {
            o.timeout = std::stod(t, &used);
         } catch (const std::logic_error&) {
            used = 0;
         }
         if (used == 0 || used != t.size() || !(o.timeout > 0) || o.timeout > 60)
            throw UsageError("--timeout takes seconds, over 0 and at most 60");
      } else if (a == "--node-id-class") {
         o.nodeIdClass = static_cast<uint8_t>(number(a, value(), 0, 255));
      } else if (a == "--json") {
         o.json = true;
      } else if (o.dest.empty() && !a.starts_with("-")) {
         o.dest = a;
      } else {
         throw UsageError("unexpected argument " + a);
      }
   }
   if (o.dest.empty())
      throw UsageError("traceroute needs a DEST");
   return o;
}

[[noreturn]] void fail(const std::string& what) {
   throw std::runtime_error(fmt::format("{}: {}", what, std::strerror(errno)));
}

double nowMs() {
   using namespace std::chrono;
   return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

void enterVrf(const std::string& vrf) {
   if (vrf.empty() || VrfName(vrf).isDefault())
      return;
   std::string path = "/run/netns/" + VrfName(vrf).nsName();
   Fd ns(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
   if (!ns)
      fail("VRF " + vrf + ": " + path);
   if (::setns(ns.get(), CLONE_NEWNET) != 0)
      fail("VRF " + vrf + ": setns");
}

sockaddr_storage sockAddr(const IpGenAddr& a, uint16_t port, socklen_t& len) {
   sockaddr_storage ss{};
   if (a.isV6()) {
      auto* s = reinterpret_cast<sockaddr_in6*>(&ss);
      s->sin6_family = AF_INET6;
      s->sin6_addr = a.v6Addr();
      s->sin6_port = htons(port);
      len = sizeof *s;
   } else {
      auto* s = reinterpret_cast<sockaddr_in*>(&ss);
      s->sin_family = AF_INET;
      s->sin_addr = a.v4Addr();
      s->sin_port = htons(port);
      len = sizeof *s;
   }
   return ss;
}

// The sockets of one run: a raw ICMP/ICMPv6 socket that receives every answer (and sends the
// echo requests), and for UDP probes a UDP socket whose port marks them.
class Tracer {
 public:
   Tracer(const TraceOptions& o, const IpGenAddr& dst) : o_(o), dst_(dst) {
      session_.af = dst.af();
      session_.proto = o.proto;
      session_.dst = dst;
      bool v6 = dst.isV6();
      int family = v6 ? AF_INET6 : AF_INET;
      raw_ = Fd(
          ::socket(family, SOCK_RAW | SOCK_CLOEXEC, v6 ? int{IPPROTO_ICMPV6} : int{IPPROTO_ICMP}));
      if (!raw_)
         fail("raw socket (needs root or CAP_NET_RAW)");
      if (v6) {
         icmp6_filter f;
         ICMP6_FILTER_SETBLOCKALL(&f);
         for (int t : {kIcmp6DestUnreach, kIcmp6PacketTooBig, kIcmp6TimeExceeded,
                       kIcmp6ParamProblem, kIcmp6EchoReply})
            ICMP6_FILTER_SETPASS(t, &f);
         int on = 1;
         if (::setsockopt(raw_.get(), IPPROTO_ICMPV6, ICMP6_FILTER, &f, sizeof f) != 0 ||
             ::setsockopt(raw_.get(), IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on) != 0)
            fail("ICMPv6 socket options");
      }
      if (o.proto == TraceProto::udp) {
         udp_ = Fd(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
         if (!udp_)
            fail("UDP socket");
         socklen_t len;
         sockaddr_storage any = sockAddr(v6 ? *IpGenAddr::parse("::") : IpGenAddr::v4(0), 0, len);
         if (::bind(udp_.get(), reinterpret_cast<sockaddr*>(&any), len) != 0)
            fail("bind");
         len = sizeof any;
         if (::getsockname(udp_.get(), reinterpret_cast<sockaddr*>(&any), &len) != 0)
            fail("getsockname");
         session_.ident = ntohs(v6 ? reinterpret_cast<sockaddr_in6*>(&any)->sin6_port
                                   : reinterpret_cast<sockaddr_in*>(&any)->sin_port);
      } else {
         session_.ident = static_cast<uint16_t>(::getpid());
      }
   }

   TraceHop probeHop(unsigned ttl) {
      TraceHop hop;
      hop.ttl = ttl;
      hop.probes.resize(o_.queries);
      int sendFd = udp_ ? udp_.get() : raw_.get();
      int hops = static_cast<int>(ttl);
      bool v6 = dst_.isV6();
      if (::setsockopt(sendFd, v6 ? IPPROTO_IPV6 : IPPROTO_IP, v6 ? IPV6_UNICAST_HOPS : IP_TTL,
                       &hops, sizeof hops) != 0)
         fail("set TTL");
      auto first = static_cast<uint16_t>((ttl - 1) * o_.queries);
      std::vector<double> sentAt(o_.queries);
      for (unsigned q = 0; q < o_.queries; ++q) {
         auto probe = static_cast<uint16_t>(first + q);
         socklen_t len;
         std::vector<uint8_t> msg;
         sockaddr_storage to;
         if (udp_) {
            to = sockAddr(dst_, static_cast<uint16_t>(kTraceBasePort + probe), len);
            msg.assign(kProbePayload, 0);
         } else {
            to = sockAddr(dst_, 0, len);
            msg = buildTraceEcho(dst_.af(), session_.ident, probe, kProbePayload);
         }
         sentAt[q] = nowMs();
         if (::sendto(sendFd, msg.data(), msg.size(), 0, reinterpret_cast<sockaddr*>(&to), len) < 0)
            fail("send to " + dst_.str());
      }
      double deadline = nowMs() + o_.timeout * 1000;
      unsigned pending = o_.queries;
      while (pending > 0) {
         double left = deadline - nowMs();
         if (left <= 0)
            break;
         pollfd p{raw_.get(), POLLIN, 0};
         if (::poll(&p, 1, static_cast<int>(std::ceil(left))) <= 0)
            continue;
         IpGenAddr from, local;
         auto icmp = receive(from, local);
         double at = nowMs();
         if (icmp.empty())
            continue;
         auto m = matchTraceReply(session_, icmp);
         if (!m || m->probe < first || m->probe >= first + o_.queries)
            continue;
         auto& slot = hop.probes[m->probe - first];
         if (slot)
            continue;
         slot =
             decodeTraceReply(*m, icmp, from, local, at - sentAt[m->probe - first], o_.nodeIdClass);
         reached_ = reached_ || m->fromDestination;
         --pending;
      }
      return hop;
   }

   bool reached() const { return reached_; }

 private:
   // One datagram from the raw socket, from the ICMP header on; empty when unusable.
   std::span<const uint8_t> receive(IpGenAddr& from, IpGenAddr& local) {
      sockaddr_storage src{};
      iovec iov{buf_, sizeof buf_};
      alignas(cmsghdr) uint8_t control[128];
      msghdr mh{};
      mh.msg_name = &src;
      mh.msg_namelen = sizeof src;
      mh.msg_iov = &iov;
      mh.msg_iovlen = 1;
      mh.msg_control = control;
      mh.msg_controllen = sizeof control;
      ssize_t n = ::recvmsg(raw_.get(), &mh, MSG_DONTWAIT);
      if (n <= 0)
         return {};
      std::span<const uint8_t> data(buf_, static_cast<size_t>(n));
      if (src.ss_family == AF_INET6) {
         from = IpGenAddr(reinterpret_cast<sockaddr_in6*>(&src)->sin6_addr);
         for (cmsghdr* c = CMSG_FIRSTHDR(&mh); c; c = CMSG_NXTHDR(&mh, c)) {
            if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
               in6_pktinfo pi;
               std::memcpy(&pi, CMSG_DATA(c), sizeof pi);
               local = IpGenAddr(pi.ipi6_addr);
            }
         }
         return data;
      }
      // IPv4 raw sockets deliver the IP header too.
      if (data.size() < 20)
         return {};
      size_t hl = size_t{data[0] & 0x0fu} * 4;
      if (hl < 20 || hl > data.size())
         return {};
      from = *IpGenAddr::fromBytes(data.subspan(12, 4));
      local = *IpGenAddr::fromBytes(data.subspan(16, 4));
      return data.subspan(hl);
   }

   const TraceOptions& o_;
   IpGenAddr dst_;
   TraceSession session_;
   Fd raw_;
   Fd udp_;
   bool reached_ = false;
   uint8_t buf_[65536];
};

// After a hop whose every answer is a destination unreachable from on the way, going further
// only repeats it (classic traceroute's !H, !N, !X).
bool unreachableHop(const TraceHop& hop) {
   bool any = false;
   for (const auto& p : hop.probes) {
      if (!p)
         continue;
      if (!isDestUnreach(p->from.af(), p->type))
         return false;
      any = true;
   }
   return any;
}

}  // namespace

int runTraceroute(const std::vector<std::string>& args) {
   TraceOptions o = parseOptions(args);
   IpGenAddr dst = resolveHost(o.dest, o.family);
   enterVrf(o.vrf);
   auto tracer = std::make_unique<Tracer>(o, dst);
   TraceResult result;
   result.destination = o.dest;
   result.address = dst;
   result.proto = o.proto;
   if (!o.json) {
      std::printf("traceroute to %s (%s), %u hops max, %u probes per hop, %s\n", o.dest.c_str(),
                  dst.str().c_str(), o.maxHops, o.queries,
                  o.proto == TraceProto::udp ? "udp" : "icmp");
      std::fflush(stdout);
   }
   for (unsigned ttl = 1; ttl <= o.maxHops; ++ttl) {
      TraceHop hop = tracer->probeHop(ttl);
      if (!o.json) {
         std::fputs(renderTraceHopText(hop).c_str(), stdout);
         std::fflush(stdout);
      }
      bool stop = tracer->reached() || unreachableHop(hop);
      result.hops.push_back(std::move(hop));
      if (stop)
         break;
   }
   result.reached = tracer->reached();
   if (o.json)
      std::printf("%s\n", traceResultJson(result).dump(2).c_str());
   return result.reached ? 0 : 1;
}

}  // namespace Ravel::host
