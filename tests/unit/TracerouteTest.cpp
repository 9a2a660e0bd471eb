#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/common/CtlCommands.h"
#include "host/common/ProbeClient.h"
#include "host/common/Traceroute.h"
#include "tests/unit/TestBytes.h"

namespace Ravel::host {
namespace {

using test::Bytes;
using test::hex;
using test::ip;

constexpr AddressFamily v4 = AddressFamily::ipv4, v6 = AddressFamily::ipv6;
constexpr TraceProto udp = TraceProto::udp, icmp = TraceProto::icmp;

// Quoted probes, IP header then the first 8 bytes of the transport: UDP 40000 -> 33438 (probe
// 4), or an echo request with identifier 0x1234, sequence 7; to 198.51.100.2 / 2001:db8:2::2.
#define IP4_UDP "4500003c000100000111cd79c0000201c6336402"
#define IP4_ICMP "45000054000100000101cd79c0000201c6336402"
#define IP6_UDP "600000000028110120010db800010000000000000000000120010db8000200000000000000000002"
#define IP6_ICMP "6000000000283a0120010db800010000000000000000000120010db8000200000000000000000002"
#define UDP_4 "9c40829e00280000"
#define ECHO_7 "0800000012340007"
#define ECHO6_7 "8000000012340007"

struct MatchCase {
   const char* what;
   AddressFamily af;
   TraceProto proto;
   uint16_t ident;
   const char* message;
   std::optional<uint16_t> probe;  // nullopt: no match
   bool fromDestination;
};

TEST(TracerouteTest, MatchesRepliesToProbesByTheirQuote) {
   const MatchCase cases[] = {
       {"v4 time exceeded", v4, udp, 40000, "0b00000000000000" IP4_UDP UDP_4, 4, false},
       {"v4 port unreachable", v4, udp, 40000, "0303000000000000" IP4_UDP UDP_4, 4, true},
       {"v4 host unreachable", v4, udp, 40000, "0301000000000000" IP4_UDP UDP_4, 4, false},
       {"v4 parameter problem", v4, udp, 40000, "0c00000000000000" IP4_UDP UDP_4, 4, false},
       {"v4 header with options", v4, udp, 40000,
        "0b00000000000000"
        "46000040000100000111cd79c0000201c633640201010101" UDP_4,
        4, false},
       {"v4 first probe", v4, udp, 40000, "0b00000000000000" IP4_UDP "9c40829a00280000", 0, false},
       {"v4 port below 33434", v4, udp, 40000, "0b00000000000000" IP4_UDP "9c40829900280000",
        std::nullopt, false},
       {"v4 other source port", v4, udp, 40001, "0b00000000000000" IP4_UDP UDP_4, std::nullopt,
        false},
       {"v4 other destination", v4, udp, 40000,
        "0b00000000000000"
        "4500003c000100000111cd79c0000201c6336403" UDP_4,
        std::nullopt, false},
       {"v4 quote cut in the UDP header", v4, udp, 40000, "0b00000000000000" IP4_UDP "9c40829e",
        std::nullopt, false},
       {"v4 quote of a v6 packet", v4, udp, 40000, "0b00000000000000" IP6_UDP UDP_4, std::nullopt,
        false},
       {"v4 UDP quote in an ICMP run", v4, icmp, 40000, "0b00000000000000" IP4_UDP UDP_4,
        std::nullopt, false},
       {"v4 echo reply", v4, icmp, 0x1234, "0000000012340007", 7, true},
       {"v4 echo reply of another run", v4, icmp, 0x1235, "0000000012340007", std::nullopt, false},
       {"v4 echo reply in a UDP run", v4, udp, 0x1234, "0000000012340007", std::nullopt, false},
       {"v4 echo request", v4, icmp, 0x1234, "0800000012340007", std::nullopt, false},
       {"v4 time exceeded quoting an echo", v4, icmp, 0x1234, "0b00000000000000" IP4_ICMP ECHO_7, 7,
        false},
       {"v4 quoted echo of another run", v4, icmp, 0x1235, "0b00000000000000" IP4_ICMP ECHO_7,
        std::nullopt, false},
       {"v4 quoted echo reply", v4, icmp, 0x1234, "0b00000000000000" IP4_ICMP "0000000012340007",
        std::nullopt, false},
       {"v6 hop limit exceeded", v6, udp, 40000, "0300000000000000" IP6_UDP UDP_4, 4, false},
       {"v6 port unreachable", v6, udp, 40000, "0104000000000000" IP6_UDP UDP_4, 4, true},
       {"v6 administratively prohibited", v6, udp, 40000, "0101000000000000" IP6_UDP UDP_4, 4,
        false},
       {"v6 packet too big", v6, udp, 40000, "02000000000005dc" IP6_UDP UDP_4, 4, false},
       {"v6 IPv4 time exceeded type", v6, udp, 40000, "0b00000000000000" IP6_UDP UDP_4,
        std::nullopt, false},
       {"v6 echo reply", v6, icmp, 0x1234, "8100000012340007", 7, true},
       {"v6 time exceeded quoting an echo", v6, icmp, 0x1234, "0300000000000000" IP6_ICMP ECHO6_7,
        7, false},
       {"v6 quote cut in the IPv6 header", v6, udp, 40000,
        "0300000000000000"
        "600000000028110120010db8000100000000000000000001",
        std::nullopt, false},
       {"short message", v4, icmp, 0x1234, "00000000123400", std::nullopt, false},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      TraceSession s{c.af, c.proto, c.af == v6 ? ip("2001:db8:2::2") : ip("198.51.100.2"), c.ident};
      auto m = matchTraceReply(s, hex(c.message));
      ASSERT_EQ(m.has_value(), c.probe.has_value());
      if (!m)
         continue;
      EXPECT_EQ(m->probe, *c.probe);
      EXPECT_EQ(m->fromDestination, c.fromDestination);
      EXPECT_EQ(m->type, hex(c.message)[0]);
   }
}

TEST(TracerouteTest, EchoRequestsCarryTheirIdentifierAndSequence) {
   EXPECT_EQ(buildTraceEcho(v4, 0x1234, 0x0102, 4), hex("080062451234010240414243"));
   // The kernel fills the ICMPv6 checksum.
   EXPECT_EQ(buildTraceEcho(v6, 0x1234, 7, 0), hex("8000000012340007"));
}

// Golden replies from tests/unit/traceroute_vectors.py (scapy), each quoting UDP probe 0
// (40000 -> 33434) to 198.51.100.2 / 2001:db8:2::2: the ICMP header, the probe (padded with
// zeros to 128 bytes when extensions follow) and the extension structure.
const char* kProbe4 =
    "4500003c000100000111cd79c0000201c63364029c40829a0028f48b000000000000000000000000000000000000"
    "0000000000000000000000000000";
const char* kProbe6 =
    "600000000028110120010db800010000000000000000000120010db80002000000000000000000029c40829a0028"
    "854b0000000000000000000000000000000000000000000000000000000000000000";

Bytes golden(AddressFamily af, const char* head, const char* extn) {
   Bytes m = hex(head), probe = hex(af == v6 ? kProbe6 : kProbe4), tail = hex(extn);
   m.insert(m.end(), probe.begin(), probe.end());
   if (!tail.empty()) {
      m.resize(8 + 128);
      m.insert(m.end(), tail.begin(), tail.end());
   }
   return m;
}

struct RenderCase {
   const char* what;
   AddressFamily af;
   const char* head;
   const char* extn;
   const char* from;
   const char* local;
   uint8_t nodeIdClass;
   std::string text;  // the hop's lines, TTL 1, one reply after 0.5 ms
   std::string json;  // the reply's "extensions"; empty: not checked
};

const std::string kLongName = "ge-0/0/0.4094-" + std::string(49, 'n');

const std::vector<RenderCase>& renderCases() {
   static const std::vector<RenderCase> cases = {
       {"no extensions", v4, "0b00e17000000000", "", "10.0.1.1", "192.0.2.1", 200,
        " 1  10.0.1.1  0.500 ms  time exceeded in transit\n", ""},
       {"v6 packet too big: not an error RFC 4884 extends", v6, "02000000000005dc", "",
        "2001:db8:1::2", "2001:db8:1::1", 200, " 1  2001:db8:1::2  0.500 ms  packet too big\n", ""},
       {"incoming interface and node", v4, "0b00e15000200000",
        "20003688001c020f00000005000100000a0001010865746831000000000005dc0014c80600010000c0000201"
        "08726f7574657231",
        "10.0.1.1", "192.0.2.1", 200,
        " 1  10.0.1.1  0.500 ms  time exceeded in transit\n"
        "       incoming interface: name eth1, ifIndex 5, address 10.0.1.1, MTU 1500\n"
        "       node: host router1, address 192.0.2.1\n",
        R"({"interfaces": [{"role": "incoming", "ifIndex": 5, "address": "10.0.1.1",
                            "name": "eth1", "mtu": 1500}],
            "node": {"address": "192.0.2.1", "hostName": "router1"}})"},
       {"node class not asked for", v4, "0b00e15000200000",
        "20003688001c020f00000005000100000a0001010865746831000000000005dc0014c80600010000c0000201"
        "08726f7574657231",
        "10.0.1.1", "192.0.2.1", 0,
        " 1  10.0.1.1  0.500 ms  time exceeded in transit\n"
        "       incoming interface: name eth1, ifIndex 5, address 10.0.1.1, MTU 1500\n"
        "       object class 200, c-type 6, 16 bytes: 00010000 c0000201 08726f75 74657231\n",
        R"({"interfaces": [{"role": "incoming", "ifIndex": 5, "address": "10.0.1.1",
                            "name": "eth1", "mtu": 1500}],
            "other": [{"classNum": 200, "cType": 6, "hex": "00010000c000020108726f7574657231"}]})"},
       {"63-byte name, v6", v6, "03001f5610000000",
        "200052e70060020f0000004d0002000020010db80001000000000000000000024067652d302f302f302e3430"
        "39342d6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e"
        "6e6e6e6e6e6e6e6e00000500001cc8060002000020010db800ff0000000000000000000104723100",
        "2001:db8:1::2", "2001:db8:1::1", 200,
        " 1  2001:db8:1::2  0.500 ms  hop limit exceeded in transit\n"
        "       incoming interface: name " +
            kLongName +
            ", ifIndex 77, address 2001:db8:1::2, MTU 1280\n"
            "       node: host r1, address 2001:db8:ff::1\n",
        R"({"interfaces": [{"role": "incoming", "ifIndex": 77, "address": "2001:db8:1::2",
                            "name": ")" +
            kLongName + R"(", "mtu": 1280}],
            "node": {"address": "2001:db8:ff::1", "hostName": "r1"}})"},
       {"v6 checksum over other addresses", v6, "03001f5610000000",
        "200052e70060020f0000004d0002000020010db80001000000000000000000024067652d302f302f302e3430"
        "39342d6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e6e"
        "6e6e6e6e6e6e6e6e00000500001cc8060002000020010db800ff0000000000000000000104723100",
        "2001:db8:1::2", "2001:db8:1::9", 200,
        " 1  2001:db8:1::2  0.500 ms  hop limit exceeded in transit\n"
        "       extensions could not be read: bad ICMP checksum\n",
        R"({"error": "bad ICMP checksum"})"},
       {"unknown object", v4, "0303e94d00200000", "2000ecf5000801010001f1ff", "198.51.100.2",
        "192.0.2.1", 200,
        " 1  198.51.100.2  0.500 ms  port unreachable\n"
        "       object class 1, c-type 1, 4 bytes: 0001f1ff\n",
        R"({"other": [{"classNum": 1, "cType": 1, "hex": "0001f1ff"}]})"},
       {"malformed extension", v4, "0b00e24f00200000",
        "20001e25001c020f00000005000100000a0001010865746831000000000005dc", "10.0.1.1", "192.0.2.1",
        200,
        " 1  10.0.1.1  0.500 ms  time exceeded in transit\n"
        "       extensions could not be read: bad extension checksum\n",
        R"({"error": "bad extension checksum"})"},
       {"names with escapes and bytes beyond ASCII", v4, "0b00e15000200000",
        "20009412001c020f00000006000100000a00020108651b5b306d5c00000000000010c806000100"
        "00c00002010472ff00",
        "10.0.2.1", "192.0.2.1", 200,
        " 1  10.0.2.1  0.500 ms  time exceeded in transit\n"
        "       incoming interface: name e\\x1b[0m\\x5c, ifIndex 6, address 10.0.2.1\n"
        "       node: host r\\xff, address 192.0.2.1\n",
        R"({"interfaces": [{"role": "incoming", "ifIndex": 6, "address": "10.0.2.1",
                            "name": "e\\x1b[0m\\x5c"}],
            "node": {"address": "192.0.2.1", "hostName": "r\\xff"}})"},
   };
   return cases;
}

TraceReply decodeGolden(const RenderCase& c, double rttMs = 0.5) {
   Bytes msg = golden(c.af, c.head, c.extn);
   TraceSession s{c.af, udp, c.af == v6 ? ip("2001:db8:2::2") : ip("198.51.100.2"), 40000};
   auto m = matchTraceReply(s, msg);
   EXPECT_TRUE(m.has_value());
   if (!m)
      return {};
   EXPECT_EQ(m->probe, 0);
   return decodeTraceReply(*m, msg, ip(c.from), ip(c.local), rttMs, c.nodeIdClass);
}

TEST(TracerouteTest, RendersDecodedRepliesAsTextAndJson) {
   for (const auto& c : renderCases()) {
      SCOPED_TRACE(c.what);
      TraceHop hop{1, {decodeGolden(c)}};
      EXPECT_EQ(renderTraceHopText(hop), c.text);
      auto j = traceHopJson(hop);
      ASSERT_EQ(j["replies"].size(), 1u);
      const auto& r = j["replies"][0];
      EXPECT_EQ(r["address"], c.from);
      EXPECT_EQ(r["rttMs"], 0.5);
      EXPECT_EQ(r["type"], hex(c.head)[0]);
      EXPECT_EQ(r["code"], hex(c.head)[1]);
      if (!c.json.empty()) {
         EXPECT_EQ(r["extensions"], nlohmann::json::parse(c.json));
      } else if (std::string(c.extn).empty()) {
         EXPECT_FALSE(r.contains("extensions"));
      }
   }
}

TEST(TracerouteTest, GroupsProbesAnsweredAlikeAndMarksLostOnes) {
   auto named = [](std::string_view what) {
      for (const auto& c : renderCases()) {
         if (c.what == what)
            return c;
      }
      throw std::logic_error("no case " + std::string(what));
   };
   TraceReply withExtn = decodeGolden(named("incoming interface and node"), 0.5);
   TraceReply again = decodeGolden(named("incoming interface and node"), 0.25);
   TraceReply other = decodeGolden(named("no extensions"), 1.0);
   other.from = ip("10.0.9.9");
   TraceReply echo;
   echo.from = ip("198.51.100.2");
   echo.rttMs = 2;

   TraceHop hop{3, {std::nullopt, withExtn, again, other, std::nullopt, echo}};
   EXPECT_EQ(renderTraceHopText(hop),
             " 3  *  10.0.1.1  0.500 ms  0.250 ms  time exceeded in transit\n"
             "       incoming interface: name eth1, ifIndex 5, address 10.0.1.1, MTU 1500\n"
             "       node: host router1, address 192.0.2.1\n"
             "    10.0.9.9  1.000 ms  *  time exceeded in transit\n"
             "    198.51.100.2  2.000 ms  echo reply\n");
   EXPECT_EQ(renderTraceHopText(TraceHop{4, {std::nullopt, std::nullopt}}), " 4  *  *\n");

   TraceResult result{"router.example", ip("198.51.100.2"), TraceProto::icmp, {hop}, true};
   auto j = traceResultJson(result);
   EXPECT_EQ(j["destination"], "router.example");
   EXPECT_EQ(j["address"], "198.51.100.2");
   EXPECT_EQ(j["family"], "ipv4");
   EXPECT_EQ(j["protocol"], "icmp");
   EXPECT_EQ(j["reached"], true);
   ASSERT_EQ(j["hops"].size(), 1u);
   const auto& h = j["hops"][0];
   EXPECT_EQ(h["ttl"], 3);
   EXPECT_EQ(h["probes"], 6);
   ASSERT_EQ(h["replies"].size(), 4u);
   EXPECT_EQ(h["replies"][1]["rttMs"], 0.25);
   EXPECT_EQ(h["replies"][3]["meaning"], "echo reply");
   EXPECT_FALSE(h["replies"][3].contains("extensions"));
}

}  // namespace
}  // namespace Ravel::host

namespace Ravel::host {
namespace {

// Options are checked before anything is sent: a count of -1 once meant four billion probes.
TEST(RavelctlOptions, BadValuesAreUsageErrors) {
   struct Case {
      std::vector<std::string> args;
      const char* message;
   };
   const Case cases[] = {
       {{"probe", "127.0.0.1", "--ifname", "lo", "--count", "-1"},
        "--count takes a number from 1 to 100000"},
       {{"probe", "127.0.0.1", "--ifname", "lo", "--count", "0"},
        "--count takes a number from 1 to 100000"},
       {{"probe", "127.0.0.1", "--ifindex", "1x"}, "--ifindex takes a number from 0 to 4294967295"},
       {{"probe", "127.0.0.1"}, "probe needs a TARGET and one of --ifname, --ifindex, --ifaddr"},
       {{"traceroute", "127.0.0.1", "--queries", "11"}, "--queries takes a number from 1 to 10"},
       {{"traceroute", "127.0.0.1", "--max-hops", " 5"}, "--max-hops takes a number from 1 to 255"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.message);
      try {
         (c.args[0] == "probe" ? runProbe : runTraceroute)(c.args);
         ADD_FAILURE() << "accepted";
      } catch (const UsageError& e) {
         EXPECT_STREQ(e.what(), c.message);
      }
   }
}

}  // namespace
}  // namespace Ravel::host
