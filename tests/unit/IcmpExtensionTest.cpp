#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/values/Checksum.h"
#include "platform/values/PacketHeaders.h"
#include "tests/unit/TestBytes.h"
#include "wire/IcmpExtension.h"
#include "wire/ProbePacket.h"

namespace Ravel {
namespace {

using test::Bytes;
using test::hex;

using test::ip;

constexpr AddressFamily v4 = AddressFamily::ipv4, v6 = AddressFamily::ipv6;

// The golden vectors come from tests/unit/icmp_extension_vectors.py (scapy). The offending
// packets are 1024 bytes long and every quote is a prefix of one: IP and UDP headers, then a
// counting payload.
const char* kDatagram4Head = "450004001234000001113d75c6336407cb0071099c40829a03ecccaf";
const char* kDatagram6Head =
    "6000000003d8110120010db800030000000000000000000720010db80004000000000000000000099c40829a03d83d"
    "3f";

Bytes offendingPacket(AddressFamily af) {
   Bytes d = hex(af == v6 ? kDatagram6Head : kDatagram4Head);
   for (uint8_t b = 1; d.size() < 1024; b = static_cast<uint8_t>(b + 7))
      d.push_back(b);
   return d;
}

// The ICMPv6 goldens carry the checksum for these addresses.
const char* const kV6Src = "2001:db8:1::1";
const char* const kV6Dst = "2001:db8:2::2";

struct Golden {
   const char* what;
   AddressFamily af;
   uint8_t type;
   uint8_t code;
   uint32_t restOfHeader;
   size_t datagramLength;  // bytes of the offending packet handed to the builder
   bool withExtensions;
   std::vector<IcmpIntfInfoObject> intfs;
   std::optional<IcmpNodeIdObject> node;
   const char* head;  // ICMP header
   size_t quoted;     // bytes of the packet in the message, then zeros up to 128 with extensions
   const char* extn;  // extension structure
};

const std::vector<Golden>& goldens() {
   static const std::vector<Golden> g = {
       {"v4 port unreachable",
        AddressFamily::ipv4,
        3,
        3,
        0xdeadbeef,
        60,
        true,
        {{IcmpIntfRole::incoming, 7, ip("192.0.2.1"), "Ethernet1", 1500}},
        std::nullopt,
        "0303664f00200000",
        60,
        "20004d340020020f0000000700010000c00002010c45746865726e6574310000000005dc"},
       {"v4 host unreachable: outgoing",
        AddressFamily::ipv4,
        3,
        1,
        0x0,
        60,
        true,
        {{IcmpIntfRole::outgoing, 7, ip("192.0.2.1"), "Ethernet1", 1500}},
        std::nullopt,
        "0301665100200000",
        60,
        "20004cb40020028f0000000700010000c00002010c45746865726e6574310000000005dc"},
       {"v4 frag needed, plain",
        AddressFamily::ipv4,
        3,
        4,
        0x578,
        20,
        false,
        {},
        std::nullopt,
        "0304f78300000578",
        20,
        ""},
       {"v4 frag needed",
        AddressFamily::ipv4,
        3,
        4,
        0xffff0578,
        128,
        true,
        {{IcmpIntfRole::incoming, 12, ip("10.1.2.3"), "Ethernet12", 1400}},
        std::nullopt,
        "0304c14700200578",
        128,
        "2000d1900020020f0000000c000100000a0102030c45746865726e657431320000000578"},
       {"v4 node without address",
        AddressFamily::ipv4,
        11,
        0,
        0x0,
        548,
        true,
        {{IcmpIntfRole::incoming, 7, ip("192.0.2.1"), "Ethernet1", 1500}},
        IcmpNodeIdObject{200, IpGenAddr(), "router1.example"},
        "0b00bec300200000",
        128,
        "20009e020020020f0000000700010000c00002010c45746865726e6574310000000005dc0014c80210726f7574"
        "6572312e6578616d706c65"},
       {"v4 node with address",
        AddressFamily::ipv4,
        11,
        1,
        0x0,
        1024,
        true,
        {{IcmpIntfRole::incoming, 4096, ip("203.0.113.254"), "Vlan100", 9000}},
        IcmpNodeIdObject{200, ip("198.51.100.1"), "r1"},
        "0b01bec200200000",
        128,
        "200032d4001c020f0000100000010000cb0071fe08566c616e313030000023280010c80600010000c633640104"
        "723100"},
       {"v4 long names",
        AddressFamily::ipv4,
        3,
        3,
        0x0,
        20,
        true,
        {{IcmpIntfRole::incoming, 1000001, ip("192.0.2.1"),
          "Port-Channel1000.4094-xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx", 1500}},
        IcmpNodeIdObject{
            133, IpGenAddr(),
            "spine-"
            "01234567890123456789012345678901234567890123456789012345678901234567890123456789"},
        "0303fcdc00200000",
        20,
        "20002dfd0054020f000f424100010000c000020140506f72742d4368616e6e656c313030302e343039342d7878"
        "787878787878787878787878787878787878787878787878787878787878787878787878787878000005dc0044"
        "8502407370696e652d303132333435363738393031323334353637383930313233343536373839303132333435"
        "363738393031323334353637383930313233343536"},
       {"v4 empty interface",
        AddressFamily::ipv4,
        11,
        0,
        0x0,
        40,
        true,
        {{IcmpIntfRole::incoming, 0, IpGenAddr(), "", 0}},
        std::nullopt,
        "0b002c6600200000",
        40,
        "2000ddfb00040200"},
       {"v4 plain 1024",
        AddressFamily::ipv4,
        11,
        0,
        0x0,
        1024,
        false,
        {},
        std::nullopt,
        "0b002d9400000000",
        548,
        ""},
       {"v4 plain 548",
        AddressFamily::ipv4,
        3,
        3,
        0x0,
        548,
        false,
        {},
        std::nullopt,
        "0303359100000000",
        548,
        ""},
       {"v4 parameter problem",
        AddressFamily::ipv4,
        12,
        0,
        0x14000000,
        60,
        true,
        {{IcmpIntfRole::incoming, 7, ip("192.0.2.1"), "Ethernet1", 1500}},
        std::nullopt,
        "0c00495214200000",
        60,
        "20004d340020020f0000000700010000c00002010c45746865726e6574310000000005dc"},
       {"v4 incoming, outgoing and next hop",
        AddressFamily::ipv4,
        11,
        0,
        0x0,
        100,
        true,
        {{IcmpIntfRole::incoming, 7, ip("192.0.2.1"), "Ethernet1", 1500},
         {IcmpIntfRole::outgoing, 9, ip("198.51.100.1"), "Ethernet9", 1280},
         {IcmpIntfRole::nextHop, 0, ip("198.51.100.2"), "", 0}},
        std::nullopt,
        "0b005bc300200000",
        100,
        "200025800020020f0000000700010000c00002010c45746865726e6574310000000005dc0020028f0000000900"
        "010000c63364010c45746865726e657439000000000500000c02c400010000c6336402"},
       {"v6 incoming name and MTU, outgoing ifIndex and MTU",
        AddressFamily::ipv6,
        3,
        0,
        0x0,
        200,
        true,
        {{IcmpIntfRole::incoming, 0, IpGenAddr(), "Ethernet1", 1500},
         {IcmpIntfRole::outgoing, 12, IpGenAddr(), "", 1280}},
        std::nullopt,
        "03007e5110000000",
        128,
        "200007b5001402030c45746865726e6574310000000005dc000c02890000000c00000500"},
       {"v6 time exceeded",
        AddressFamily::ipv6,
        3,
        0,
        0x0,
        1024,
        true,
        {{IcmpIntfRole::incoming, 7, ip("2001:db8::5"), "Ethernet1", 9214}},
        IcmpNodeIdObject{201, ip("2001:db8::ff"), "router1"},
        "03007e2510000000",
        128,
        "20006ce9002c020f000000070002000020010db80000000000000000000000050c45746865726e657431000000"
        "0023fe0020c9060002000020010db80000000000000000000000ff08726f7574657231"},
       {"v6 address unreachable: outgoing",
        AddressFamily::ipv6,
        1,
        3,
        0x0,
        128,
        true,
        {{IcmpIntfRole::outgoing, 33, ip("2001:db8:5::1"), "Ethernet2/1", 1500}},
        std::nullopt,
        "0103804210000000",
        128,
        "2000b19d002c028f000000210002000020010db80005000000000000000000010c45746865726e6574322f3100"
        "0005dc"},
       {"v6 port unreachable, ifIndex only",
        AddressFamily::ipv6,
        1,
        4,
        0x0,
        48,
        true,
        {{IcmpIntfRole::incoming, 9, IpGenAddr(), "", 0}},
        std::nullopt,
        "0104626010000000",
        48,
        "2000dde60008020800000009"},
       {"v6 plain 1024",
        AddressFamily::ipv6,
        1,
        4,
        0x0,
        1024,
        false,
        {},
        std::nullopt,
        "01042e5100000000",
        1024,
        ""},
   };
   return g;
}

IcmpErrorSpec specOf(const Golden& g, const Bytes& packet) {
   IcmpErrorSpec s;
   s.af = g.af;
   s.type = g.type;
   s.code = g.code;
   s.restOfHeader = g.restOfHeader;
   s.datagram = std::span(packet).first(g.datagramLength);
   s.withExtensions = g.withExtensions;
   s.intfs = g.intfs;
   s.node = g.node;
   return s;
}

Bytes goldenMessage(const Golden& g) {
   Bytes m = hex(g.head);
   Bytes packet = offendingPacket(g.af);
   m.insert(m.end(), packet.begin(), packet.begin() + static_cast<ptrdiff_t>(g.quoted));
   if (g.withExtensions)
      m.resize(IcmpHdr::kSize + kIcmpExtnQuoteLength, 0);
   Bytes extn = hex(g.extn);
   m.insert(m.end(), extn.begin(), extn.end());
   return m;
}

TEST(IcmpExtension, BuildsGoldenMessages) {
   for (const auto& g : goldens()) {
      SCOPED_TRACE(g.what);
      Bytes packet = offendingPacket(g.af);
      IcmpErrorSpec spec = specOf(g, packet);
      Bytes m = buildIcmpError(spec);
      // Into a buffer of the family's minimum MTU, as the agent sends it: same bytes, trimmed.
      Bytes buf(g.af == v6 ? 1280 : 576, 0xee);
      ASSERT_EQ(buildIcmpError(spec, buf), m.size());
      EXPECT_TRUE(std::equal(m.begin(), m.end(), buf.begin()));
      if (g.af == v6) {
         EXPECT_EQ(IcmpHdr(m).checksum(), 0);  // the socket's to fill
         fillIcmp6Checksum(m, ip(kV6Src), ip(kV6Dst));
      }
      EXPECT_EQ(m, goldenMessage(g));
   }
}

TEST(IcmpExtension, ParsesGoldenMessages) {
   for (const auto& g : goldens()) {
      SCOPED_TRACE(g.what);
      Bytes m = goldenMessage(g);
      IcmpParseOptions opts{g.af, g.node ? g.node->classNum : uint8_t{0}};
      if (g.af == v6) {
         opts.src = ip(kV6Src);
         opts.dst = ip(kV6Dst);
      }
      auto r = parseIcmpError(m, opts);
      ASSERT_TRUE(r) << toString(r.error);
      const IcmpErrorMessage& p = *r.msg;
      EXPECT_EQ(p.type, g.type);
      EXPECT_EQ(p.code, g.code);
      EXPECT_EQ(p.nextHopMtu, g.code == 4 && g.af == v4 ? 1400 : 0);
      EXPECT_EQ(p.lengthField, !g.withExtensions ? 0 : g.af == v6 ? 16 : 32);
      EXPECT_EQ(p.quote,
                Bytes(m.begin() + 8, m.end() - static_cast<ptrdiff_t>(hex(g.extn).size())));
      EXPECT_EQ(p.hasExtensions, g.withExtensions);
      if (!g.withExtensions) {
         EXPECT_TRUE(p.intfs.empty());
         continue;
      }
      std::vector<IcmpIntfInfoObject> want = g.intfs;
      for (auto& o : want)
         o.name = o.name.substr(0, 63);
      EXPECT_EQ(p.intfs, want);
      ASSERT_EQ(p.node.has_value(), g.node.has_value());
      if (g.node) {
         EXPECT_EQ(p.node->classNum, g.node->classNum);
         EXPECT_EQ(p.node->addr, g.node->addr);
         EXPECT_EQ(p.node->hostName, g.node->hostName.substr(0, 63));
      }
      EXPECT_TRUE(p.otherObjects.empty());
   }
}

// An error with `quote` zero bytes of original datagram and then `extn`; the checksums are
// made right (the extension's only when `sealExtn`) so that the fault under test is reached.
Bytes message(AddressFamily af, const std::string& head, size_t quote, const std::string& extn,
              bool sealExtn) {
   Bytes m = hex(head);
   m.resize(m.size() + quote, 0);
   size_t extnAt = m.size();
   Bytes e = hex(extn);
   m.insert(m.end(), e.begin(), e.end());
   std::span<uint8_t> s(m);
   if (sealExtn && e.size() >= 4) {
      store16(s, extnAt + 2, 0);
      store16(s, extnAt + 2, internetChecksum(s.subspan(extnAt)));
   }
   if (af == v4) {
      store16(s, 2, 0);
      store16(s, 2, internetChecksum(s));
   }
   return m;
}

TEST(IcmpExtension, RejectsMalformedMessages) {
   using E = IcmpParseError;
   struct Case {
      const char* what;
      AddressFamily af;
      std::string head;
      size_t quote;
      std::string extn;
      E want;
      uint8_t nodeClass = 0;
      bool sealExtn = true;
   };
   const std::string h4 = "0b00000000200000", h6 = "0300000010000000";
   const std::string ifIndex7 = "00080208 00000007";
   const Case cases[] = {
       {"empty", v4, "", 0, "", E::truncatedHeader},
       {"7 bytes", v6, "01040000100000", 0, "", E::truncatedHeader},
       {"echo reply", v4, "0000000000000000", 0, "", E::notAnError},
       {"redirect", v4, "0500000000000000", 64, "", E::notAnError},
       {"packet too big", v6, "0200000000000500", 64, "", E::notAnError},
       {"echo request", v6, "8000000000000000", 0, "", E::notAnError},
       {"64-byte original datagram", v4, "0b00000000100000", 64, "", E::lengthBelowMinimum},
       {"120-byte original datagram", v6, "030000000f000000", 128, "", E::lengthBelowMinimum},
       {"length past the end", v4, "0303000000200000", 60, "", E::lengthBeyondMessage},
       {"length past the extension", v6, "0300000011000000", 128, "20000000",
        E::lengthBeyondMessage},
       {"2-byte extension", v4, h4, 128, "2000", E::truncatedExtnHeader},
       {"version 1", v4, h4, 128, "10000000" + ifIndex7, E::badExtnVersion},
       {"version 15", v6, h6, 128, "f0000000" + ifIndex7, E::badExtnVersion},
       {"extension checksum", v4, h4, 128, "20001234" + ifIndex7, E::badExtnChecksum, 0, false},
       {"no extension checksum", v4, h4, 128, "20000000" + ifIndex7, E::none, 0, false},
       {"2 bytes after the objects", v4, h4, 128, "20000000" + ifIndex7 + "0000",
        E::truncatedObject},
       {"object length 3", v4, h4, 128, "20000000 00030208 00000007", E::badObjectLength},
       {"object length 0", v6, h6, 128, "20000000 00000208 00000007", E::badObjectLength},
       {"object past the end", v4, h4, 128, "20000000 000c0208 00000007", E::badObjectLength},
       {"MTU announced, absent", v4, h4, 128, "20000000 00080209 00000007", E::truncatedSubObject},
       {"address announced, absent", v6, h6, 128, "20000000 00040204", E::truncatedSubObject},
       {"AFI 3", v4, h4, 128, "20000000 000c0204 00030000 c0000201", E::badAfi},
       {"AFI 0", v4, h4, 128, "20000000 000c0204 00000000 c0000201", E::badAfi},
       {"IPv6 address in 4 bytes", v6, h6, 128, "20000000 000c0204 00020000 20010db8",
        E::truncatedSubObject},
       {"name length 0", v4, h4, 128, "20000000 00080202 00000000", E::badNameLength},
       {"name length 65", v4, h4, 128, "20000000 00080202 41424344", E::badNameLength},
       {"name past the object", v4, h4, 128, "20000000 00080202 08414243", E::truncatedSubObject},
       {"name announced, absent", v4, h4, 128, "20000000 00040202", E::truncatedSubObject},
       {"bytes after the sub-objects", v4, h4, 128, "20000000 000c0208 00000007 00000000",
        E::trailingBytes},
       {"bad node object", v4, h4, 128, "20000000 00080202 04000000 0008c806 04720000", E::badAfi,
        200},
       {"two node objects", v4, h4, 128, "20000000 0008c802 04720000 0008c802 04730000",
        E::duplicateNodeObject, 200},
       {"the same, class unknown", v4, h4, 128, "20000000 0008c802 04720000 0008c802 04730000",
        E::none},
       {"structure empty after the header", v4, h4, 128, "20000000", E::none},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      Bytes m = c.head.empty() ? Bytes() : message(c.af, c.head, c.quote, c.extn, c.sealExtn);
      // Exactly the message: a read past it shows under ASan.
      auto r = parseIcmpError(m, IcmpParseOptions{c.af, c.nodeClass});
      EXPECT_STREQ(toString(r.error), toString(c.want));
      EXPECT_EQ(r.msg.has_value(), c.want == E::none);
   }
}

TEST(IcmpExtension, ChecksMessageChecksums) {
   Bytes m = message(v4, "0303000000000000", 28, "", false);
   EXPECT_TRUE(parseIcmpError(m, {v4}));
   m[20] ^= 0x40;
   EXPECT_EQ(parseIcmpError(m, {v4}).error, IcmpParseError::badChecksum);

   // ICMPv6: only with the addresses of the packet.
   const Golden& g = goldens().back();
   ASSERT_EQ(g.af, v6);
   Bytes m6 = goldenMessage(g);
   IcmpParseOptions opts{v6, 0, ip(kV6Src), ip(kV6Dst)};
   EXPECT_TRUE(parseIcmpError(m6, opts));
   opts.dst = ip("2001:db8:2::3");
   EXPECT_EQ(parseIcmpError(m6, opts).error, IcmpParseError::badChecksum);
   EXPECT_TRUE(parseIcmpError(m6, {v6}));
}

TEST(IcmpExtension, KeepsObjectsItDoesNotDecode) {
   // An RFC 4950 MPLS label stack object, the interface, and a node object.
   Bytes m = message(v4, "0b00000000200000", 128,
                     "20000000 00080101 0003e1ff 00080208 00000007 0008c802 04720000", true);
   const IcmpExtnRawObject mpls{1, 1, hex("0003e1ff")}, node{200, 2, hex("04720000")};
   auto unknown = parseIcmpError(m, {v4});
   ASSERT_TRUE(unknown);
   EXPECT_EQ(unknown.msg->intfs, (std::vector<IcmpIntfInfoObject>{{IcmpIntfRole::incoming, 7}}));
   EXPECT_EQ(unknown.msg->otherObjects, (std::vector<IcmpExtnRawObject>{mpls, node}));
   EXPECT_FALSE(unknown.msg->node);
   auto known = parseIcmpError(m, {v4, 200});
   ASSERT_TRUE(known);
   EXPECT_EQ(known.msg->otherObjects, std::vector<IcmpExtnRawObject>{mpls});
   EXPECT_EQ(known.msg->node, (IcmpNodeIdObject{200, IpGenAddr(), "r"}));
}

// A pcap of each built message behind Ethernet and IP headers, decoded by tshark.
void writePcap(const std::string& path, const std::vector<Bytes>& frames) {
   std::ofstream f(path, std::ios::binary);
   auto put32 = [&](uint32_t v) { f.write(reinterpret_cast<const char*>(&v), 4); };
   auto put16 = [&](uint16_t v) { f.write(reinterpret_cast<const char*>(&v), 2); };
   put32(0xa1b2c3d4);  // native order: readers take the order from the magic
   put16(2);
   put16(4);
   put32(0);
   put32(0);
   put32(65535);
   put32(1);  // Ethernet
   uint32_t t = 1700000000;
   for (const auto& fr : frames) {
      put32(t++);
      put32(0);
      put32(static_cast<uint32_t>(fr.size()));
      put32(static_cast<uint32_t>(fr.size()));
      f.write(reinterpret_cast<const char*>(fr.data()), static_cast<std::streamsize>(fr.size()));
   }
}

Bytes frame(AddressFamily af, const Bytes& icmp) {
   Bytes f = hex(af == v6 ? "020000000002 020000000001 86dd" : "020000000002 020000000001 0800");
   if (af == v6) {
      Bytes h = hex("60000000 0000 3a 40");
      store16(h, 4, static_cast<uint16_t>(icmp.size()));
      f.insert(f.end(), h.begin(), h.end());
      for (const char* a : {kV6Src, kV6Dst}) {
         IpGenAddr addr = ip(a);
         f.insert(f.end(), addr.bytes().begin(), addr.bytes().end());
      }
   } else {
      Bytes h = hex("45000000 00000000 40010000 c0000201 c6336407");
      store16(h, 2, static_cast<uint16_t>(20 + icmp.size()));
      store16(h, 10, internetChecksum(h));
      f.insert(f.end(), h.begin(), h.end());
   }
   f.insert(f.end(), icmp.begin(), icmp.end());
   return f;
}

std::vector<std::string> split(const std::string& s, char sep) {
   std::vector<std::string> out;
   std::stringstream in(s);
   std::string item;
   while (std::getline(in, item, sep))
      out.push_back(item);
   if (!s.empty() && s.back() == sep)
      out.push_back("");
   return out;
}

TEST(IcmpExtension, TsharkDecodesBuiltMessages) {
   if (std::system("command -v tshark >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "tshark is not on PATH";
   std::vector<Bytes> frames;
   for (const auto& g : goldens()) {
      Bytes packet = offendingPacket(g.af);
      Bytes m = buildIcmpError(specOf(g, packet));
      if (g.af == v6)
         fillIcmp6Checksum(m, ip(kV6Src), ip(kV6Dst));
      frames.push_back(frame(g.af, m));
   }
   std::string dir = ::testing::TempDir();
   std::string pcap = dir + "/icmp-extension.pcap", out = dir + "/icmp-extension.txt";
   writePcap(pcap, frames);
   // IPv4 extensions after a quoted packet that claims more than 128 bytes are only decoded
   // with favor_icmp_mpls.
   const char* fields[] = {
       "icmp.checksum.status",     "icmpv6.checksum.status", "icmp.mtu",
       "icmp.ext.checksum.status", "icmp.ext.class",         "icmp.ext.length",
       "icmp.int_info.role",       "icmp.int_info.index",    "icmp.int_info.ipv4",
       "icmp.int_info.ipv6",       "icmp.int_info.name",     "icmp.int_info.mtu"};
   std::string cmd = "tshark -r " + pcap +
                     " -o icmp.favor_icmp_mpls:TRUE -T fields -E occurrence=a -E aggregator=,";
   for (const char* f : fields)
      cmd += std::string(" -e ") + f;
   cmd += " >" + out + " 2>/dev/null";
   ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
   std::ifstream in(out);
   std::string line;
   for (const auto& g : goldens()) {
      SCOPED_TRACE(g.what);
      ASSERT_TRUE(std::getline(in, line));
      auto got = split(line, '\t');
      ASSERT_EQ(got.size(), std::size(fields)) << line;
      auto field = [&](std::string_view name) {
         for (size_t i = 0; i < std::size(fields); ++i) {
            if (fields[i] == name)
               return got[i];
         }
         return std::string("?");
      };
      // Checksum status 1: good.
      EXPECT_EQ(field(g.af == v6 ? "icmpv6.checksum.status" : "icmp.checksum.status"), "1");
      EXPECT_EQ(field("icmp.mtu"), g.af == v4 && g.code == 4 ? "1400" : "");
      if (!g.withExtensions) {
         EXPECT_EQ(field("icmp.ext.class"), "");
         continue;
      }
      EXPECT_EQ(field("icmp.ext.checksum.status"), "1");
      // One value per object that has the field, in the order sent.
      auto each = [&](auto value) {
         std::string out;
         for (const auto& o : g.intfs) {
            std::string v = value(o);
            if (!v.empty())
               out += (out.empty() ? "" : ",") + v;
         }
         return out;
      };
      Bytes extn = hex(g.extn);
      std::string lengths, classes;
      for (size_t at = 4; at + 4 <= extn.size(); at += extn[at] << 8 | extn[at + 1]) {
         lengths += (lengths.empty() ? "" : ",") + std::to_string(extn[at] << 8 | extn[at + 1]);
         classes += (classes.empty() ? "" : ",") + std::to_string(extn[at + 2]);
      }
      EXPECT_EQ(field("icmp.ext.class"), classes);
      EXPECT_EQ(field("icmp.ext.length"), lengths);
      EXPECT_EQ(field("icmp.int_info.role"),
                each([](auto& o) { return std::to_string(static_cast<int>(o.role)); }));
      EXPECT_EQ(field("icmp.int_info.index"),
                each([](auto& o) { return o.ifIndex ? std::to_string(o.ifIndex) : ""; }));
      EXPECT_EQ(field(g.af == v6 ? "icmp.int_info.ipv6" : "icmp.int_info.ipv4"),
                each([](auto& o) { return o.addr.isZero() ? "" : o.addr.str(); }));
      EXPECT_EQ(field("icmp.int_info.name"), each([](auto& o) { return o.name.substr(0, 63); }));
      EXPECT_EQ(field("icmp.int_info.mtu"),
                each([](auto& o) { return o.mtu ? std::to_string(o.mtu) : ""; }));
   }
}

}  // namespace
}  // namespace Ravel
