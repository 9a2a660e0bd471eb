// Real raw sockets in namespaces joined by a veth pair: needs root.
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "pam/PamSm.h"
#include "platform/core/Errno.h"
#include "platform/linux/SocketPam.h"
#include "platform/values/Checksum.h"
#include "tests/privileged/Host.h"
#include "wire/ProbePacket.h"

namespace Ravel {
namespace {

using test::sh;

const std::string kNetnsDir = "/run/netns";

std::string tag() {
   return std::to_string(getpid());
}

IpGenAddr addr(const char* text) {
   return *IpGenAddr::parse(text);
}

uint64_t threadNetNs() {
   struct stat st {};
   return ::stat("/proc/thread-self/ns/net", &st) == 0 ? st.st_ino : 0;
}

// Deletes the namespace on the way out, also after a failed assertion.
struct ScopedNetns {
   explicit ScopedNetns(std::string n) : name(std::move(n)) { sh("ip netns del " + name); }
   ~ScopedNetns() { sh("ip netns del " + name); }
   std::string name;
};

// Taken before any test runs: whatever moves the thread must bring it back here.
const uint64_t kHomeNetNs = threadNetNs();

uint64_t socketInode(const IpPam& pam) {
   struct stat st {};
   return ::fstat(static_cast<const SocketPam&>(pam).fd(), &st) == 0 ? st.st_ino : 0;
}

// Inodes of the raw sockets (both families) open in a namespace.
std::set<uint64_t> rawSockets(const std::string& ns) {
   std::set<uint64_t> inodes;
   inNamespace(kNetnsDir + "/" + ns, [&] {
      for (const char* table : {"/proc/thread-self/net/raw", "/proc/thread-self/net/raw6"}) {
         std::ifstream in(table);
         std::string line;
         std::getline(in, line);  // header
         while (std::getline(in, line)) {
            std::istringstream fields(line);
            std::string f;
            for (int i = 0; i < 10; ++i)
               fields >> f;
            inodes.insert(std::stoull(f));
         }
      }
   });
   return inodes;
}

uint16_t ident(std::span<const uint8_t> icmp) {
   return icmp.size() >= 6 ? uint16_t(icmp[4] << 8 | icmp[5]) : 0;
}

// Runs the scheduler until `done`, for at most ~2 s.
bool runUntil(Scheduler& sched, const std::function<bool()>& done, Seconds limit = 2.0) {
   Seconds end = sched.now() + limit;
   for (int i = 0; i < 1000 && !done() && sched.now() < end; ++i)
      sched.runOnce(0.02);
   return done();
}

// What a PAM delivered through readable() while the scheduler ran.
struct Collector {
   struct Rx {
      std::vector<uint8_t> bytes;
      IpGenAddr src, dst;
      uint32_t ifIndex;
   };
   explicit Collector(IpPam& pam) {
      sub = pam.readable().subscribe([this, &pam] {
         ++notifications;
         while (Ptr<Pkt> p = pam.rxPkt()) {
            got.push_back({{p->data(), p->data() + p->size()},
                           pam.rxSrcIpAddr(),
                           pam.rxDstIpAddr(),
                           pam.rxIfIndex()});
         }
      });
   }
   std::vector<Rx> got;
   int notifications = 0;
   Subscription sub;
};

// ICMP from the IP header on, as a client would send it with IP_HDRINCL.
std::vector<uint8_t> ipv4(uint8_t proto, uint16_t id, uint16_t frag,
                          std::span<const uint8_t> payload, const char* src = "192.0.2.2",
                          const char* dst = "192.0.2.3") {
   std::vector<uint8_t> p(20);
   size_t len = 20 + payload.size();
   auto put16 = [&](size_t at, uint16_t v) {
      p[at] = uint8_t(v >> 8);
      p[at + 1] = uint8_t(v);
   };
   p[0] = 0x45;
   put16(2, uint16_t(len));
   put16(4, id);
   put16(6, frag);
   p[8] = 64;
   p[9] = proto;
   std::copy_n(addr(src).bytes().begin(), 4, p.begin() + 12);
   std::copy_n(addr(dst).bytes().begin(), 4, p.begin() + 16);
   p.insert(p.end(), payload.begin(), payload.end());
   return p;
}

// An Echo (Reply) message with identifier `id`; the IPv4 checksum is filled.
std::vector<uint8_t> echo(uint8_t type, uint16_t id) {
   std::vector<uint8_t> m = {type, 0, 0, 0, uint8_t(id >> 8), uint8_t(id), 0, 1, 'r', 'v'};
   uint16_t sum = internetChecksum(m);
   m[2] = uint8_t(sum >> 8);
   m[3] = uint8_t(sum);
   return m;
}

std::vector<uint8_t> request(AddressFamily af, uint16_t id) {
   return buildExtendedEchoRequest(af, id, 1, true, std::string("rv0"));
}

// Router (the namespace PAMs open in) and client joined by veth rv0 (router) - rv1 (client).
// The router has two addresses per family so that the chosen one is visible.
const std::string kRouterMac = "02:00:5e:00:53:01", kClientMac = "02:00:5e:00:53:02";

struct SocketPamTest : ::testing::Test {
   ScopedNetns routerNs{"ns-rvr" + tag()}, clientNs{"ns-rvc" + tag()};
   const std::string &router = routerNs.name, &client = clientNs.name;
   std::unique_ptr<PamFactory> factory = makeSocketPamFactory(kNetnsDir);
   Scheduler sched;
   ScopedDefaultScheduler scoped{sched};
   uint32_t routerIfIndex = 0;

   void SetUp() override {
      std::string r = "ip -n " + router + " ", c = "ip -n " + client + " ";
      for (const std::string& cmd : {
               "ip netns add " + router,
               "ip netns add " + client,
               r + "link add rv0 address " + kRouterMac + " type veth peer name rv1 address " +
                   kClientMac + " netns " + client,
               r + "addr add 192.0.2.1/24 dev rv0",
               r + "addr add 192.0.2.3/24 dev rv0",
               r + "addr add 2001:db8::1/64 dev rv0 nodad",
               // Deprecated: the kernel never picks it as a source by itself.
               r + "addr add 2001:db8::3/64 dev rv0 nodad preferred_lft 0",
               c + "addr add 192.0.2.2/24 dev rv1",
               c + "addr add 2001:db8::2/64 dev rv1 nodad",
               r + "link set lo up",
               c + "link set lo up",
               r + "link set rv0 up",
               c + "link set rv1 up",
               // Fixed neighbours: no first packet waits for resolution.
               r + "neigh add 192.0.2.2 lladdr " + kClientMac + " dev rv0 nud permanent",
               r + "neigh add 2001:db8::2 lladdr " + kClientMac + " dev rv0 nud permanent",
               c + "neigh add 192.0.2.1 lladdr " + kRouterMac + " dev rv1 nud permanent",
               c + "neigh add 192.0.2.3 lladdr " + kRouterMac + " dev rv1 nud permanent",
               c + "neigh add 2001:db8::1 lladdr " + kRouterMac + " dev rv1 nud permanent",
               c + "neigh add 2001:db8::3 lladdr " + kRouterMac + " dev rv1 nud permanent",
           }) {
         ASSERT_EQ(sh(cmd), 0) << cmd;
      }
      inNamespace(nsPath(router), [&] { routerIfIndex = if_nametoindex("rv0"); });
      ASSERT_NE(routerIfIndex, 0u);
   }
   void TearDown() override { EXPECT_EQ(threadNetNs(), kHomeNetNs); }

   static std::string nsPath(const std::string& ns) { return kNetnsDir + "/" + ns; }

   Ptr<IpPam> open(AddressFamily af, const SockFilterProgram* filter,
                   unsigned options = PamSm::kPamOptions) {
      auto pam = af == AddressFamily::ipv4 ? factory->ipSocketPamFactory("ipv4 t", 1, router)
                                           : factory->ip6SocketPamFactory("ipv6 t", 58, router);
      if (filter)
         pam->filterProgramIs(*filter);
      pam->optionsIs(options);
      pam->enabledIs(true);
      return pam;
   }

   // A raw socket in the client namespace.
   int clientSocket(int domain, int protocol) {
      int fd = -1;
      inNamespace(nsPath(client),
                  [&] { fd = ::socket(domain, SOCK_RAW | SOCK_CLOEXEC, protocol); });
      EXPECT_GE(fd, 0);
      return fd;
   }
   // A whole IPv4 packet, header included, from the client.
   void clientSend4(std::span<const uint8_t> pkt) {
      int fd = clientSocket(AF_INET, IPPROTO_RAW);
      int on = 1;
      ::setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
      sockaddr_in to{};
      to.sin_family = AF_INET;
      std::memcpy(&to.sin_addr, pkt.data() + 16, 4);
      EXPECT_EQ(
          ::sendto(fd, pkt.data(), pkt.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
          ssize_t(pkt.size()));
      ::close(fd);
   }
   // An ICMPv6 message from the client to 2001:db8::3; the kernel adds the checksum.
   void clientSend6(std::span<const uint8_t> msg) {
      int fd = clientSocket(AF_INET6, IPPROTO_ICMPV6);
      sockaddr_in6 to{};
      to.sin6_family = AF_INET6;
      to.sin6_addr = addr("2001:db8::3").v6Addr();
      EXPECT_EQ(
          ::sendto(fd, msg.data(), msg.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
          ssize_t(msg.size()));
      ::close(fd);
   }
   void clientSend(AddressFamily af, std::span<const uint8_t> icmp) {
      if (af == AddressFamily::ipv4)
         clientSend4(ipv4(IPPROTO_ICMP, ident(icmp), 0, icmp));
      else
         clientSend6(icmp);
   }
};

TEST_F(SocketPamTest, ProbeFiltersPassOnlyExtendedEchoRequests) {
   constexpr auto v4 = AddressFamily::ipv4, v6 = AddressFamily::ipv6;
   auto whole = request(v4, 0x102);
   std::span<const uint8_t> head(whole.data(), 8), tail(whole.data() + 8, whole.size() - 8);
   std::vector<uint8_t> udp = {0x30, 0x39, 0, 9, 0, 12, 0, 0, 42, 0, 0, 0};
   struct Case {
      AddressFamily af;
      const char* what;
      std::vector<std::vector<uint8_t>> sent;         // IPv4 packets or ICMPv6 messages
      std::optional<std::vector<uint8_t>> delivered;  // the ICMP message the PAM must read
      const char* dst = nullptr;                      // null: the router's second address
   };
   const Case cases[] = {
       {v4, "extended echo request", {ipv4(1, 1, 0, request(v4, 0x101))}, request(v4, 0x101)},
       {v4,
        "reassembled from two fragments",
        {ipv4(1, 2, 0x2000, head), ipv4(1, 2, 1, tail)},
        whole},
       // The header's destination, not the local address the kernel would answer from.
       {v4,
        "to the subnet broadcast",
        {ipv4(1, 3, 0, request(v4, 0x103), "192.0.2.2", "192.0.2.255")},
        request(v4, 0x103),
        "192.0.2.255"},
       {v4, "echo request", {ipv4(1, 4, 0, echo(8, 0x104))}, std::nullopt},
       {v4, "extended echo reply", {ipv4(1, 5, 0, echo(43, 0x105))}, std::nullopt},
       {v4, "udp", {ipv4(17, 7, 0, udp)}, std::nullopt},
       {v6, "extended echo request", {request(v6, 0x601)}, request(v6, 0x601)},
       {v6, "echo request", {echo(128, 0x602)}, std::nullopt},
       {v6, "extended echo reply", {echo(161, 0x603)}, std::nullopt},
       {v6, "the IPv4 request type", {echo(42, 0x604)}, std::nullopt},
   };
   Ptr<IpPam> probe[] = {open(v4, &PamSm::v4ProbeFilter), open(v6, &PamSm::v6ProbeFilter)};
   Ptr<IpPam> dropAll[] = {open(v4, &PamSm::dropAllFilter), open(v6, &PamSm::dropAllFilter)};
   Collector rx[] = {Collector(*probe[0]), Collector(*probe[1])};
   uint16_t marker = 0x200;
   for (const Case& c : cases) {
      SCOPED_TRACE(fmt::format("{} {}", toString(c.af), c.what));
      bool isV4 = c.af == v4;
      auto& got = rx[isV4 ? 0 : 1].got;
      got.clear();
      for (auto& p : c.sent)
         isV4 ? clientSend4(p) : clientSend6(p);
      // What is rejected shows as the marker arriving first.
      auto expected = c.delivered ? *c.delivered : request(c.af, ++marker);
      if (!c.delivered)
         clientSend(c.af, expected);
      ASSERT_TRUE(runUntil(sched, [&] { return !got.empty(); }));
      ASSERT_EQ(got.size(), 1u);
      // The IPv4 header comes along; the ICMPv6 checksum is the one the client's kernel filled.
      size_t ip = isV4 ? 20 : 0;
      ASSERT_EQ(got[0].bytes.size(), ip + expected.size());
      EXPECT_TRUE(
          std::equal(got[0].bytes.begin() + ip + 4, got[0].bytes.end(), expected.begin() + 4));
      EXPECT_EQ(got[0].src, addr(isV4 ? "192.0.2.2" : "2001:db8::2"));
      EXPECT_EQ(got[0].dst, addr(c.dst ? c.dst : isV4 ? "192.0.2.3" : "2001:db8::3"));
      EXPECT_EQ(got[0].ifIndex, routerIfIndex);
   }
   for (auto& pam : dropAll)
      EXPECT_EQ(pam->counters().rxPkts + pam->counters().rxDrops, 0u);
}

TEST_F(SocketPamTest, OptionBitsSelectWhatIsReportedPerPacket) {
   struct Case {
      unsigned options;
      bool dst, ifIndex;
   };
   const Case cases[] = {
       {0, false, false},
       {IpPam::kOptRxDstAddr, true, false},
       {IpPam::kOptRxIfIndex, false, true},
       {PamSm::kPamOptions, true, true},
   };
   for (AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      SCOPED_TRACE(toString(af));
      auto filter = af == AddressFamily::ipv4 ? &PamSm::v4ProbeFilter : &PamSm::v6ProbeFilter;
      std::vector<Ptr<IpPam>> pams;
      std::vector<std::unique_ptr<Collector>> rx;
      for (auto& c : cases) {
         pams.push_back(open(af, filter, c.options));
         rx.push_back(std::make_unique<Collector>(*pams.back()));
      }
      clientSend(af, request(af, 0x800));
      auto all = [&] {
         for (auto& r : rx) {
            if (r->got.empty())
               return false;
         }
         return true;
      };
      ASSERT_TRUE(runUntil(sched, all));
      IpGenAddr dst = addr(af == AddressFamily::ipv4 ? "192.0.2.3" : "2001:db8::3");
      for (size_t i = 0; i < std::size(cases); ++i) {
         SCOPED_TRACE(cases[i].options);
         EXPECT_EQ(pams[i]->options(), cases[i].options);
         EXPECT_EQ(rx[i]->got[0].dst, cases[i].dst ? dst : IpGenAddr());
         EXPECT_EQ(rx[i]->got[0].ifIndex, cases[i].ifIndex ? routerIfIndex : 0u);
         EXPECT_FALSE(rx[i]->got[0].src.isZero());  // always known
      }
   }
}

// A raw socket in the client namespace receiving what the router sends.
struct ClientReceiver {
   struct Got {
      IpGenAddr src;
      int ttl = -1;
   };
   ClientReceiver(SocketPamTest& t, AddressFamily af) : af(af) {
      bool v4 = af == AddressFamily::ipv4;
      fd = t.clientSocket(v4 ? AF_INET : AF_INET6, v4 ? int(IPPROTO_ICMP) : int(IPPROTO_ICMPV6));
      int on = 1;
      if (!v4)
         ::setsockopt(fd, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, &on, sizeof on);
   }
   ~ClientReceiver() { ::close(fd); }
   ClientReceiver(const ClientReceiver&) = delete;
   ClientReceiver& operator=(const ClientReceiver&) = delete;

   // The first message with ICMP identifier `id`, waiting at most 2 s.
   std::optional<Got> await(uint16_t id) {
      for (int i = 0; i < 100; ++i) {
         pollfd p{fd, POLLIN, 0};
         if (::poll(&p, 1, 20) <= 0)
            continue;
         uint8_t buf[2048];
         sockaddr_storage from{};
         alignas(cmsghdr) char control[256];
         iovec iov{buf, sizeof buf};
         msghdr msg{};
         msg.msg_name = &from;
         msg.msg_namelen = sizeof from;
         msg.msg_iov = &iov;
         msg.msg_iovlen = 1;
         msg.msg_control = control;
         msg.msg_controllen = sizeof control;
         ssize_t n = ::recvmsg(fd, &msg, MSG_DONTWAIT);
         if (n <= 0)
            continue;
         Got got;
         std::span<const uint8_t> icmp(buf, size_t(n));
         if (af == AddressFamily::ipv4) {
            got.src = IpGenAddr(reinterpret_cast<sockaddr_in*>(&from)->sin_addr);
            got.ttl = buf[8];
            icmp = icmp.subspan((buf[0] & 0xf) * 4u);
         } else {
            got.src = IpGenAddr(reinterpret_cast<sockaddr_in6*>(&from)->sin6_addr);
            for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
               if (c->cmsg_type == IPV6_HOPLIMIT)
                  std::memcpy(&got.ttl, CMSG_DATA(c), sizeof got.ttl);
            }
         }
         if (ident(icmp) == id)
            return got;
      }
      return std::nullopt;
   }

   AddressFamily af;
   int fd = -1;
};

TEST_F(SocketPamTest, TransmitHonoursSourceTtlMarkAndEnabled) {
   // Marked packets meet a prohibit route.
   for (const char* fam : {"-4", "-6"}) {
      std::string ip = "ip -n " + router + " " + fam + " ";
      ASSERT_EQ(sh(ip + "rule add fwmark 5 table 100"), 0);
      ASSERT_EQ(sh(ip + "route add prohibit " + (fam[1] == '4' ? "192.0.2.0/24" : "2001:db8::/64") +
                   " table 100"),
                0);
   }
   struct Case {
      const char* what;
      AddressFamily af;
      const char* src;  // "" lets the kernel choose
      int ttl;
      uint32_t mark;
      bool enabled;
      int err;
      const char* seenSrc;
      int seenTtl;
   };
   constexpr auto v4 = AddressFamily::ipv4, v6 = AddressFamily::ipv6;
   const Case cases[] = {
       {"from the secondary address", v4, "192.0.2.3", 7, 0, true, 0, "192.0.2.3", 7},
       {"kernel's choice", v4, "", -1, 0, true, 0, "192.0.2.1", 64},
       {"marked", v4, "192.0.2.3", -1, 5, true, EACCES, nullptr, 0},
       {"mark cleared", v4, "192.0.2.3", -1, 0, true, 0, "192.0.2.3", 64},
       {"disabled", v4, "192.0.2.3", -1, 0, false, ENETDOWN, nullptr, 0},
       {"from the second address", v6, "2001:db8::3", 9, 0, true, 0, "2001:db8::3", 9},
       {"kernel's choice", v6, "", -1, 0, true, 0, "2001:db8::1", 64},
       {"marked", v6, "2001:db8::3", -1, 5, true, EACCES, nullptr, 0},
       {"mark cleared", v6, "2001:db8::3", -1, 0, true, 0, "2001:db8::3", 64},
       {"disabled", v6, "2001:db8::3", -1, 0, false, ENETDOWN, nullptr, 0},
   };
   Ptr<IpPam> pams[] = {open(v4, &PamSm::dropAllFilter), open(v6, &PamSm::dropAllFilter)};
   ClientReceiver receivers[] = {{*this, v4}, {*this, v6}};
   uint16_t id = 0x900;
   for (const Case& c : cases) {
      SCOPED_TRACE(fmt::format("{} {}", toString(c.af), c.what));
      bool isV4 = c.af == v4;
      IpPam& pam = *pams[isV4 ? 0 : 1];
      pam.enabledIs(c.enabled);
      pam.txSrcIpAddrIs(*c.src ? addr(c.src) : IpGenAddr());
      pam.txDstIpAddrIs(addr(isV4 ? "192.0.2.2" : "2001:db8::2"));
      pam.txTtlIs(c.ttl);
      pam.txMarkIs(c.mark);
      PamCounters before = pam.counters();
      pam.txPktIs(Pkt::fromBytes(echo(isV4 ? 0 : 129, ++id)));
      EXPECT_EQ(pam.txErrno(), c.err);
      const PamCounters& after = pam.counters();
      EXPECT_EQ(after.txPkts - before.txPkts, c.err == 0 ? 1u : 0u);
      EXPECT_EQ(after.txDrops - before.txDrops, c.err == ENETDOWN ? 1u : 0u);
      EXPECT_EQ(after.txErrors - before.txErrors, c.err && c.err != ENETDOWN ? 1u : 0u);
      if (c.err)
         continue;
      auto got = receivers[isV4 ? 0 : 1].await(id);
      ASSERT_TRUE(got);
      EXPECT_EQ(got->src, addr(c.seenSrc));
      EXPECT_EQ(got->ttl, c.seenTtl);
   }
}

TEST_F(SocketPamTest, TransmitInterfaceMakesALinkLocalSourceValid) {
   std::string r = "ip -n " + router + " ", c = "ip -n " + client + " ";
   for (const std::string& cmd : {
            r + "addr add fe80::1/64 dev rv0 nodad",
            c + "addr add fe80::2/64 dev rv1 nodad",
            r + "neigh add fe80::2 lladdr " + kClientMac + " dev rv0 nud permanent",
        }) {
      ASSERT_EQ(sh(cmd), 0) << cmd;
   }
   struct Case {
      const char* what;
      AddressFamily af;
      const char *src, *dst;
      bool withIfIndex;
      int err;
   };
   constexpr auto v4 = AddressFamily::ipv4, v6 = AddressFamily::ipv6;
   const Case cases[] = {
       {"link-local, no interface", v6, "fe80::1", "fe80::2", false, EINVAL},
       {"link-local, its interface", v6, "fe80::1", "fe80::2", true, 0},
       {"global, interface given", v6, "2001:db8::3", "2001:db8::2", true, 0},
       // The interface does not replace the source with its primary address.
       {"IPv4, interface given", v4, "192.0.2.3", "192.0.2.2", true, 0},
   };
   Ptr<IpPam> pams[] = {open(v4, &PamSm::dropAllFilter), open(v6, &PamSm::dropAllFilter)};
   ClientReceiver receivers[] = {{*this, v4}, {*this, v6}};
   uint16_t id = 0xa00;
   for (const Case& k : cases) {
      SCOPED_TRACE(k.what);
      bool isV4 = k.af == v4;
      IpPam& pam = *pams[isV4 ? 0 : 1];
      pam.txSrcIpAddrIs(addr(k.src));
      pam.txDstIpAddrIs(addr(k.dst));
      pam.txIfIndexIs(k.withIfIndex ? routerIfIndex : 0);
      pam.txPktIs(Pkt::fromBytes(echo(isV4 ? 0 : 129, ++id)));
      EXPECT_EQ(pam.txErrno(), k.err);
      if (k.err)
         continue;
      auto got = receivers[isV4 ? 0 : 1].await(id);
      ASSERT_TRUE(got);
      EXPECT_EQ(got->src, addr(k.src));
   }
}

TEST_F(SocketPamTest, NothingQueuedBeforeTheFilterLeaks) {
   // The witness proves the early packets reached the router's raw sockets.
   auto witness = open(AddressFamily::ipv4, &PamSm::v4ProbeFilter);
   Collector seen(*witness);
   auto late = factory->ipSocketPamFactory("ipv4 late", 1, router);
   late->optionsIs(PamSm::kPamOptions);
   clientSend(AddressFamily::ipv4, echo(8, 0xa01));
   clientSend(AddressFamily::ipv4, request(AddressFamily::ipv4, 0xa02));
   ASSERT_TRUE(runUntil(sched, [&] { return !seen.got.empty(); }));
   late->filterProgramIs(PamSm::v4ProbeFilter);
   late->enabledIs(true);
   Collector rx(*late);
   clientSend(AddressFamily::ipv4, request(AddressFamily::ipv4, 0xa03));
   ASSERT_TRUE(runUntil(sched, [&] { return !rx.got.empty(); }));
   ASSERT_EQ(rx.got.size(), 1u);
   EXPECT_EQ(ident(std::span(rx.got[0].bytes).subspan(20)), 0xa03);
}

TEST_F(SocketPamTest, ReadableOnlyWhileEnabledAndUnreadPacketsAreDropped) {
   struct Case {
      const char* what;
      bool enabled, observed;
      int notifications;
      uint64_t rxDrops;
      bool stillQueued;
   };
   const Case cases[] = {
       {"enabled and observed", true, true, 1, 0, false},
       {"enabled, nobody reads", true, false, 0, 1, false},
       {"disabled", false, true, 0, 0, true},
   };
   uint16_t id = 0xb00;
   for (const Case& c : cases) {
      SCOPED_TRACE(c.what);
      auto pam = open(AddressFamily::ipv4, &PamSm::v4ProbeFilter);
      pam->enabledIs(c.enabled);
      std::optional<Collector> rx;
      if (c.observed)
         rx.emplace(*pam);
      clientSend(AddressFamily::ipv4, request(AddressFamily::ipv4, ++id));
      pollfd p{static_cast<SocketPam&>(*pam).fd(), POLLIN, 0};
      ASSERT_EQ(::poll(&p, 1, 2000), 1);
      for (int i = 0; i < 5; ++i)
         sched.runOnce(0.01);
      EXPECT_EQ(rx ? rx->notifications : 0, c.notifications);
      EXPECT_EQ(pam->counters().rxDrops, c.rxDrops);
      EXPECT_EQ(sched.runOnce(0), 0u);  // nothing spins on the socket
      EXPECT_EQ(bool(pam->rxPkt()), c.stillQueued);
   }
}

TEST_F(SocketPamTest, CreationFailuresLeaveTheThreadInItsNamespace) {
   char dir[] = "/tmp/rvnsXXXXXX";
   ASSERT_TRUE(::mkdtemp(dir));
   std::string notNs = std::string(dir) + "/ns-file";
   std::ofstream(notNs) << "not a namespace";
   auto fileFactory = makeSocketPamFactory(dir);
   struct Case {
      const char* what;
      PamFactory& factory;
      std::string ns;
      int protocol;
      int err;
   };
   const Case cases[] = {
       {"missing namespace", *factory, "ns-rv-missing" + tag(), 1, ENOENT},
       {"not a namespace", *fileFactory, "ns-file", 1, EINVAL},
       {"socket fails inside", *factory, router, -1, EINVAL},
       {"success", *factory, router, 1, 0},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(c.what);
      for (bool v4 : {true, false}) {
         errno = 0;
         try {
            auto pam = v4 ? c.factory.ipSocketPamFactory("x", c.protocol, c.ns)
                          : c.factory.ip6SocketPamFactory("x", c.protocol, c.ns);
            EXPECT_EQ(c.err, 0);
            EXPECT_EQ(pam->netNs(), c.ns);
            EXPECT_EQ(rawSockets(c.ns).count(socketInode(*pam)), 1u);
         } catch (const Errno& e) {
            EXPECT_EQ(e.errnoValue(), c.err);
            EXPECT_EQ(errno, c.err);
         }
         EXPECT_EQ(threadNetNs(), kHomeNetNs);
      }
   }
   ::unlink(notNs.c_str());
   ::rmdir(dir);
}

TEST(PamSmWithSockets, RetriesUntilTheNamespaceAppearsAndClosesOnRemoval) {
   Scheduler sched;
   ScopedDefaultScheduler scoped{sched};
   auto factory = makeSocketPamFactory(kNetnsDir);
   VrfName vrf("rvt" + tag());
   ScopedNetns scopedNs(vrf.nsName());
   const std::string& ns = scopedNs.name;

   auto errConfig = make<PamConfig>();
   auto vrfs = make<AllVrfStatusLocal>();
   auto status = make<VrfStatusLocal>(vrf);
   status->state.set(VrfState::active);
   status->nsInodeValid.set(true);
   status->nsInode.set(4242);
   vrfs->vrf.is(vrf, status);
   auto pamStatus = make<PamStatus>();
   errConfig->vrfIs(vrf);
   auto sm = make<PamSm>(errConfig, make<PamConfig>(), vrfs, pamStatus, *factory);
   auto& pams = *pamStatus->pamCollection();
   auto count = [&] {
      return int(bool(pams.pamGet({vrf, AddressFamily::ipv4}))) +
             int(bool(pams.pamGet({vrf, AddressFamily::ipv6})));
   };

   runUntil(
       sched, [] { return false; }, 0.2);
   EXPECT_EQ(count(), 0);
   EXPECT_TRUE(sm->failedPamHas(vrf));
   EXPECT_NE(sm->vrfRetryTask().currentExpirationTime(), kNever);

   ASSERT_EQ(sh("ip netns add " + ns), 0);
   Seconds added = sched.now();
   EXPECT_TRUE(runUntil(sched, [&] { return count() == 2; }));
   EXPECT_LT(sched.now() - added, 1.0);
   std::set<uint64_t> inodes;
   for (AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      if (auto pam = pams.pamGet({vrf, af})) {
         EXPECT_EQ(pam->netNs(), ns);
         inodes.insert(socketInode(*pam));
      }
   }
   EXPECT_EQ(rawSockets(ns), inodes);
   EXPECT_EQ(inodes.size(), 2u);

   errConfig->vrfDel(vrf);
   EXPECT_TRUE(runUntil(sched, [&] { return count() == 0; }));
   EXPECT_TRUE(rawSockets(ns).empty());
   sm.reset();
}

}  // namespace
}  // namespace Ravel
