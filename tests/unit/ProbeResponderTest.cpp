#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "probe/ProbeResponderAgent.h"
#include "tests/unit/FakePamWorld.h"
#include "tests/unit/YieldAfter.h"

namespace Ravel::ProbeResponder {
namespace {

using Bytes = std::vector<uint8_t>;
using Ravel::testing::FakePam;
using Ravel::testing::FakePamWorld;

uint16_t csum(const Bytes& b, size_t from = 0, size_t len = SIZE_MAX, uint32_t sum = 0) {
   len = std::min(len, b.size() - from);
   for (size_t i = 0; i + 1 < len; i += 2)
      sum += uint32_t(b[from + i] << 8 | b[from + i + 1]);
   if (len % 2)
      sum += uint32_t(b[from + len - 1] << 8);
   while (sum >> 16)
      sum = (sum & 0xffff) + (sum >> 16);
   return static_cast<uint16_t>(~sum);
}
void put16(Bytes& b, size_t at, uint16_t v) {
   b[at] = uint8_t(v >> 8);
   b[at + 1] = uint8_t(v);
}
// The ICMPv6 checksum of m (its checksum field taken as it is) with the pseudo-header.
uint16_t icmp6Sum(const IpGenAddr& src, const IpGenAddr& dst, const Bytes& m) {
   Bytes pseudo;
   for (auto x : src.bytes())
      pseudo.push_back(x);
   for (auto x : dst.bytes())
      pseudo.push_back(x);
   uint32_t len = uint32_t(m.size());
   pseudo.insert(pseudo.end(), {uint8_t(len >> 24), uint8_t(len >> 16), uint8_t(len >> 8),
                                uint8_t(len), 0, 0, 0, 58});
   pseudo.insert(pseudo.end(), m.begin(), m.end());
   return csum(pseudo);
}

// An RFC 8335 request from the ICMP header on, built by hand. Hooks damage it on purpose.
struct Req {
   bool v6 = false;
   uint16_t id = 0x1234;
   uint8_t seq = 7;
   bool local = true;
   uint8_t cls = 3, ctype = 1;
   Bytes body = {'e', 't', 'h', '0'};
   int lengthDelta = 0;          // added to the object Length field
   size_t extSumLen = SIZE_MAX;  // bytes the extension checksum covers (default: all)
   Bytes ipOptions;              // IPv4 header options, a multiple of 4 bytes
   uint8_t version = 2;
   bool badIcmpSum = false, badExtSum = false;
   uint8_t type = 0;  // 0: the family's request type

   Bytes build(const IpGenAddr& src, const IpGenAddr& dst) const {
      Bytes m = {uint8_t(type ? type
                         : v6 ? 160
                              : 42),
                 0,
                 0,
                 0,
                 uint8_t(id >> 8),
                 uint8_t(id),
                 seq,
                 uint8_t(local ? 1 : 0)};
      Bytes ext = {uint8_t(version << 4), 0, 0, 0};
      Bytes obj = {0, 0, cls, ctype};
      put16(obj, 0, uint16_t(4 + body.size() + lengthDelta));
      obj.insert(obj.end(), body.begin(), body.end());
      ext.insert(ext.end(), obj.begin(), obj.end());
      put16(ext, 2, uint16_t(csum(ext, 0, extSumLen) ^ (badExtSum ? 0x4242 : 0)));
      m.insert(m.end(), ext.begin(), ext.end());
      uint16_t s;
      if (v6) {
         s = icmp6Sum(src, dst, m);
      } else {
         s = csum(m);
      }
      put16(m, 2, uint16_t(s ^ (badIcmpSum ? 0x0101 : 0)));
      return m;
   }
};

Bytes withIpv4Header(const Bytes& icmp, const Bytes& options = {}) {
   Bytes ip = {uint8_t(0x45 + options.size() / 4),
               0,
               0,
               0,
               0,
               0,
               0,
               0,
               64,
               1,
               0,
               0,
               192,
               0,
               2,
               1,
               192,
               0,
               2,
               2};
   ip.insert(ip.end(), options.begin(), options.end());
   put16(ip, 2, uint16_t(ip.size() + icmp.size()));
   put16(ip, 10, csum(ip));
   ip.insert(ip.end(), icmp.begin(), icmp.end());
   return ip;
}

Bytes addrBody(const IpGenAddr& a) {
   Bytes b = {0, uint8_t(a.isV4() ? 1 : 2), uint8_t(a.bytes().size()), 0};
   for (auto x : a.bytes())
      b.push_back(x);
   return b;
}
Bytes indexBody(uint32_t i) {
   return {uint8_t(i >> 24), uint8_t(i >> 16), uint8_t(i >> 8), uint8_t(i)};
}

struct ProbeTest : FakePamWorld {
   Ptr<AllIntfStatusDir> intfs = make<AllIntfStatusDir>();
   Ptr<L3IntfStatusDir> l3 = make<L3IntfStatusDir>();
   Ptr<IfIndexStatus> ifIndex = make<IfIndexStatus>();
   Ptr<IpStatus> ip = make<IpStatus>();
   Ptr<Ip6Status> ip6 = make<Ip6Status>();
   Ptr<ArpTableStatus> arp = make<ArpTableStatus>();
   Ptr<VrfIdMapStatus> vrfIds = make<VrfIdMapStatus>();
   Ptr<Config> config = make<Config>();
   Ptr<Status> status = make<Status>();
   Ptr<AclConfig> aclInput = make<AclConfig>();
   Ptr<PamConfig> probeConfig = make<PamConfig>();
   std::map<VrfName, Ptr<KniNsStatus>> kni;  // VRF namespaces' devices by ifIndex
   Ptr<PamCollection> pams = make<PamCollection>();
   Ptr<FakePam> pam4 = defaultVrfPam(AddressFamily::ipv4);
   Ptr<FakePam> pam6 = defaultVrfPam(AddressFamily::ipv6);
   Ptr<RootSm> sm;

   IpGenAddr client4 = *IpGenAddr::parse("192.0.2.1"), router4 = *IpGenAddr::parse("192.0.2.2");
   IpGenAddr client6 = *IpGenAddr::parse("2001:db8::1"), router6 = *IpGenAddr::parse("2001:db8::2");

   ProbeTest() {
      for (auto f : {&Config::enabled, &Config::ifname, &Config::ifindex, &Config::ifaddr}) {
         ((*config).*f).set(true);
      }
      vrfIds->vrfName.is(0, VrfName::defaultVrf());
      vrfIds->vrfName.is(5, VrfName("red"));
      intf("eth0", OperStatus::up, 2, "default", "192.0.2.2", "2001:db8::2");
      intf("eth1", OperStatus::up, 3, "default", "198.51.100.1", "");
      intf("eth2", OperStatus::down, 4, "default", "203.0.113.1", "2001:db8:2::1");
      intf("red/eth3", OperStatus::up, 0, "red", "10.9.9.9", "");
      intf("bare", OperStatus::up, 6, "", "", "");  // no L3 status at all
      pams->pamIs({VrfName::defaultVrf(), AddressFamily::ipv4}, pam4);
      pams->pamIs({VrfName::defaultVrf(), AddressFamily::ipv6}, pam6);
      sm = make<RootSm>(make<Queues>(), intfs, l3, ifIndex, ip, ip6, arp, vrfIds, config, status,
                        pams, aclInput, make<AclConfig>(), probeConfig, [this](const VrfName& v) {
                           auto it = kni.find(v);
                           return it == kni.end() ? nullptr : it->second;
                        });
   }

   void intf(const std::string& name, OperStatus oper, uint32_t ifindex, const std::string& vrf,
             const std::string& v4, const std::string& v6) {
      IntfId id(name);
      auto s = make<IntfStatus>(id);
      s->operStatus.set(oper);
      intfs->intfStatus.is(id, s);
      if (ifindex)
         ifIndex->intfId.is(ifindex, id);
      if (vrf.empty())
         return;
      auto l = make<L3IntfStatus>(id);
      l->vrf.set(VrfName(vrf));
      l3->intfStatus.is(id, l);
      if (!v4.empty()) {
         auto e = make<IpIntfStatus>(id);
         e->vrf.set(VrfName(vrf));
         e->primaryAddr.set({*IpGenAddr::parse(v4), 24});
         e->ipv4Running.set(true);
         ip->ipIntfStatus.is(id, e);
      }
      if (!v6.empty()) {
         auto e = make<Ip6IntfStatus>(id);
         e->vrf.set(VrfName(vrf));
         e->addrs.set({{*IpGenAddr::parse(v6), 64}});
         e->ipv6Running.set(true);
         ip6->ip6IntfStatus.is(id, e);
      }
   }
   void neighbour(VrfId vrfId, const std::string& addr, const std::string& dev) {
      auto a = *IpGenAddr::parse(addr);
      (a.isV4() ? arp->arp : arp->nd).is({vrfId, a, IntfId(dev)}, {"02:00:00:00:00:01"});
   }

   static constexpr uint32_t kArrivalIfIndex = 2;
   // Sends one request through the PAM; returns the reply's ICMP bytes, or empty. The reply
   // must leave through the request's arrival interface.
   Bytes exchange(const Req& r, const Bytes* raw = nullptr, Ptr<FakePam> via = nullptr) {
      Ptr<FakePam> pam = via ? via : r.v6 ? pam6 : pam4;
      const IpGenAddr& src = r.v6 ? client6 : client4;
      const IpGenAddr& dst = r.v6 ? router6 : router4;
      Bytes icmp = raw ? *raw : r.build(src, dst);
      Bytes wire = r.v6 || raw ? icmp : withIpv4Header(icmp, r.ipOptions);
      size_t before = pam->tx.size();
      pam->inject(wire, src, dst, true, kArrivalIfIndex);
      sched.runUntilIdle();
      if (pam->tx.size() == before)
         return {};
      EXPECT_EQ(pam->tx.back().src, dst);
      EXPECT_EQ(pam->tx.back().dst, src);
      EXPECT_EQ(pam->tx.back().ifIndex, kArrivalIfIndex);
      return pam->tx.back().bytes;
   }
};

// Every counter of Status by name, for "which counter moved" checks.
std::map<std::string, uint64_t> counters(const Status& s) {
   std::map<std::string, uint64_t> m;
#define RAVEL_TEST_COUNTER(name) m[#name] = s.name;
   RAVEL_PROBE_COUNTERS(RAVEL_TEST_COUNTER)
#undef RAVEL_TEST_COUNTER
   return m;
}

TEST_F(ProbeTest, RepliesAndCounters) {
   struct Case {
      const char* what;
      std::function<void(Req&)> req;
      int code;  // -1: no reply
      uint8_t byte7;
      const char* counter;  // the one counter besides requestsReceived that must move
   };
   auto v6 = [](Req& r) { r.v6 = true; };
   const Case cases[] = {
       {"name, up, v4+v6", [](Req&) {}, 0, 0x07, "responsesSent"},
       {"name, up, v4 only",
        [](Req& r) {
           r.body = {'e', 't', 'h', '1'};
        },
        0, 0x06, "responsesSent"},
       {"name, down",
        [](Req& r) {
           r.body = {'e', 't', 'h', '2'};
        },
        0, 0x00, "responsesSent"},
       {"name padded", [](Req& r) { r.body = {'e', 't', 'h', '0', 0, 0, 0, 0}; }, 0, 0x07,
        "responsesSent"},
       {"name without L3 status counts as default",
        [](Req& r) {
           r.body = {'b', 'a', 'r', 'e'};
        },
        0, 0x04, "responsesSent"},
       {"name in another VRF", [](Req& r) { r.body = {'r', 'e', 'd', '/', 'e', 't', 'h', '3'}; }, 2,
        0, "wrongVrfRequested"},
       {"unknown name",
        [](Req& r) {
           r.body = {'n', 'o', 'p', 'e'};
        },
        2, 0, "wrongVrfRequested"},
       {"name not UTF-8",
        [](Req& r) {
           r.body = {'e', 0xff, 't', 'h'};
        },
        2, 0, "interfaceLookupFailed"},
       {"name invalid",
        [](Req& r) {
           r.body = {'a', ' ', 'b', 'c'};
        },
        2, 0, "interfaceLookupFailed"},
       {"ifindex", [](Req& r) { r.ctype = 2, r.body = indexBody(3); }, 0, 0x06, "responsesSent"},
       {"ifindex unknown", [](Req& r) { r.ctype = 2, r.body = indexBody(99); }, 2, 0,
        "interfaceLookupFailed"},
       {"address v4",
        [](Req& r) { r.ctype = 3, r.body = addrBody(*IpGenAddr::parse("203.0.113.1")); }, 0, 0x00,
        "responsesSent"},
       {"address v6 over v6",
        [&](Req& r) {
           v6(r);
           r.ctype = 3, r.body = addrBody(*IpGenAddr::parse("2001:db8::2"));
        },
        0, 0x07, "responsesSent"},
       {"address unknown",
        [](Req& r) { r.ctype = 3, r.body = addrBody(*IpGenAddr::parse("10.9.9.9")); }, 2, 0,
        "interfaceLookupFailed"},
       {"v6 by name", [&](Req& r) { v6(r); }, 0, 0x07, "responsesSent"},
       // Remote probes (L=0) through the ARP/ND table.
       {"remote one match",
        [](Req& r) {
           r.local = false, r.ctype = 3, r.body = addrBody(*IpGenAddr::parse("192.0.2.77"));
        },
        0, 0x40, "responsesSent"},
       {"remote two matches",
        [](Req& r) {
           r.local = false, r.ctype = 3, r.body = addrBody(*IpGenAddr::parse("192.0.2.88"));
        },
        4, 0, "responsesSent"},
       {"remote none (other VRF's entry)",
        [](Req& r) {
           r.local = false, r.ctype = 3, r.body = addrBody(*IpGenAddr::parse("10.1.1.1"));
        },
        3, 0, "responsesSent"},
       {"remote v6 one match",
        [&](Req& r) {
           v6(r);
           r.local = false, r.ctype = 3, r.body = addrBody(*IpGenAddr::parse("2001:db8::77"));
        },
        0, 0x40, "responsesSent"},
       {"remote by name", [](Req& r) { r.local = false; }, 1, 0, "remoteRequestMalformed"},
       // Object-level faults: answered with Malformed Query.
       {"class 2", [](Req& r) { r.cls = 2; }, 1, 0, "badExtensionObject"},
       {"c-type 4", [](Req& r) { r.ctype = 4; }, 1, 0, "badExtensionObject"},
       {"ifindex body too long", [](Req& r) { r.ctype = 2, r.body = Bytes(8, 0); }, 1, 0,
        "badExtensionObject"},
       {"address AFI/length mismatch",
        [](Req& r) { r.ctype = 3, r.body = {0, 1, 16, 0, 1, 2, 3, 4}; }, 1, 0,
        "badExtensionObject"},
       {"empty name", [](Req& r) { r.body = {}; }, 1, 0, "badExtensionObject"},
       // Length 2: no body, and the extension checksum covers only Length + 4 bytes.
       {"object Length below 4",
        [](Req& r) {
           r.lengthDelta = -6;
           r.extSumLen = 6;
        },
        1, 0, "badExtensionObject"},
       {"IPv4 header with options",
        [](Req& r) {
           r.ipOptions = {1, 1, 1, 0};
        },
        0, 0x07, "responsesSent"},
       // Packet-level faults: dropped.
       {"bad ICMP checksum", [](Req& r) { r.badIcmpSum = true; }, -1, 0, "incorrectIcmpChecksum"},
       {"bad ICMPv6 checksum",
        [&](Req& r) {
           v6(r);
           r.badIcmpSum = true;
        },
        -1, 0, "incorrectIcmpChecksum"},
       {"extension version 1", [](Req& r) { r.version = 1; }, -1, 0, "badExtensionHeader"},
       {"bad extension checksum", [](Req& r) { r.badExtSum = true; }, -1, 0,
        "incorrectExtensionChecksum"},
       {"object longer than packet", [](Req& r) { r.lengthDelta = 4; }, -1, 0, "pktTooShort"},
       {"echo request", [](Req& r) { r.type = 8; }, -1, 0, "incorrectIcmpType"},
   };
   neighbour(0, "192.0.2.77", "eth0");
   neighbour(0, "192.0.2.88", "eth0");
   neighbour(0, "192.0.2.88", "eth1");
   neighbour(5, "10.1.1.1", "red/eth3");
   neighbour(0, "2001:db8::77", "eth0");
   config->remote.set(true);
   for (auto& c : cases) {
      SCOPED_TRACE(c.what);
      Req r;
      c.req(r);
      auto before = counters(*status);
      Bytes sent = r.build(r.v6 ? client6 : client4, r.v6 ? router6 : router4);
      Bytes reply = exchange(r);
      auto after = counters(*status);
      EXPECT_EQ(after["requestsReceived"], before["requestsReceived"] + 1);
      EXPECT_EQ(after[c.counter], before[c.counter] + 1);
      for (auto& [name, v] : after) {
         if (name != c.counter && name != "requestsReceived" && name != "responsesSent") {
            EXPECT_EQ(v, before[name]) << name;
         }
      }
      if (c.code < 0) {
         EXPECT_TRUE(reply.empty());
         continue;
      }
      ASSERT_EQ(reply.size(), sent.size());
      EXPECT_EQ(reply[0], r.v6 ? 161 : 43);
      EXPECT_EQ(reply[1], c.code);
      EXPECT_EQ(reply[4] << 8 | reply[5], r.id);
      EXPECT_EQ(reply[6], r.seq);
      EXPECT_EQ(reply[7], c.byte7);
      EXPECT_TRUE(std::equal(reply.begin() + 8, reply.end(), sent.begin() + 8));
      if (!r.v6) {
         EXPECT_EQ(csum(reply), 0);
      }
   }
}

TEST_F(ProbeTest, PolicyRefusesWithoutReply) {
   struct Case {
      const char* what;
      std::function<void(Config&)> config;
      std::function<void(Req&)> req;
      bool answered;
   };
   const Case cases[] = {
       {"disabled", [](Config& c) { c.enabled.set(false); }, [](Req&) {}, false},
       {"ifname off", [](Config& c) { c.ifname.set(false); }, [](Req&) {}, false},
       {"ifindex off", [](Config& c) { c.ifindex.set(false); },
        [](Req& r) { r.ctype = 2, r.body = indexBody(2); }, false},
       {"ifaddr off", [](Config& c) { c.ifaddr.set(false); },
        [](Req& r) { r.ctype = 3, r.body = addrBody(*IpGenAddr::parse("192.0.2.2")); }, false},
       {"remote off", [](Config&) {}, [](Req& r) { r.local = false; }, false},
       {"remote on, ifname off, remote by name",
        [](Config& c) {
           c.remote.set(true);
           c.ifname.set(false);
        },
        [](Req& r) { r.local = false; }, true},
       // A malformed object carries the default ifIndex 0: allowed only with ifindex.
       {"malformed, ifindex on", [](Config&) {}, [](Req& r) { r.cls = 2; }, true},
       {"malformed, ifindex off", [](Config& c) { c.ifindex.set(false); },
        [](Req& r) { r.cls = 2; }, false},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.what);
      for (auto f : {&Config::enabled, &Config::ifname, &Config::ifindex, &Config::ifaddr}) {
         ((*config).*f).set(true);
      }
      config->remote.set(false);
      c.config(*config);
      Req r;
      c.req(r);
      uint64_t refused = status->requestTypeNotAllowed;
      Bytes reply = exchange(r);
      EXPECT_EQ(!reply.empty(), c.answered);
      EXPECT_EQ(status->requestTypeNotAllowed, refused + (c.answered ? 0 : 1));
   }
}

TEST_F(ProbeTest, ShortPacketsCountTheRightCheck) {
   struct Case {
      const char* what;
      Bytes wire;
      bool v6;
      const char* counter;
   };
   Req good;
   Bytes icmp = good.build(client4, router4);
   Bytes ip = withIpv4Header(icmp);
   auto icmp6Seven = [&](bool bad) {
      Bytes m = {160, 0, 0, 0, 0x12, 0x34, 7};
      put16(m, 2, uint16_t(icmp6Sum(client6, router6, m) ^ (bad ? 0x0101 : 0)));
      return m;
   };
   Bytes ihl6 = ip;
   ihl6[0] = 0x46;
   ihl6.resize(22);
   const Case cases[] = {
       {"19 bytes", Bytes(ip.begin(), ip.begin() + 19), false, "pktTooShort"},
       {"IHL 6, 22 bytes", ihl6, false, "pktTooShort"},
       {"version 6 in IPv4 PAM",
        [&] {
           Bytes b = ip;
           b[0] = 0x65;
           return b;
        }(),
        false, "unknownAf"},
       {"7 byte ICMP", Bytes(ip.begin(), ip.begin() + 27), false, "pktTooShort"},
       // The extension sums to zero on its own, so cutting it off leaves the ICMP checksum good.
       {"no extension", Bytes(ip.begin(), ip.begin() + 28), false, "pktTooShort"},
       {"7 byte ICMP of another type",
        [&] {
           Bytes b(ip.begin(), ip.begin() + 27);
           b[20] = 8;
           return b;
        }(),
        false, "pktTooShort"},
       {"3 byte ICMPv6", {160, 0, 0}, true, "pktTooShort"},
       // IPv6 verifies the checksum before it asks for the full Extended Echo header.
       {"7 byte ICMPv6", icmp6Seven(false), true, "pktTooShort"},
       {"7 byte ICMPv6, bad checksum", icmp6Seven(true), true, "incorrectIcmpChecksum"},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.what);
      auto before = counters(*status);
      Req r;
      r.v6 = c.v6;
      EXPECT_TRUE(exchange(r, &c.wire).empty());
      auto after = counters(*status);
      for (auto& [name, v] : after) {
         uint64_t moved = name == c.counter || name == "requestsReceived" ? 1 : 0;
         EXPECT_EQ(v, before[name] + moved) << name;
      }
   }
}

TEST_F(ProbeTest, QueueLimitDropsAndCounts) {
   struct Case {
      const char* what;
      uint32_t limit;
      int burst;          // packets waiting when the PAM says readable
      bool replyWaiting;  // a reply not yet sent sits in the output queue
      uint64_t accepted;
   };
   // Accepted while each queue holds at most the limit: the input queue reaches limit + 1.
   const Case cases[] = {
       {"limit 2", 2, 6, false, 3},
       {"limit 0, queues empty", 0, 3, false, 1},
       {"limit 0, a reply waiting", 0, 3, true, 0},
   };
   Req r;
   Bytes wire = withIpv4Header(r.build(client4, router4));
   for (auto& c : cases) {
      SCOPED_TRACE(c.what);
      status->clear();
      pam4->tx.clear();
      config->maxQueueLength.set(c.limit);
      if (c.replyWaiting) {
         auto e = queueEntryFactory();
         e->pkt = Pkt::fromBytes(r.build(client4, router4));
         e->src = client4;
         e->dst = router4;
         e->vrf = VrfName::defaultVrf();
         sm->queues()->outputEnq(e);
      }
      for (int i = 1; i < c.burst; ++i)
         pam4->inject(wire, client4, router4, false);
      pam4->inject(wire, client4, router4, true);  // one readable notification for all
      EXPECT_EQ(status->requestsReceived, c.accepted);
      EXPECT_EQ(status->queueTooLong, c.burst - c.accepted);
      sched.runUntilIdle();
      uint64_t sent = c.accepted + (c.replyWaiting ? 1 : 0);
      EXPECT_EQ(status->responsesSent, sent);
      EXPECT_EQ(pam4->tx.size(), sent);
   }
}

// What is refused before any work: broadcast and multicast destinations and requests over the
// rate (for all sources, or for one source prefix); and after parsing, sources the request
// type's list does not permit. Refused requests get no reply.
TEST_F(ProbeTest, AdmissionAndSourceListsDecideWhatIsAnswered) {
   auto addr = [](const char* a) { return *IpGenAddr::parse(a); };
   AclList noc{"NOC", AddressFamily::ipv4, {}};
   noc.rules.push_back({AclAction::permit,
                        *IpPrefix::parse("192.0.2.0/24", AddressFamily::ipv4),
                        *IpPrefix::parse("any", AddressFamily::ipv4),
                        {}});
   aclInput->ipv4->acl.is("NOC", noc);
   struct Case {
      const char* what;
      std::function<void()> setup;
      const char* src;
      const char* dst;
      int requests;
      uint64_t answered;
      const char* counter;                  // what counts the others
      std::function<void(Req&)> kind = {};  // the request; by name "eth0" when empty
   };
   auto byIndex = [](Req& r) { r.ctype = 2, r.body = indexBody(2); };
   auto byAddr = [](Req& r) { r.ctype = 3, r.body = addrBody(*IpGenAddr::parse("192.0.2.2")); };
   auto remote = [](Req& r) {
      r.local = false, r.ctype = 3, r.body = addrBody(*IpGenAddr::parse("192.0.2.77"));
   };
   const Case cases[] = {
       {"multicast", [] {}, "192.0.2.1", "224.0.0.1", 1, 0, "notUnicast"},
       {"limited broadcast", [] {}, "192.0.2.1", "255.255.255.255", 1, 0, "notUnicast"},
       {"eth0's subnet broadcast", [] {}, "192.0.2.1", "192.0.2.255", 1, 0, "notUnicast"},
       {"all sources: burst 3",
        [this] {
           config->rateLimit.set({1, 3, 0, 0, 24, 64});
        },
        "192.0.2.1", "192.0.2.2", 5, 3, "rateLimited"},
       {"per source /24: burst 2",
        [this] {
           config->rateLimit.set({0, 0, 1, 2, 24, 64});
        },
        "192.0.2.1", "192.0.2.2", 4, 2, "rateLimited"},
       {"per source: another /24 has its own share", [] {}, "198.51.100.9", "192.0.2.2", 2, 2,
        "rateLimited"},
       {"source permitted by the name's list",
        [this] {
           config->rateLimit.set({});
           config->sources.set({"NOC", "", "", ""});
        },
        "192.0.2.1", "192.0.2.2", 1, 1, "sourceNotAuthorized"},
       {"source not permitted", [] {}, "198.51.100.9", "192.0.2.2", 1, 0, "sourceNotAuthorized"},
       {"list named but not defined: nobody",
        [this] {
           config->sources.set({"MISSING", "", "", ""});
        },
        "192.0.2.1", "192.0.2.2", 1, 0, "sourceNotAuthorized"},
       {"a kind without a list: everyone", [] {}, "198.51.100.9", "192.0.2.2", 1, 1,
        "sourceNotAuthorized", byIndex},
       {"the index's list",
        [this] {
           config->sources.set({"", "NOC", "", ""});
        },
        "198.51.100.9", "192.0.2.2", 1, 0, "sourceNotAuthorized", byIndex},
       {"the address's list",
        [this] {
           config->sources.set({"", "", "NOC", ""});
        },
        "198.51.100.9", "192.0.2.2", 1, 0, "sourceNotAuthorized", byAddr},
       {"the remote list",
        [this] {
           config->remote.set(true);
           config->sources.set({"", "", "", "NOC"});
        },
        "198.51.100.9", "192.0.2.2", 1, 0, "sourceNotAuthorized", remote},
       {"the remote list, permitted", [] {}, "192.0.2.1", "192.0.2.2", 1, 1, "sourceNotAuthorized",
        remote},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.what);
      c.setup();
      Req r;
      if (c.kind)
         c.kind(r);
      status->clear();
      pam4->tx.clear();
      IpGenAddr src = addr(c.src), dst = addr(c.dst);
      Bytes wire = withIpv4Header(r.build(src, dst));
      for (int i = 0; i < c.requests; ++i)
         pam4->inject(wire, src, dst, true, kArrivalIfIndex);
      sched.runUntilIdle();
      EXPECT_EQ(pam4->tx.size(), c.answered);
      EXPECT_EQ(counters(*status).at(c.counter), c.requests - c.answered);
   }
}

TEST_F(ProbeTest, RemoteRequestInAVrfWithoutIdFindsNoEntry) {
   // The address is learnt in the default VRF (id 0); "blue" has no id at all.
   neighbour(0, "192.0.2.77", "eth0");
   config->remote.set(true);
   config->vrfs.set({{VrfName("blue"), {}}});  // answers, as the global settings say
   auto blue =
       ptrCast<FakePam>(factory.ipSocketPamFactory("ipv4 vrf blue", IPPROTO_ICMP, "ns-blue"));
   pams->pamIs({VrfName("blue"), AddressFamily::ipv4}, blue);
   struct Case {
      const char* what;
      Ptr<FakePam> pam;
      int code;
      uint8_t byte7;
   };
   const Case cases[] = {
       {"default VRF", pam4, 0, 0x40},
       {"VRF without id", blue, 3, 0},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.what);
      Req r;
      r.local = false, r.ctype = 3, r.body = addrBody(*IpGenAddr::parse("192.0.2.77"));
      auto before = counters(*status);
      Bytes reply = exchange(r, nullptr, c.pam);
      ASSERT_EQ(reply.size(), r.build(client4, router4).size());
      EXPECT_EQ(reply[1], c.code);
      EXPECT_EQ(reply[7], c.byte7);
      auto after = counters(*status);
      for (auto& [name, v] : after) {
         bool moves = name == "requestsReceived" || name == "responsesSent";
         EXPECT_EQ(v, before[name] + (moves ? 1 : 0)) << name;
      }
   }
}

TEST_F(ProbeTest, TasksYieldAndRescheduleUntilEmpty) {
   sched.yieldPolicyIs(std::make_unique<test::YieldAfter>(2));
   Req r;
   Bytes wire = withIpv4Header(r.build(client4, router4));
   for (int i = 0; i < 7; ++i)
      pam4->inject(wire, client4, router4, false);
   pam4->inject(wire, client4, router4, true);
   sched.runOnce(0);
   EXPECT_EQ(sm->queues()->inputSize(), 6u);  // two processed, then yielded
   sched.runUntilIdle();
   EXPECT_EQ(pam4->tx.size(), 8u);
   EXPECT_EQ(sm->inTask().workCount(), 8u);
   EXPECT_GE(sm->inTask().runCount(), 4u);
}

TEST_F(ProbeTest, PamRemovalDisablesItAndCountsNoTxPam) {
   Req r;
   Bytes wire = withIpv4Header(r.build(client4, router4));
   pam4->inject(wire, client4, router4);  // queued, not yet processed
   ASSERT_EQ(sm->queues()->inputSize(), 1u);
   pams->pamDel({VrfName::defaultVrf(), AddressFamily::ipv4});
   EXPECT_FALSE(pam4->enabled());
   EXPECT_EQ(sm->pamInputReactor().count({VrfName::defaultVrf(), AddressFamily::ipv4}), 0u);
   sched.runUntilIdle();
   EXPECT_EQ(status->noTxPam, 1u);
   // Re-adding creates a new reactor that reads again.
   pams->pamIs({VrfName::defaultVrf(), AddressFamily::ipv4}, pam4);
   exchange(r);
   EXPECT_EQ(status->responsesSent, 1u);
}

TEST_F(ProbeTest, TransmitErrorIsCountedWithItsErrno) {
   pam4->nextTxErrno = EHOSTUNREACH;
   exchange(Req{});
   EXPECT_EQ(status->txErrors, 1u);
   EXPECT_EQ(status->lastTxErrno, EHOSTUNREACH);
   EXPECT_EQ(status->codeCount[0], 1u);
}

TEST(RequestedInterface, TextFormRoundTripAndErrors) {
   for (auto& ri : {RequestedInterface::ifIndex(5), RequestedInterface::ifName("eth0"),
                    RequestedInterface::ifAddr(*IpGenAddr::parse("2001:db8::1"))}) {
      EXPECT_EQ(RequestedInterface::fromString(ri.str()), ri) << ri.str();
   }
   EXPECT_EQ(RequestedInterface::ifName("eth0").str(),
             "Value('Ravel::ProbeResponder::RequestedInterface', ifName=eth0)");
   EXPECT_LT(RequestedInterface::ifIndex(5), RequestedInterface::ifName("a"));
   EXPECT_EQ(RequestedInterface(), RequestedInterface::ifIndex(0));
   try {
      RequestedInterface::fromString("ifFoo=1");
      FAIL();
   } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(),
                   "Invalid string rep for RequestedInterface: unknown alternative ifFoo");
   }
   EXPECT_THROW(RequestedInterface::fromString("ifName"), std::invalid_argument);
}

TEST(PacketParserResult, IdentifierAndSeqRewriteOnlyTheirBits) {
   PacketParserResult r;
   r.request = 0x000000ffu;
   r.identifierIs(0xabcd);
   r.seqIs(0x12);
   EXPECT_EQ(r.request, 0xabcd12ffu);
   EXPECT_TRUE(r.localNode());
}

}  // namespace
}  // namespace Ravel::ProbeResponder
