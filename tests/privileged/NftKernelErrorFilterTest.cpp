// The nftables filter against the kernel's own ICMP errors, in namespaces the tests create.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "error/datapath/NftKernelErrorFilter.h"
#include "platform/core/Fd.h"
#include "platform/linux/SocketPam.h"
#include "platform/values/Checksum.h"
#include "tests/privileged/Host.h"

namespace Ravel::ErrorResponder {
namespace {

using test::sh;

std::string output(const std::string& cmd) {
   std::string out;
   FILE* p = ::popen((cmd + " 2>/dev/null").c_str(), "r");
   if (!p)
      return out;
   std::array<char, 512> buf;
   size_t n;
   while ((n = std::fread(buf.data(), 1, buf.size(), p)) > 0)
      out.append(buf.data(), n);
   ::pclose(p);
   return out;
}

// A namespace with loopback up, deleted on the way out.
struct ScopedNetns {
   explicit ScopedNetns(const std::string& suffix)
       : name("rvnft" + suffix + "-" + std::to_string(getpid())), path("/run/netns/" + name) {
      sh("ip netns del " + name);
      sh("ip netns add " + name);
      sh("ip -n " + name + " link set lo up");
   }
   ~ScopedNetns() { sh("ip netns del " + name); }
   std::string name;
   std::string path;
};

std::string table(const ScopedNetns& ns) {
   return output("ip netns exec " + ns.name + " nft list table inet ravel");
}

bool hasTable(const ScopedNetns& ns) {
   return output("ip netns exec " + ns.name + " nft list tables").find("table inet ravel") !=
          std::string::npos;
}

TEST(NftKernelErrorFilter, InstallsOwnedTableUntilDeleted) {
   ScopedNetns red("a"), blue("b");
   NftKernelErrorFilter filter;
   EXPECT_TRUE(filter.vrfIs("red", red.path));
   std::string listing = table(red);
   EXPECT_NE(listing.find("flags owner"), std::string::npos) << listing;
   EXPECT_NE(listing.find("hook output"), std::string::npos) << listing;
   EXPECT_FALSE(hasTable(blue));

   EXPECT_TRUE(filter.vrfIs("red", red.path));  // again: nothing to do
   EXPECT_EQ(filter.vrfCount(), 1u);

   // Another owner cannot take the table over: a second agent in the namespace fails.
   NftKernelErrorFilter other;
   EXPECT_FALSE(other.vrfIs("red", red.path));
   EXPECT_TRUE(hasTable(red));

   // The VRF moving to another namespace takes its table along.
   EXPECT_TRUE(filter.vrfIs("red", blue.path));
   EXPECT_FALSE(hasTable(red));
   EXPECT_TRUE(hasTable(blue));

   // A namespace made again under the same name is a new one and gets its own table.
   sh("ip netns del " + blue.name);
   sh("ip netns add " + blue.name);
   EXPECT_FALSE(hasTable(blue));
   EXPECT_TRUE(filter.vrfIs("red", blue.path));
   EXPECT_TRUE(hasTable(blue));

   filter.vrfDel("red");
   EXPECT_FALSE(hasTable(blue));
   EXPECT_EQ(filter.vrfCount(), 0u);
   filter.vrfDel("red");  // unknown: no-op

   // A namespace that is gone is an operational failure, not an exception.
   EXPECT_FALSE(filter.vrfIs("green", "/run/netns/rvnft-missing"));
   EXPECT_EQ(filter.vrfCount(), 0u);

   // The first agent's table is gone, so the other one may install its own now.
   EXPECT_TRUE(other.vrfIs("red", red.path));
   EXPECT_TRUE(hasTable(red));
}

TEST(NftKernelErrorFilter, KilledOwnerLeavesNoTable) {
   ScopedNetns red("k");
   int ready[2];
   ASSERT_EQ(::pipe(ready), 0);
   pid_t child = ::fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      NftKernelErrorFilter filter;
      char ok = filter.vrfIs("red", red.path) ? 1 : 0;
      (void)!::write(ready[1], &ok, 1);
      for (;;)
         ::pause();
   }
   ::close(ready[1]);
   char ok = 0;
   ASSERT_EQ(::read(ready[0], &ok, 1), 1);
   ::close(ready[0]);
   EXPECT_EQ(ok, 1);
   EXPECT_TRUE(hasTable(red));
   ::kill(child, SIGKILL);
   int status = 0;
   ASSERT_EQ(::waitpid(child, &status, 0), child);
   EXPECT_FALSE(hasTable(red));
}

// Two namespaces on a veth pair: `router` (10.77.0.1, fd77::1) holds the filter; `sender`
// (10.77.0.2, fd77::2) sends a UDP datagram to a closed port of the router (the router's kernel
// answers with a port unreachable) and the router sends a crafted unreachable carrying the
// reply mark. Returns how many unreachables the sender got that were not ours, and whether ours
// arrived.
struct Seen {
   int kernelErrors = 0;
   bool markedArrived = false;
};

struct Pair {
   Pair() : router("r"), sender("s") {
      sh("ip -n " + router.name + " link add v0 type veth peer name v1 netns " + sender.name);
      for (auto [ns, dev, n] : {std::tuple{&router, "v0", 1}, std::tuple{&sender, "v1", 2}}) {
         std::string ip = "ip -n " + ns->name + " ";
         sh(ip + "addr add 10.77.0." + std::to_string(n) + "/24 dev " + dev);
         sh(ip + "addr add fd77::" + std::to_string(n) + "/64 dev " + dev + " nodad");
         sh(ip + "link set " + dev + " up");
      }
   }
   ScopedNetns router, sender;
};

sockaddr_storage address(bool v6, int host, uint16_t port, socklen_t& len) {
   sockaddr_storage a{};
   if (v6) {
      auto& s6 = reinterpret_cast<sockaddr_in6&>(a);
      s6.sin6_family = AF_INET6;
      ::inet_pton(AF_INET6, ("fd77::" + std::to_string(host)).c_str(), &s6.sin6_addr);
      s6.sin6_port = htons(port);
      len = sizeof s6;
   } else {
      auto& s4 = reinterpret_cast<sockaddr_in&>(a);
      s4.sin_family = AF_INET;
      ::inet_pton(AF_INET, ("10.77.0." + std::to_string(host)).c_str(), &s4.sin_addr);
      s4.sin_port = htons(port);
      len = sizeof s4;
   }
   return a;
}

Seen exchange(const Pair& p, bool v6) {
   Seen seen;
   int domain = v6 ? AF_INET6 : AF_INET;
   int proto = v6 ? int{IPPROTO_ICMPV6} : int{IPPROTO_ICMP};
   uint8_t unreach = v6 ? 1 : 3;
   Fd rx, udp, tx;
   inNamespace(p.sender.path, [&] {
      rx.reset(::socket(domain, SOCK_RAW | SOCK_CLOEXEC, proto));
      udp.reset(::socket(domain, SOCK_DGRAM | SOCK_CLOEXEC, 0));
   });
   inNamespace(p.router.path, [&] { tx.reset(::socket(domain, SOCK_RAW | SOCK_CLOEXEC, proto)); });
   if (!rx || !tx || !udp) {
      ADD_FAILURE() << "socket: " << std::strerror(errno);
      return seen;
   }
   timeval limit{10, 0};  // only against a hang
   ::setsockopt(rx.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
   uint32_t mark = kReplyMark;
   EXPECT_EQ(::setsockopt(tx.get(), SOL_SOCKET, SO_MARK, &mark, sizeof mark), 0);

   auto sendMarked = [&](char tag) {
      std::vector<uint8_t> icmp = {unreach, 4,   0,   0,   0,   0,   0,
                                   0,       'r', 'a', 'v', 'e', 'l', uint8_t(tag)};
      if (!v6) {  // the kernel fills the ICMPv6 checksum itself
         uint16_t sum = internetChecksum(icmp);
         icmp[2] = uint8_t(sum >> 8);
         icmp[3] = uint8_t(sum);
      }
      socklen_t len;
      sockaddr_storage dst = address(v6, 2, 0, len);
      EXPECT_EQ(
          ::sendto(tx.get(), icmp.data(), icmp.size(), 0, reinterpret_cast<sockaddr*>(&dst), len),
          ssize_t(icmp.size()));
   };
   // Reads until our own message `tag` arrives, counting the foreign unreachables before it.
   auto awaitMarked = [&](char tag) {
      std::array<uint8_t, 2048> buf;
      for (;;) {
         ssize_t n = ::recv(rx.get(), buf.data(), buf.size(), 0);
         if (n < 0) {
            ADD_FAILURE() << "our marked unreachable never arrived: " << std::strerror(errno);
            return;
         }
         size_t off = v6 ? 0 : (buf[0] & 0x0f) * 4u;
         if (size_t(n) < off + 8 || buf[off] != unreach)
            continue;
         if (size_t(n) == off + 14 && std::memcmp(&buf[off + 8], "ravel", 5) == 0) {
            if (buf[off + 13] == uint8_t(tag)) {
               seen.markedArrived = true;
               return;
            }
            continue;
         }
         ++seen.kernelErrors;
      }
   };

   const char payload[] = "closed port";
   socklen_t len;
   sockaddr_storage to = address(v6, 1, 9, len);
   EXPECT_EQ(::sendto(udp.get(), payload, sizeof payload, 0, reinterpret_cast<sockaddr*>(&to), len),
             ssize_t(sizeof payload));
   sendMarked('1');
   awaitMarked('1');
   // With the thread on one CPU, the veth pair delivers in order: the kernel's error, queued
   // while the datagram was processed, precedes the second marked message.
   sendMarked('2');
   awaitMarked('2');
   return seen;
}

// The kernel's errors are dropped only for the families last said live, and only until the
// liveness runs out; the agent's marked errors always pass.
TEST(NftKernelErrorFilter, DropsOnlyWhileLive) {
   enum Step { none, v4, v6, both, expired };
   struct Case {
      Step step;
      int kernelErrors4, kernelErrors6;
   };
   const Case cases[] = {
       {none, 1, 1}, {v4, 0, 1}, {v6, 1, 0}, {both, 0, 0}, {expired, 1, 1},
   };
   cpu_set_t saved;
   ASSERT_EQ(::sched_getaffinity(0, sizeof saved, &saved), 0);
   cpu_set_t one;
   CPU_ZERO(&one);
   for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (CPU_ISSET(cpu, &saved)) {
         CPU_SET(cpu, &one);
         break;
      }
   }
   ASSERT_EQ(::sched_setaffinity(0, sizeof one, &one), 0);
   Pair p;
   NftKernelErrorFilter filter;
   ASSERT_TRUE(filter.vrfIs("red", p.router.path));
   for (const auto& c : cases) {
      SCOPED_TRACE(int(c.step));
      switch (c.step) {
         case none:
            break;
         case v4:
            ASSERT_TRUE(filter.liveIs("red", {true, false}));
            break;
         case v6:
            ASSERT_TRUE(filter.liveIs("red", {false, true}));
            break;
         case both:
            ASSERT_TRUE(filter.liveIs("red", {true, true}));
            break;
         case expired:
            ASSERT_TRUE(filter.liveIs("red", {true, true}));
            std::this_thread::sleep_for(KernelErrorFilter::kLiveTimeout + std::chrono::seconds(1));
            break;
      }
      for (bool six : {false, true}) {
         Seen seen = exchange(p, six);
         EXPECT_TRUE(seen.markedArrived);
         EXPECT_EQ(seen.kernelErrors, six ? c.kernelErrors6 : c.kernelErrors4)
             << "IPv" << (six ? 6 : 4);
      }
   }
   // Each drop counted by its family's rule: two steps dropped each family's error.
   std::string listing = table(p.router);
   for (const char* rule :
        {"icmp type destination-unreachable", "icmpv6 type destination-unreachable"}) {
      size_t at = listing.find(rule);
      ASSERT_NE(at, std::string::npos) << listing;
      std::string line = listing.substr(at, listing.find('\n', at) - at);
      EXPECT_NE(line.find("counter packets 2 "), std::string::npos) << listing;
   }
   ::sched_setaffinity(0, sizeof saved, &saved);
}

// No nf_tables: nothing installed, nothing dropped, and the caller goes on.
TEST(NftKernelErrorFilter, WithoutNfTablesNothingIsInstalled) {
   ScopedNetns red("n");
   NftKernelErrorFilter filter([] {
      errno = EPROTONOSUPPORT;
      return -1;
   });
   EXPECT_FALSE(filter.vrfIs("red", red.path));
   EXPECT_FALSE(filter.liveIs("red", {true, true}));
   EXPECT_FALSE(hasTable(red));
}

}  // namespace
}  // namespace Ravel::ErrorResponder
