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
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/common/CtlCommands.h"
#include "host/common/ProbeClient.h"
#include "platform/core/Fd.h"

namespace Ravel::host {

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
         o.maxHops = optionNumber(a, value(), 1, 255);
      } else if (a == "--udp") {
         o.proto = TraceProto::udp;
      } else if (a == "--icmp") {
         o.proto = TraceProto::icmp;
      } else if (a == "--queries") {
         o.queries = optionNumber(a, value(), 1, 10);
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
         o.nodeIdClass = static_cast<uint8_t>(optionNumber(a, value(), 0, 255));
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
            msg.assign(kTraceProbePayload, 0);
         } else {
            to = sockAddr(dst_, 0, len);
            msg = buildTraceEcho(dst_.af(), session_.ident, probe, kTraceProbePayload);
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
