#include "host/common/ProbeClient.h"

#include "platform/core/Fd.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>

#include <fmt/format.h>

#include "host/common/CtlCommands.h"
#include "wire/ProbePacket.h"

namespace Ravel::host {

namespace {

double nowSeconds() {
   timespec ts{};
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

}  // namespace

IpGenAddr resolveHost(const std::string& target, int family) {
   if (auto a = IpGenAddr::parse(target)) {
      if (family == AF_INET && !a->isV4())
         throw UsageError("-4 with an IPv6 target");
      if (family == AF_INET6 && !a->isV6())
         throw UsageError("-6 with an IPv4 target");
      return *a;
   }
   addrinfo hints{};
   hints.ai_family = family;
   hints.ai_socktype = SOCK_RAW;
   addrinfo* res = nullptr;
   if (int rc = getaddrinfo(target.c_str(), nullptr, &hints, &res); rc != 0) {
      throw std::runtime_error(fmt::format("{}: {}", target, gai_strerror(rc)));
   }
   IpGenAddr out;
   if (res->ai_family == AF_INET) {
      out = IpGenAddr(reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr);
   } else {
      out = IpGenAddr(reinterpret_cast<sockaddr_in6*>(res->ai_addr)->sin6_addr);
   }
   freeaddrinfo(res);
   return out;
}

int runProbe(const std::vector<std::string>& args) {
   std::string target;
   std::optional<ProbeTarget> what;
   bool remote = false;
   int family = AF_UNSPEC;
   unsigned count = 1;
   double timeout = 1.0;
   for (size_t i = 1; i < args.size(); ++i) {
      const std::string& a = args[i];
      auto value = [&]() -> const std::string& {
         if (i + 1 >= args.size())
            throw UsageError(a + " needs a value");
         return args[++i];
      };
      try {
         if (a == "--ifname") {
            what = ProbeTarget(value());
         } else if (a == "--ifindex") {
            what = ProbeTarget(uint32_t{optionNumber(a, value(), 0, UINT32_MAX)});
         } else if (a == "--ifaddr") {
            auto addr = IpGenAddr::parse(value());
            if (!addr)
               throw UsageError("--ifaddr needs an IPv4 or IPv6 address");
            what = ProbeTarget(*addr);
         } else if (a == "--remote") {
            remote = true;
         } else if (a == "-4") {
            family = AF_INET;
         } else if (a == "-6") {
            family = AF_INET6;
         } else if (a == "--count") {
            count = optionNumber(a, value(), 1, 100000);
         } else if (a == "--timeout") {
            timeout = std::stod(value());
         } else if (target.empty() && !a.starts_with("-")) {
            target = a;
         } else {
            throw UsageError("unexpected argument " + a);
         }
      } catch (const std::logic_error& e) {
         if (dynamic_cast<const UsageError*>(&e))
            throw;
         throw UsageError("bad number for " + a);
      }
   }
   if (target.empty() || !what) {
      throw UsageError("probe needs a TARGET and one of --ifname, --ifindex, --ifaddr");
   }
   IpGenAddr dst = resolveHost(target, family);
   bool v6 = dst.isV6();
   int proto = v6 ? int{IPPROTO_ICMPV6} : int{IPPROTO_ICMP};
   Fd sock(::socket(v6 ? AF_INET6 : AF_INET, SOCK_RAW | SOCK_CLOEXEC, proto));
   if (!sock) {
      throw std::runtime_error(
          fmt::format("raw socket: {} (needs root or CAP_NET_RAW)", std::strerror(errno)));
   }
   int fd = sock.get();
   sockaddr_storage to{};
   socklen_t toLen;
   if (v6) {
      auto* s = reinterpret_cast<sockaddr_in6*>(&to);
      s->sin6_family = AF_INET6;
      s->sin6_addr = dst.v6Addr();
      toLen = sizeof *s;
   } else {
      auto* s = reinterpret_cast<sockaddr_in*>(&to);
      s->sin_family = AF_INET;
      s->sin_addr = dst.v4Addr();
      toLen = sizeof *s;
   }
   auto id = static_cast<uint16_t>(getpid());
   unsigned good = 0;
   for (unsigned seq = 0; seq < count; ++seq) {
      auto msg = buildExtendedEchoRequest(v6 ? AddressFamily::ipv6 : AddressFamily::ipv4, id,
                                          static_cast<uint8_t>(seq), !remote, *what);
      double sent = nowSeconds();
      if (::sendto(fd, msg.data(), msg.size(), 0, reinterpret_cast<sockaddr*>(&to), toLen) < 0) {
         std::printf("seq=%u send failed: %s\n", seq, std::strerror(errno));
         continue;
      }
      double deadline = sent + timeout;
      bool answered = false;
      while (!answered) {
         double left = deadline - nowSeconds();
         if (left <= 0)
            break;
         pollfd p{fd, POLLIN, 0};
         if (::poll(&p, 1, static_cast<int>(left * 1000) + 1) <= 0)
            continue;
         uint8_t buf[65536];
         sockaddr_storage from{};
         socklen_t fromLen = sizeof from;
         ssize_t n =
             ::recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
         if (n <= 0)
            continue;
         std::span<const uint8_t> icmp(buf, static_cast<size_t>(n));
         if (!v6) {
            size_t hl = size_t{buf[0] & 0x0fu} * 4;
            if (hl > icmp.size())
               continue;
            icmp = icmp.subspan(hl);
         }
         auto r = parseExtendedEchoReply(icmp);
         if (!r || r->identifier != id || r->seq != static_cast<uint8_t>(seq))
            continue;
         answered = true;
         std::string src = from.ss_family == AF_INET6
                               ? IpGenAddr(reinterpret_cast<sockaddr_in6*>(&from)->sin6_addr).str()
                               : IpGenAddr(reinterpret_cast<sockaddr_in*>(&from)->sin_addr).str();
         std::printf("reply from %s: seq=%u code=%u (%s) state=%u A=%d 4=%d 6=%d time=%.3f ms\n",
                     src.c_str(), seq, r->code, extendedEchoReplyCodeName(r->code), r->state,
                     r->active, r->ipv4, r->ipv6, (nowSeconds() - sent) * 1000);
         if (r->code == 0)
            ++good;
      }
      if (!answered)
         std::printf("seq=%u no reply within %.1f s\n", seq, timeout);
      std::fflush(stdout);
   }
   return good == count ? 0 : 1;
}

}  // namespace Ravel::host
