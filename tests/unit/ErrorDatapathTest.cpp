#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "error/datapath/IcmpErrPktInfoProcessor.h"
#include "tests/unit/FakePam.h"
#include "wire/IcmpExtension.h"

namespace Ravel::ErrorResponder {
namespace {

using testing::FakePam;
using Bytes = std::vector<uint8_t>;

constexpr AddressFamily v4 = AddressFamily::ipv4, v6 = AddressFamily::ipv6;
constexpr NsInode kRedInode = 4026532001;
constexpr uint32_t kEth1 = 7;  // kernel index of red/eth1 in ns-red

IpGenAddr ip(const char* text) {
   return *IpGenAddr::parse(text);
}

// The offending packet: a UDP datagram from 198.51.100.7 (2001:db8:1::7) to 203.0.113.9
// (2001:db8:2::9), `len` bytes with a counting payload.
Bytes offending(AddressFamily af, size_t len) {
   Bytes d(len);
   for (size_t i = 0; i < len; ++i)
      d[i] = static_cast<uint8_t>(i * 7 + 1);
   if (af == v4) {
      const uint8_t h[] = {0x45, 0, 0,   60, 0,   0, 0,   0, 1,   17,
                           0,    0, 198, 51, 100, 7, 203, 0, 113, 9};
      std::memcpy(d.data(), h, std::min(sizeof h, len));
   } else {
      Bytes h(40, 0);
      h[0] = 0x60;
      h[6] = 17;
      h[7] = 1;
      IpGenAddr s = ip("2001:db8:1::7"), t = ip("2001:db8:2::9");
      std::copy(s.bytes().begin(), s.bytes().end(), h.begin() + 8);
      std::copy(t.bytes().begin(), t.bytes().end(), h.begin() + 24);
      std::memcpy(d.data(), h.data(), std::min(h.size(), len));
   }
   return d;
}

packet_info record(AddressFamily af, uint8_t type, uint8_t code, size_t datalen,
                   uint32_t ifindex = kEth1, NsInode inode = kRedInode) {
   packet_info r{};
   r.ifindex = ifindex;
   r.nsindex = static_cast<uint32_t>(inode);
   r.hdr.icmp4.type = type;
   r.hdr.icmp4.code = code;
   // The error goes back to the offending packet's source, from the router's address.
   IpGenAddr dst = ip(af == v4 ? "198.51.100.7" : "2001:db8:1::7");
   IpGenAddr src = ip(af == v4 ? "192.0.2.1" : "2001:db8::9");
   std::memcpy(&r.dst_addr, dst.bytes().data(), dst.bytes().size());
   std::memcpy(&r.src_addr, src.bytes().data(), src.bytes().size());
   Bytes d = offending(af, datalen);
   r.datalen = static_cast<uint32_t>(datalen);
   std::memcpy(r.data, d.data(), std::min<size_t>(datalen, ICMP_DATA_MAX_SIZE));
   return r;
}

// VRF red (namespace ns-red) with red/eth1: kernel index 7, MTU 1500, 192.0.2.1 and three IPv6
// addresses; PAMs for both families; counters for red in both families.
struct DatapathWorld {
   DatapathWorld() {
      auto e = ebpfConfig->entryIs("red", kRedInode);
      ebpfConfig->entryByInodeIs(kRedInode, e);
      for (auto af : {v4, v6}) {
         stats->errorResponderAfStatsIs(af)->errorResponderVrfStatsIs("red");
         vrfStatus[idx(af)]->enabledInodeIs(kRedInode);
         int proto = af == v4 ? int{IPPROTO_ICMP} : int{IPPROTO_ICMPV6};
         pam[idx(af)] = make<FakePam>("red", af, proto, "ns-red");
         pams->pamIs({"red", af}, pam[idx(af)]);
      }
      addIntf("red", kEth1, "eth1", 1500);
      ipAddr(IntfId::forDevice("red", "eth1"), "192.0.2.1");
      ip6Addrs(IntfId::forDevice("red", "eth1"), {"fe80::1", "2001:db8::5", "2001:db8::9"});
      config->vrfConfig.is("red", make<VrfConfig>("red"));
      helper = intfLookupHelperFactory(
          {intfs, nullptr, kniDefault, ipStatus, ip6Status, ebpfConfig, em});
      for (auto af : {v4, v6}) {
         proc[idx(af)] = make<IcmpErrPktInfoProcessor>(IcmpErrPktInfoProcessorInputs{
             af, helper, pams, config, vrfStatus[idx(af)], acl->of(af), stats, ebpfConfig,
             [this](const VrfName& vrf) { lost.push_back(vrf); }});
         proc[idx(af)]->replyHandler()->hostNameIs("r1");
      }
   }

   static size_t idx(AddressFamily af) { return af == v6 ? 1 : 0; }

   Ptr<KniNsStatus> kni(const std::string& ns) {
      if (ns == "default")
         return kniDefault;
      return ptrCast<KniNsStatus>(em->mount("kni/ns/" + ns + "/status", KniNsStatus::kTypeName));
   }
   void addIntf(const VrfName& vrf, uint32_t ifindex, const std::string& dev, uint32_t mtu) {
      IntfId id = IntfId::forDevice(vrf, dev);
      auto s = make<IntfStatus>(id);
      s->mtu.set(mtu);
      s->snmpIndex.set(ifindex);
      s->deviceName.set(dev);
      intfs->intfStatus.is(id, s);
      kni(IntfLookupHelper::nsNameOf(vrf))->intf.is(ifindex, {dev, id});
   }
   void ipAddr(const IntfId& id, const char* a) {
      auto s = make<IpIntfStatus>(id);
      s->primaryAddr.set({ip(a), 24});
      ipStatus->ipIntfStatus.is(id, s);
   }
   void ip6Addrs(const IntfId& id, std::vector<const char*> addrs) {
      auto s = make<Ip6IntfStatus>(id);
      std::set<IpPrefixAddr> set;
      for (auto a : addrs)
         set.insert({ip(a), 64});
      s->addrs.set(set);
      ip6Status->ip6IntfStatus.is(id, s);
   }
   void aclIs(AddressFamily af, const char* name, AclAction action, const char* source) {
      AclList l{name, af, {}};
      l.rules.push_back({action, *IpPrefix::parse(source, af), *IpPrefix::parse("any", af), {}});
      acl->of(af)->acl.is(name, l);
   }
   uint64_t afCounter(AddressFamily af, AfCounterId id) {
      return stats->errorResponderAfStats(af)->counter(id);
   }
   uint64_t vrfCounter(AddressFamily af, VrfCounterId id) {
      return stats->errorResponderAfStats(af)->errorResponderVrfStats("red")->counter(id);
   }
   // The one reply sent, parsed; fails the test when there is not exactly one.
   IcmpErrorMessage reply(AddressFamily af, uint8_t nodeClass = 0) {
      auto& tx = pam[idx(af)]->tx;
      EXPECT_EQ(tx.size(), 1u);
      if (tx.size() != 1)
         return {};
      auto r = parseIcmpError(tx[0].bytes, {af, nodeClass, {}, {}});
      EXPECT_TRUE(r) << toString(r.error);
      return r ? *r.msg : IcmpErrorMessage{};
   }

   Ptr<EntityManager> em = make<EntityManager>();
   Ptr<AllIntfStatusDir> intfs = make<AllIntfStatusDir>();
   Ptr<KniNsStatus> kniDefault = make<KniNsStatus>();
   Ptr<IpStatus> ipStatus = make<IpStatus>();
   Ptr<Ip6Status> ip6Status = make<Ip6Status>();
   Ptr<EbpfConfig> ebpfConfig = make<EbpfConfig>();
   Ptr<Config> config = make<Config>();
   Ptr<ErrorResponderStats> stats = make<ErrorResponderStats>();
   Ptr<EbpfVrfStatus> vrfStatus[2] = {make<EbpfVrfStatus>(), make<EbpfVrfStatus>()};
   Ptr<AclConfig> acl = make<AclConfig>();
   Ptr<PamCollection> pams = make<PamCollection>();
   Ptr<FakePam> pam[2];
   Ptr<IntfLookupHelper> helper;
   Ptr<IcmpErrPktInfoProcessor> proc[2];
   std::vector<VrfName> lost;  // VRFs whose records got no error from us
};

class ErrorDatapathTest : public ::testing::Test, public DatapathWorld {};

// What the processor sends for one record, by family: nothing, a plain error or an extended one.
TEST_F(ErrorDatapathTest, ProcessorDecidesTheReplyForm) {
   // none: dropped before an attempt; unsent: attempted, not sent; kernels: the kernel's own
   // error is left to go.
   enum Form { none, unsent, kernels, plain, extended };
   struct Case {
      const char* what;
      std::function<void(DatapathWorld&, AddressFamily)> setup;
      uint32_t ifindex;
      Form form;
      bool lost = false;  // the kernel's error may have been dropped: the guard is told
   };
   auto aclName = [](DatapathWorld& t, AddressFamily af, const char* n) {
      auto& vc = *t.config->vrfConfig.get("red");
      (af == v4 ? vc.v4AclName : vc.v6AclName).set(n);
   };
   const Case cases[] = {
       {"no ACL configured", [](auto&, auto) {}, kEth1, extended},
       {"no VRF configuration at all", [](auto& t, auto) { t.config->vrfConfig.del("red"); }, kEth1,
        extended},
       {"ACL named but absent", [&](auto& t, auto af) { aclName(t, af, "missing"); }, kEth1, plain},
       {"permit matches the source",
        [&](auto& t, auto af) {
           t.aclIs(af, "f", AclAction::permit, af == v4 ? "198.51.100.0/24" : "2001:db8:1::/48");
           aclName(t, af, "f");
        },
        kEth1, extended},
       {"deny matches the source",
        [&](auto& t, auto af) {
           t.aclIs(af, "f", AclAction::deny, af == v4 ? "198.51.100.0/24" : "2001:db8:1::/48");
           aclName(t, af, "f");
        },
        kEth1, plain},
       {"no rule matches",
        [&](auto& t, auto af) {
           t.aclIs(af, "f", AclAction::permit, af == v4 ? "10.0.0.0/8" : "2001:db8:99::/48");
           aclName(t, af, "f");
        },
        kEth1, plain},
       {"unknown kernel index", [](auto&, auto) {}, 99, plain},
       {"unknown kernel index beats a permitting ACL",
        [&](auto& t, auto af) {
           t.aclIs(af, "f", AclAction::permit, "any");
           aclName(t, af, "f");
        },
        99, plain},
       {"namespace left the kernel filter",
        [](auto& t, auto af) { t.vrfStatus[DatapathWorld::idx(af)]->enabledInodeDel(kRedInode); },
        kEth1, none, true},
       {"namespace no longer mapped to a VRF",
        [](auto& t, auto) { t.ebpfConfig->entryByInodeDel(kRedInode); }, kEth1, none},
       {"no PAM",
        [](auto& t, auto af) {
           t.pams->pamDel({"red", af});
        },
        kEth1, unsent, true},
       {"send fails",
        [](auto& t, auto af) { t.pam[DatapathWorld::idx(af)]->nextTxErrno = ENETUNREACH; }, kEth1,
        unsent, true},
       {"the kernel's stand-in source (no address to send from)", [](auto&, auto) {}, kEth1,
        kernels},
   };
   for (auto af : {v4, v6}) {
      for (auto& c : cases) {
         SCOPED_TRACE(fmt::format("{} {}", af, c.what));
         DatapathWorld t;
         c.setup(t, af);
         uint8_t type = af == v4 ? kIcmpTimeExceeded : kIcmp6TimeExceeded;
         auto r = record(af, type, 0, 200, c.ifindex);
         if (c.form == kernels) {
            IpGenAddr stub = ip(af == v4 ? "192.0.0.8" : "::");
            std::memcpy(&r.src_addr, stub.bytes().data(), stub.bytes().size());
         }
         t.proc[idx(af)]->processPacketInfo(r);

         EXPECT_EQ(t.afCounter(af, AfCounterId::nsValidationFailed), c.form == none ? 1u : 0u);
         EXPECT_EQ(t.afCounter(af, AfCounterId::pktInfoProcessed), c.form == none ? 0u : 1u);
         EXPECT_EQ(t.vrfCounter(af, VrfCounterId::replyAttempted),
                   c.form >= unsent && c.form != kernels);
         EXPECT_EQ(t.vrfCounter(af, VrfCounterId::leftToKernel), uint64_t(c.form == kernels));
         EXPECT_EQ(t.vrfCounter(af, VrfCounterId::extendedErrorSent), uint64_t(c.form == extended));
         EXPECT_EQ(t.vrfCounter(af, VrfCounterId::rfc792ErrorSent), uint64_t(c.form == plain));
         EXPECT_EQ(t.lost, c.lost ? std::vector<VrfName>{"red"} : std::vector<VrfName>{});
         EXPECT_TRUE(t.stats->pendingSync());
         if (c.form < plain) {
            EXPECT_TRUE(t.pam[idx(af)]->tx.empty());
            continue;
         }
         auto m = t.reply(af);
         EXPECT_EQ(m.type, type);
         EXPECT_EQ(m.hasExtensions, c.form == extended);
         EXPECT_EQ(m.quote.size(), c.form == extended ? 128u : 200u);
         EXPECT_EQ(t.pam[idx(af)]->tx[0].dst, ip(af == v4 ? "198.51.100.7" : "2001:db8:1::7"));
         if (c.form == extended) {
            ASSERT_EQ(m.intfs.size(), 1u);
            IcmpIntfInfoObject want{IcmpIntfRole::incoming, kEth1,
                                    ip(af == v4 ? "192.0.2.1" : "2001:db8::9"), "red/eth1", 1500};
            EXPECT_EQ(m.intfs[0], want);
         }
      }
   }
}

// Where the node identification object's address comes from.
TEST_F(ErrorDatapathTest, NodeIdAddressPreference) {
   struct Case {
      const char* what;
      NodeIdVrfConfig node;
      AddressFamily af;
      const char* want;
   };
   auto eth1 = IntfId::forDevice("red", "eth1");
   auto lo = IntfId::forDevice("red", "lo9");  // IPv6 link-local only
   const Case cases[] = {
       {"nothing configured", {}, v4, "0.0.0.0"},
       {"own family", {ip("10.9.9.9"), ip("2001:db8:9::9"), {}}, v4, "10.9.9.9"},
       {"own family v6", {ip("10.9.9.9"), ip("2001:db8:9::9"), {}}, v6, "2001:db8:9::9"},
       {"other family when own is zero",
        {ip("0.0.0.0"), ip("2001:db8:9::9"), {}},
        v4,
        "2001:db8:9::9"},
       {"other family when own is unset", {{}, ip("2001:db8:9::9"), {}}, v4, "2001:db8:9::9"},
       {"address beats interface", {ip("10.9.9.9"), {}, eth1}, v6, "10.9.9.9"},
       {"interface, own family", {{}, {}, eth1}, v6, "2001:db8::9"},
       {"interface, link-local skipped for the other family", {{}, {}, lo}, v6, "10.1.1.1"},
       {"interface without usable address", {{}, {}, IntfId::forDevice("red", "none")}, v6, "::"},
   };
   ipAddr(lo, "10.1.1.1");
   ip6Addrs(lo, {"fe80::9"});
   for (auto& c : cases) {
      SCOPED_TRACE(c.what);
      config->vrfConfig.get("red")->nodeIdConfig.set(c.node);
      EXPECT_EQ(proc[idx(c.af)]->hostIdentifierAddress("red"), ip(c.want));
   }

   // End to end: the node object carries the chosen address and the host name.
   config->nodeIdCodePoint.set(200);
   config->vrfConfig.get("red")->nodeIdConfig.set({ip("10.9.9.9"), {}, {}});
   proc[0]->processPacketInfo(record(v4, kIcmpDestUnreach, 3, 60));
   auto m = reply(v4, 200);
   ASSERT_TRUE(m.node);
   EXPECT_EQ(*m.node, (IcmpNodeIdObject{200, ip("10.9.9.9"), "r1"}));

   // Without an address the object carries the host name alone (C-Type 0x02).
   pam[0]->tx.clear();
   config->vrfConfig.get("red")->nodeIdConfig.set({});
   proc[0]->processPacketInfo(record(v4, kIcmpDestUnreach, 3, 60));
   m = reply(v4, 200);
   ASSERT_TRUE(m.node);
   EXPECT_EQ(*m.node, (IcmpNodeIdObject{200, {}, "r1"}));
   EXPECT_EQ(pam[0]->tx[0].bytes[8 + 128 + 4 + 32 + 3], 0x02);
}

TEST_F(ErrorDatapathTest, InterfaceLookup) {
   addIntf("red", 8, "eth2", 9000);  // no IPv4 address, only link-local IPv6
   ip6Addrs(IntfId::forDevice("red", "eth2"), {"fe80::1", "fe80::2"});
   addIntf("red", 9, "eth3", 1500);
   ip6Addrs(IntfId::forDevice("red", "eth3"), {"fd88:1::1", "fe80::3"});
   addIntf("default", 3, "eth0", 1500);
   ipAddr(IntfId("eth0"), "198.18.0.1");
   struct Case {
      const char* what;
      AddressFamily af;
      uint32_t index;
      VrfName vrf;
      bool valid;
      const char* addr;
      const char* intfId;
   };
   const Case cases[] = {
       {"highest global unicast", v6, kEth1, "red", true, "2001:db8::9", "red/eth1"},
       {"highest link-local without global", v6, 8, "red", true, "fe80::2", "red/eth2"},
       {"a unique local address before link-local", v6, 9, "red", true, "fd88:1::1", "red/eth3"},
       {"IPv4 primary", v4, kEth1, "red", true, "192.0.2.1", "red/eth1"},
       {"IPv4 without address", v4, 8, "red", true, "0.0.0.0", "red/eth2"},
       {"default VRF uses the default namespace", v4, 3, "default", true, "198.18.0.1", "eth0"},
       {"index of another namespace", v4, 3, "red", false, "0.0.0.0", ""},
       {"unknown index", v6, 99, "red", false, "::", ""},
       {"VRF without namespace table", v4, kEth1, "blue", false, "0.0.0.0", ""},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.what);
      auto info = helper->icmpIntfInfo(c.af, c.index, c.vrf);
      EXPECT_EQ(info.isValid, c.valid);
      EXPECT_EQ(info.kernelIfIndex, c.index);
      EXPECT_EQ(info.intfAddr, ip(c.addr));
      EXPECT_EQ(info.intfId.str(), c.intfId);
      EXPECT_EQ(info.nosIfIndex, c.valid ? c.index : 0u);
   }
   auto info = helper->icmpIntfInfo(v4, 8, "red");
   EXPECT_EQ(info.intfMtu, 9000u);
   EXPECT_EQ(info.kernelDeviceName, "eth2");

   // The table follows the VRF's entry; the default VRF's never goes.
   helper->handleIntfVrfConfig("default");
   EXPECT_TRUE(helper->deviceIntfStatusDirHas("default"));
   ebpfConfig->entryDel("red");
   EXPECT_FALSE(helper->deviceIntfStatusDirHas("ns-red"));
   EXPECT_FALSE(helper->icmpIntfInfo(v4, kEth1, "red").isValid);
   ebpfConfig->entryIs("red", kRedInode);
   EXPECT_TRUE(helper->icmpIntfInfo(v4, kEth1, "red").isValid);
}

// The reply handler's bytes for the two families, against the layout RFC 4884 and RFC 5837 fix.
TEST_F(ErrorDatapathTest, ReplyHandlerBuildsTheMessage) {
   struct Case {
      const char* what;
      AddressFamily af;
      uint8_t type, code;
      uint16_t mtu;  // IPv4 next-hop MTU in the kernel's header
      size_t datalen;
      bool ext;
      std::vector<std::pair<size_t, uint8_t>> bytes;  // offset, value
      size_t length;
      Disclosure disclosure = {};
      bool forwarded = false;  // the route led out of eth1, through 192.0.2.254
   };
   // Interface object: 4 + ifIndex 4 + IPv4 address 8 + name "red/eth1" 12 + MTU 4 = 32.
   const Case cases[] = {
       {"port unreachable",
        v4,
        3,
        3,
        0,
        60,
        true,
        {{0, 3},
         {1, 3},
         {5, 32},
         {8 + 60, 0},
         {8 + 127, 0},
         {136, 0x20},
         {137, 0},
         {140, 0},
         {141, 32},
         {142, 2},
         {143, 0x0f}},
        8 + 128 + 4 + 32},
       {"host unreachable: the incoming interface by default",
        v4,
        3,
        1,
        0,
        60,
        true,
        {{143, 0x0f}},
        172},
       {"fragmentation needed", v4, 3, 4, 1400, 60, false, {{4, 0}, {5, 0}, {6, 5}, {7, 0x78}}, 68},
       {"fragmentation needed, extended",
        v4,
        3,
        4,
        1400,
        60,
        true,
        {{4, 0}, {5, 0x20}, {6, 5}, {7, 0x78}},
        172},
       {"plain quote capped: the datagram fits 576 bytes",
        v4,
        11,
        0,
        0,
        1024,
        false,
        {{5, 0}},
        556},
       {"plain quote shorter than 128", v4, 11, 0, 0, 40, false, {}, 48},
       {"ICMPv6 time exceeded",
        v6,
        3,
        0,
        0,
        300,
        true,
        {{0, 3}, {1, 0}, {2, 0}, {3, 0}, {4, 16}, {5, 0}, {136, 0x20}, {143, 0x0f}},
        // IPv6 address sub-object: 4 + 16.
        8 + 128 + 4 + 4 + 4 + 20 + 12 + 4},
       {"ICMPv6 address unreachable", v6, 1, 3, 0, 300, true, {{143, 0x0f}}, 184},
       {"ICMPv6 plain carries all 1024", v6, 1, 0, 0, 1024, false, {{4, 0}}, 8 + 1024},
       {"only the name disclosed: its sub-object alone, C-Type says so",
        v4,
        11,
        0,
        0,
        60,
        true,
        {{141, 16}, {143, 0x02}},
        8 + 128 + 4 + 16,
        {{false, false, true, false}, {}, {}}},
       {"nothing to disclose: a plain error", v4, 11, 0, 0, 60, true, {{5, 0}}, 68, {{}, {}, {}}},
       // Incoming 32 bytes, outgoing 32, next hop 4 + address 8.
       {"forwarded, every role disclosed: incoming, outgoing, next hop",
        v4,
        11,
        0,
        0,
        60,
        true,
        {{143, 0x0f}, {175, 0x8f}, {207, 0xc4}, {212, 192}, {215, 254}},
        8 + 128 + 4 + 32 + 32 + 12,
        {IntfDisclosure::all(), IntfDisclosure::all(), {false, true, false, false}},
        true},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.what);
      auto r = record(c.af, c.type, c.code, c.datalen);
      r.hdr.icmp4.rest[2] = static_cast<uint8_t>(c.mtu >> 8);
      r.hdr.icmp4.rest[3] = static_cast<uint8_t>(c.mtu);
      auto& h = *proc[idx(c.af)]->replyHandler();
      if (c.forwarded) {
         r.oif = kEth1;
         r.gateway.ip4 = htonl(0xc00002fe);
      }
      auto md = proc[idx(c.af)]->fetchMetadata(r, "red");
      md.disclosure = c.disclosure;
      h.setPacketContext(r, md, c.af);
      EXPECT_EQ(h.createIcmpErrPacket(c.ext), c.ext && c.disclosure.incoming.any());
      ASSERT_TRUE(h.pkt());
      auto b = h.pkt()->bytes();
      ASSERT_EQ(b.size(), c.length);
      for (auto [off, val] : c.bytes)
         EXPECT_EQ(b[off], val) << "offset " << off;
      EXPECT_TRUE(
          std::equal(b.begin() + 8, b.begin() + 8 + std::min<size_t>(c.datalen, 128), r.data));
      // IPv4 checksums are verified by the parser; ICMPv6 ones are left to the socket.
      auto parsed = parseIcmpError(b, {c.af, 0, {}, {}});
      EXPECT_TRUE(parsed) << toString(parsed.error);
      if (parsed) {
         EXPECT_EQ(parsed.msg->hasExtensions, c.ext && c.disclosure.incoming.any());
      }
      h.pktDel();
   }
}

TEST_F(ErrorDatapathTest, LongAndQualifiedNamesFollowRfc5837) {
   const std::string longVrf(70, 'v');
   auto e = ebpfConfig->entryIs(longVrf, 77);
   ebpfConfig->entryByInodeIs(77, e);
   vrfStatus[0]->enabledInodeIs(77);
   addIntf(longVrf, 5, "eth5", 1500);
   pams->pamIs({longVrf, v4}, pam[0]);
   struct Case {
      bool addHostName;
      VrfName vrf;
      NsInode inode;
      std::string name;
   };
   const Case cases[] = {
       {false, "red", kRedInode, "red/eth1"},
       {true, "red", kRedInode, "red/eth1@r1"},
       {false, longVrf, 77, (longVrf + "/eth5").substr(0, 63)},
       {true, longVrf, 77, (longVrf + "/eth5@r1").substr(0, 63)},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.name);
      pam[0]->tx.clear();
      config->addHostName.set(c.addHostName);
      proc[0]->processPacketInfo(
          record(v4, kIcmpTimeExceeded, 0, 60, c.vrf == "red" ? kEth1 : 5, c.inode));
      auto m = reply(v4);
      ASSERT_EQ(m.intfs.size(), 1u);
      EXPECT_EQ(m.intfs[0].name, c.name);
   }
}

TEST_F(ErrorDatapathTest, SendSetsMarkAndAddressesAndCountsFailures) {
   for (auto af : {v4, v6}) {
      SCOPED_TRACE(toString(af));
      auto& p = *pam[idx(af)];
      uint8_t type = af == v4 ? kIcmpDestUnreach : kIcmp6DestUnreach;
      proc[idx(af)]->processPacketInfo(record(af, type, 0, 100));
      ASSERT_EQ(p.tx.size(), 1u);
      EXPECT_EQ(p.tx[0].mark, 42u);
      EXPECT_EQ(p.tx[0].ttl, 64);
      EXPECT_EQ(p.tx[0].src, ip(af == v4 ? "192.0.2.1" : "2001:db8::9"));
      EXPECT_EQ(p.tx[0].dst, ip(af == v4 ? "198.51.100.7" : "2001:db8:1::7"));
      EXPECT_EQ(p.tx[0].ifIndex, 0u);

      p.nextTxErrno = ENETUNREACH;
      proc[idx(af)]->processPacketInfo(record(af, type, 0, 100));
      EXPECT_EQ(p.tx.size(), 1u);
      EXPECT_EQ(vrfCounter(af, VrfCounterId::replySendFailed), 1u);
      EXPECT_EQ(vrfCounter(af, VrfCounterId::extendedErrorSent), 1u);
      EXPECT_EQ(vrfCounter(af, VrfCounterId::replyAttempted), 2u);

      pams->pamIs({"red", af}, nullptr);
      proc[idx(af)]->processPacketInfo(record(af, type, 0, 100));
      EXPECT_EQ(vrfCounter(af, VrfCounterId::pamNotFound), 1u);
      EXPECT_EQ(vrfCounter(af, VrfCounterId::replyAttempted), 3u);
      EXPECT_EQ(afCounter(af, AfCounterId::pktInfoProcessed), 3u);
   }
}

TEST_F(ErrorDatapathTest, LinkLocalDestinationLeavesThroughTheArrivalInterface) {
   auto r = record(v6, kIcmp6TimeExceeded, 0, 100);
   IpGenAddr dst = ip("fe80::42");
   std::memcpy(r.dst_addr.ip6, dst.bytes().data(), 16);
   proc[1]->processPacketInfo(r);
   ASSERT_EQ(pam[1]->tx.size(), 1u);
   EXPECT_EQ(pam[1]->tx[0].ifIndex, kEth1);
}

// The loader hands records over through its view; the processor reads the same bytes.
TEST_F(ErrorDatapathTest, RecordViewOfTheLoader) {
   struct View : EBPFIcmpPacketInfoBase {
      packet_info r;
      uint32_t ifIndex() const override { return r.ifindex; }
      const void* data() const override { return &r; }
   };
   auto v = make<View>();
   v->r = record(v4, kIcmpDestUnreach, 1, 60);
   proc[0]->processPacketInfo(*v);
   auto m = reply(v4);
   ASSERT_EQ(m.intfs.size(), 1u);
   EXPECT_EQ(m.intfs[0].ifIndex, kEth1);
}

}  // namespace
}  // namespace Ravel::ErrorResponder
