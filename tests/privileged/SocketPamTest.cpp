// Real raw sockets in real namespaces: needs root.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "pam/RavelPamSm.h"
#include "platform/Checksum.h"
#include "platform/Errno.h"
#include "platform/PacketHeaders.h"
#include "platform/ProbePacket.h"
#include "platform/SocketPam.h"

namespace Ravel {
namespace {

int sh(const std::string& cmd) {
   return std::system((cmd + " >/dev/null 2>&1").c_str());
}

std::string tag() {
   return std::to_string(getpid() % 100000);
}

size_t rawSockets(const std::string& ns) {
   FILE* p =
       popen(("ip netns exec " + ns + " ss -A raw -a -n -H 2>/dev/null | wc -l").c_str(), "r");
   size_t n = 0;
   if (p) {
      if (std::fscanf(p, "%zu", &n) != 1)
         n = 0;
      pclose(p);
   }
   return n;
}

struct SocketPamTest : ::testing::Test {
   std::string ns = "ns-rvp" + tag();
   std::unique_ptr<PamFactory> factory = makeSocketPamFactory("/run/netns");
   Scheduler sched;
   ScopedDefaultScheduler scoped{sched};

   SocketPamTest() {
      sh("ip netns add " + ns);
      sh("ip netns exec " + ns + " ip link set lo up");
   }
   ~SocketPamTest() override { sh("ip netns del " + ns); }

   // Sends a whole IPv4 packet (header included) inside the namespace.
   void sendRaw4(std::vector<uint8_t> pkt) {
      inNamespace("/run/netns/" + ns, [&] {
         int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
         ASSERT_GE(fd, 0);
         sockaddr_in to{};
         to.sin_family = AF_INET;
         to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
         EXPECT_EQ(
             sendto(fd, pkt.data(), pkt.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
             ssize_t(pkt.size()));
         close(fd);
      });
   }
   void sendIcmp6(std::vector<uint8_t> msg) {
      inNamespace("/run/netns/" + ns, [&] {
         int fd = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
         ASSERT_GE(fd, 0);
         sockaddr_in6 to{};
         to.sin6_family = AF_INET6;
         to.sin6_addr = in6addr_loopback;
         EXPECT_EQ(
             sendto(fd, msg.data(), msg.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
             ssize_t(msg.size()));
         close(fd);
      });
   }
   static Ptr<Pkt> receive(IpPam& pam, int waitMs = 200) {
      pollfd p{static_cast<SocketPam&>(pam).fd(), POLLIN, 0};
      poll(&p, 1, waitMs);
      return pam.rxPkt();
   }
   Ptr<IpPam> open4(const SockFilterProgram& f) {
      auto pam = factory->ipSocketPamFactory("t4", 1, ns);
      pam->filterProgramIs(f);
      pam->optionsIs(PamSm::kPamOptions);
      return pam;
   }
};

std::vector<uint8_t> ipv4(uint8_t proto, uint16_t fragField, std::vector<uint8_t> payload) {
   std::vector<uint8_t> p = {0x45,
                             0,
                             0,
                             0,
                             0x12,
                             0x34,
                             uint8_t(fragField >> 8),
                             uint8_t(fragField),
                             64,
                             proto,
                             0,
                             0,
                             127,
                             0,
                             0,
                             1,
                             127,
                             0,
                             0,
                             1};
   uint16_t len = uint16_t(20 + payload.size());
   p[2] = uint8_t(len >> 8);
   p[3] = uint8_t(len);
   p.resize(len);
   std::copy(payload.begin(), payload.end(), p.begin() + 20);
   return p;
}

TEST_F(SocketPamTest, Ipv4FiltersLetOnlyExtendedEchoRequestsThrough) {
   auto probe = open4(PamSm::v4ProbeFilter);
   auto drop = open4(PamSm::dropAllFilter);
   auto request = buildExtendedEchoRequest(AddressFamily::ipv4, 7, 1, true, std::string("lo"));
   std::vector<uint8_t> echo = {8, 0, 0, 0, 0, 7, 0, 1};
   uint16_t s = internetChecksum(echo);
   echo[2] = uint8_t(s >> 8);
   echo[3] = uint8_t(s);
   struct Case {
      const char* what;
      std::vector<uint8_t> pkt;
      bool passes;
   };
   const Case cases[] = {
       {"extended echo request", ipv4(1, 0, request), true},
       {"echo request", ipv4(1, 0, echo), false},
       {"non-first fragment", ipv4(1, 0x0001, request), false},
       {"udp", ipv4(17, 0, {0x30, 0x39, 0x30, 0x39, 0, 28, 0, 0, 42, 0, 0, 0}), false},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.what);
      sendRaw4(c.pkt);
      auto got = receive(*probe, c.passes ? 1000 : 200);
      EXPECT_EQ(bool(got), c.passes);
      if (got) {
         EXPECT_EQ(got->size(), c.pkt.size());  // the IPv4 PAM sees the IP header
         EXPECT_EQ(probe->rxSrcIpAddr().str(), "127.0.0.1");
         EXPECT_EQ(probe->rxDstIpAddr().str(), "127.0.0.1");
         EXPECT_EQ(probe->rxIfIndex(), 1u);  // lo
      }
      EXPECT_FALSE(receive(*drop, 0));
   }
}

TEST_F(SocketPamTest, Ipv6FilterAndReplyFromTheRequestedAddress) {
   auto probe = factory->ip6SocketPamFactory("t6", 58, ns);
   probe->filterProgramIs(PamSm::v6ProbeFilter);
   probe->optionsIs(PamSm::kPamOptions);
   probe->enabledIs(true);
   sendIcmp6({128, 0, 0, 0, 0, 1, 0, 1});  // echo request
   EXPECT_FALSE(receive(*probe, 200));
   auto req = buildExtendedEchoRequest(AddressFamily::ipv6, 9, 3, true, std::string("lo"));
   sendIcmp6(req);
   auto got = receive(*probe, 1000);
   ASSERT_TRUE(got);
   EXPECT_EQ(got->size(), req.size());  // no IP header on IPv6
   EXPECT_EQ((*got).data()[0], 160);
   EXPECT_EQ(probe->rxDstIpAddr().str(), "::1");

   // Transmit goes out and comes back in through the filter (type 160 again).
   probe->txSrcIpAddrIs(*IpGenAddr::parse("::1"));
   probe->txDstIpAddrIs(*IpGenAddr::parse("::1"));
   probe->txPktIs(Pkt::fromBytes(req));
   EXPECT_EQ(probe->txErrno(), 0);
   auto echoed = receive(*probe, 1000);
   ASSERT_TRUE(echoed);
   // The kernel filled the checksum on the way out.
   EXPECT_EQ(Icmp6Hdr(echoed->bytes())
                 .computedChecksum(*IpGenAddr::parse("::1"), *IpGenAddr::parse("::1"),
                                   uint32_t(echoed->size())),
             0);
   probe->enabledIs(false);
   probe->txPktIs(Pkt::fromBytes(req));
   EXPECT_NE(probe->txErrno(), 0);
}

TEST_F(SocketPamTest, MissingNamespaceIsEnoent) {
   try {
      factory->ipSocketPamFactory("x", 1, "ns-rvp-missing" + tag());
      FAIL() << "expected Errno";
   } catch (const Errno& e) {
      EXPECT_EQ(e.errnoValue(), ENOENT);
      EXPECT_EQ(errno, ENOENT);
   }
}

TEST_F(SocketPamTest, PamManagerRetriesUntilTheNamespaceAppearsAndClosesOnRemoval) {
   std::string vrf = "rvq" + tag();
   std::string vrfNs = "ns-" + vrf;
   sh("ip netns del " + vrfNs);
   auto errConfig = make<PamConfig>();
   auto probeConfig = make<PamConfig>();
   auto vrfs = make<AllVrfStatusLocal>();
   auto status = make<VrfStatusLocal>(VrfName(vrf));
   status->state.set(VrfState::active);
   status->nsInodeValid.set(true);
   status->nsInode.set(4242);
   vrfs->vrf.is(VrfName(vrf), status);
   auto pamStatus = make<PamStatus>();
   errConfig->vrfIs(VrfName(vrf));
   auto sm = make<PamSm>(errConfig, probeConfig, vrfs, pamStatus, *factory);
   auto runFor = [&](double seconds, auto done) {
      double end = sched.now() + seconds;
      while (!done() && sched.now() < end)
         sched.runOnce(0.05);
      return done();
   };
   auto created = [&] { return pamStatus->vrfStatus.has(VrfName(vrf)); };
   EXPECT_FALSE(runFor(0.3, created));
   EXPECT_TRUE(sm->failedPamHas(VrfName(vrf)));
   sh("ip netns add " + vrfNs);
   EXPECT_TRUE(runFor(2.0, created));
   EXPECT_EQ(rawSockets(vrfNs), 2u);
   errConfig->vrfDel(VrfName(vrf));
   EXPECT_FALSE(created());
   EXPECT_EQ(rawSockets(vrfNs), 0u);
   sm.reset();
   sh("ip netns del " + vrfNs);
}

}  // namespace
}  // namespace Ravel
