#include <gtest/gtest.h>

#include <string>

#include "platform/core/Trace.h"
#include "platform/store/IntfTables.h"
#include "platform/values/Values.h"

namespace Ravel {
namespace {

TEST(IntfId, ParsesNormalisesAndRejects) {
   struct Case {
      std::string in;
      std::string out;  // empty: rejected
   };
   const Case cases[] = {
       {"eth0", "eth0"},
       {std::string("eth0\0\0\0", 7), "eth0"},  // RFC 8335 NUL padding
       {"default/eth0", "eth0"},                // the default VRF is unqualified
       {"red/eth1", "red/eth1"},
       {"abcdefghijklmno", "abcdefghijklmno"},  // 15 bytes: the Linux limit
       {"abcdefghijklmnop", ""},
       {"", ""},
       {"eth 0", ""},
       {"eth0:1", ""},
       {"..", ""},
       {"red/", ""},
       {"/eth0", ""},
       {"red/blue/eth0", ""},
       {std::string(101, 'v') + "/eth0", ""},
   };
   for (auto& c : cases) {
      if (c.out.empty()) {
         EXPECT_THROW(IntfId{c.in}, std::invalid_argument) << c.in;
      } else {
         EXPECT_EQ(IntfId(c.in).str(), c.out) << c.in;
      }
   }
   EXPECT_EQ(IntfId::forDevice(VrfName("red"), "lo"), IntfId("red/lo"));
   EXPECT_EQ(IntfId("red/lo").deviceName(), "lo");
   EXPECT_THROW(VrfName(std::string(101, 'v')), std::out_of_range);
   EXPECT_NO_THROW(VrfName(std::string(100, 'v')));
}

TEST(Trace, SelectionFromTheEnvironmentSyntax) {
   auto& a = TraceCategory::get("TraceTestA");
   auto& b = TraceCategory::get("TraceTestB");
   TraceCategory::configure("*/0-1,TraceTestA/3;5-6");
   EXPECT_TRUE(b.textEnabled(1));
   EXPECT_FALSE(b.textEnabled(2));
   EXPECT_FALSE(a.textEnabled(1));  // the later, more specific entry wins
   EXPECT_TRUE(a.textEnabled(3) && a.textEnabled(5) && a.textEnabled(6));
   EXPECT_FALSE(a.textEnabled(4));
   TraceCategory::configure("TraceTestB");  // a bare name: every level
   EXPECT_TRUE(b.textEnabled(8));
   TraceCategory::configureFromEnv();
}

struct AddrTableTest : ::testing::Test {
   Scheduler sched{std::make_shared<SimulatedClock>()};
   Ptr<IpStatus> ip = make<IpStatus>();
   Ptr<Ip6Status> ip6 = make<Ip6Status>();
   Ptr<IntfAddrVrfTable> table = make<IntfAddrVrfTable>();
   Ptr<IntfAddrVrfTableSm> sm;

   void v4(const std::string& intf, const std::string& vrf, std::set<std::string> addrs) {
      IntfId id(intf);
      auto s = ip->ipIntfStatus.get(id);
      bool fresh = !s;
      if (fresh)
         s = make<IpIntfStatus>(id);
      s->vrf.set(VrfName(vrf));
      std::set<IpPrefixAddr> rest;
      bool first = true;
      for (auto& a : addrs) {
         if (first) {
            s->primaryAddr.set({*IpGenAddr::parse(a), 24});
         } else {
            rest.insert({*IpGenAddr::parse(a), 24});
         }
         first = false;
      }
      s->secondaryAddrs.set(rest);
      if (fresh)
         ip->ipIntfStatus.is(id, s);
   }
   std::string owner(const std::string& addr) {
      auto* e = table->entry.find({*IpGenAddr::parse(addr), IntfId()});
      return e ? e->intfId.str() : "";
   }
};

TEST_F(AddrTableTest, FollowsAddressesOfItsVrfOnly) {
   v4("eth0", "default", {"192.0.2.1", "192.0.2.9"});
   IntfAddrVrfTableSmConfig cfg;
   cfg.ipv6Enabled = true;
   sm = make<IntfAddrVrfTableSm>(VrfName::defaultVrf(), "", sched, ip, ip6, nullptr, nullptr,
                                 nullptr, table, cfg);
   EXPECT_EQ(owner("192.0.2.1"), "eth0");
   EXPECT_EQ(owner("192.0.2.9"), "eth0");
   v4("red/eth1", "red", {"10.0.0.1"});
   EXPECT_EQ(owner("10.0.0.1"), "");  // another VRF's address
   // An address moving to another interface: the old owner's removal must not erase it.
   v4("eth2", "default", {"192.0.2.9"});
   v4("eth0", "default", {"192.0.2.1"});
   EXPECT_EQ(owner("192.0.2.9"), "eth2");
   auto s6 = make<Ip6IntfStatus>(IntfId("eth0"));
   s6->vrf.set(VrfName::defaultVrf());
   s6->addrs.set({{*IpGenAddr::parse("2001:db8::1"), 64}});
   ip6->ip6IntfStatus.is(IntfId("eth0"), s6);
   EXPECT_EQ(owner("2001:db8::1"), "eth0");
   ip->ipIntfStatus.del(IntfId("eth0"));
   EXPECT_EQ(owner("192.0.2.1"), "");
   EXPECT_EQ(owner("2001:db8::1"), "eth0");
   s6->addrs.set({});
   EXPECT_EQ(owner("2001:db8::1"), "");
}

}  // namespace
}  // namespace Ravel
