#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/store/Acl.h"

namespace Ravel {
namespace {

constexpr auto v4 = AddressFamily::ipv4;
constexpr auto v6 = AddressFamily::ipv6;
constexpr auto P = AclAction::permit;
constexpr auto D = AclAction::deny;

AclRule rule(AclAction a, const char* src, const char* dst, std::optional<uint8_t> proto,
             AddressFamily af) {
   auto s = IpPrefix::parse(src, af), d = IpPrefix::parse(dst, af);
   EXPECT_TRUE(s && d) << src << " " << dst;
   return {a, s.value_or(IpPrefix{}), d.value_or(IpPrefix{}), proto};
}

std::vector<uint8_t> header(uint8_t proto, const char* src, const char* dst) {
   IpGenAddr s = *IpGenAddr::parse(src), d = *IpGenAddr::parse(dst);
   bool six = s.isV6();
   std::vector<uint8_t> h(six ? 40 : 20, 0);
   h[0] = six ? 0x60 : 0x45;
   h[six ? 6 : 9] = proto;
   std::copy(s.bytes().begin(), s.bytes().end(), h.begin() + (six ? 8 : 12));
   std::copy(d.bytes().begin(), d.bytes().end(), h.begin() + (six ? 24 : 16));
   return h;
}

AclMatch match(const AclList& acl, const std::vector<uint8_t>& h) {
   return acl.af == v6 ? matchesIp6Acl(acl, h) : matchesIpAcl(acl, h);
}

TEST(AclMatching, FirstMatchingRuleDecides) {
   const AclList a{"A",
                   v4,
                   {rule(D, "10.1.0.0/16", "any", 17, v4), rule(P, "10.0.0.0/8", "any", {}, v4),
                    rule(D, "any", "192.0.2.7/32", {}, v4), rule(P, "any", "any", 6, v4)}};
   const AclList b{
       "B",
       v6,
       {rule(P, "2001:db8:1::/48", "any", 58, v6), rule(D, "any", "2001:db8::7/128", {}, v6),
        rule(P, "fd00::/64", "any", {}, v6), rule(D, "::/0", "fe80::/10", 0, v6)}};
   struct Case {
      const AclList& acl;
      std::vector<uint8_t> hdr;
      bool matched;
      AclAction action;
   };
   const Case cases[] = {
       // /16 before /8: the narrower rule wins only because it comes first.
       {a, header(17, "10.1.2.3", "192.0.2.1"), true, D},
       {a, header(6, "10.1.2.3", "192.0.2.1"), true, P},
       {a, header(17, "10.255.255.255", "192.0.2.7"), true, P},
       {a, header(17, "11.0.0.1", "192.0.2.7"), true, D},
       {a, header(17, "11.0.0.1", "192.0.2.6"), false, D},
       {a, header(6, "11.0.0.1", "192.0.2.6"), true, P},
       {a, header(17, "9.255.255.255", "192.0.2.8"), false, D},
       {b, header(58, "2001:db8:1:ffff::1", "2001:db8::7"), true, P},
       {b, header(17, "2001:db8:1::1", "2001:db8::7"), true, D},
       {b, header(58, "2001:db8:2::1", "2001:db8::7"), true, D},
       {b, header(17, "2001:db8:1::1", "2001:db8::6"), false, D},
       {b, header(17, "fd00::ffff:1", "2001:db8::8"), true, P},
       {b, header(17, "fd00:0:0:1::1", "2001:db8::8"), false, D},
       {b, header(0, "fd00:0:0:1::1", "fe80::1"), true, D},
       // Extension headers are not followed: a hop-by-hop header hides ICMPv6.
       {b, header(0, "2001:db8:1::1", "2001:db8::1"), false, D},
   };
   for (size_t i = 0; i < std::size(cases); ++i) {
      SCOPED_TRACE(i);
      AclMatch m = match(cases[i].acl, cases[i].hdr);
      EXPECT_EQ(m.matched, cases[i].matched);
      if (m.matched && cases[i].matched) {
         EXPECT_EQ(m.action, cases[i].action);
      }
   }
   EXPECT_FALSE(match(AclList{"E", v4, {}}, header(1, "10.0.0.1", "10.0.0.2")).matched);
}

TEST(AclMatching, TruncatedOrForeignHeadersNeverMatch) {
   const AclList any4{"A", v4, {rule(P, "any", "any", {}, v4)}};
   const AclList any6{"B", v6, {rule(P, "any", "any", {}, v6)}};
   const std::vector<uint8_t> h4 = header(17, "10.0.0.1", "10.0.0.2");
   const std::vector<uint8_t> h6 = header(17, "2001:db8::1", "2001:db8::2");
   for (auto [acl, h] : {std::pair{&any4, &h4}, std::pair{&any6, &h6}}) {
      EXPECT_TRUE(match(*acl, *h).matched);
      // Exact-size copies, so that a read past the end is caught by the sanitizers.
      for (size_t n = 0; n < h->size(); ++n)
         EXPECT_FALSE(match(*acl, std::vector<uint8_t>(h->begin(), h->begin() + n)).matched) << n;
   }
   // IPv4 options do not move the addresses.
   auto opts = h4;
   opts[0] = 0x46;
   opts.resize(24);
   EXPECT_TRUE(matchesIpAcl(any4, opts).matched);
   // A header of the other version is not read as one of this version.
   auto long4 = h4;
   long4.resize(40);
   EXPECT_FALSE(matchesIp6Acl(any6, long4).matched);
   EXPECT_FALSE(matchesIpAcl(any4, h6).matched);
}

TEST(AclPrefix, ParseAndContain) {
   struct Case {
      const char* text;
      AddressFamily af;
      const char* str;  // nullptr: refused
   };
   const Case cases[] = {
       {"any", v4, "any"},
       {"any", v6, "any"},
       {"10.0.0.0/8", v4, "10.0.0.0/8"},
       {"192.0.2.1", v4, "192.0.2.1/32"},
       {"2001:db8::/32", v6, "2001:db8::/32"},
       {"2001:db8::1", v6, "2001:db8::1/128"},
       {"10.0.0.1/8", v4, nullptr},
       {"10.0.0.0/33", v4, nullptr},
       {"10.0.0.0/", v4, nullptr},
       {"10.0.0.0/8x", v4, nullptr},
       {"2001:db8::/129", v6, nullptr},
       {"2001:db8::/32", v4, nullptr},
       {"10.0.0.0/8", v6, nullptr},
   };
   for (const auto& k : cases) {
      auto p = IpPrefix::parse(k.text, k.af);
      EXPECT_EQ(p ? p->str() : "refused", k.str ? k.str : "refused") << k.text;
   }
   auto p = *IpPrefix::parse("10.128.0.0/9", v4);
   EXPECT_TRUE(p.contains(IpGenAddr::parse("10.255.0.1")->bytes()));
   EXPECT_FALSE(p.contains(IpGenAddr::parse("10.127.255.255")->bytes()));
}

}  // namespace
}  // namespace Ravel
