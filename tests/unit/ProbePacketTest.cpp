#include <fmt/format.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/values/Checksum.h"
#include "platform/values/PacketHeaders.h"
#include "tests/unit/TestBytes.h"
#include "wire/ProbePacket.h"

namespace Ravel {
namespace {

using test::Bytes;
using test::hex;

using test::ip;

// The target an Interface Identification Object names, as a responder reads it; nullopt when
// malformed.
std::optional<ProbeTarget> readTarget(const IcmpExtnObjHdr& obj) {
   if (IcmpIntfIdIfName v(obj.body()); obj.cType() == 1 && v.valid())
      return v.ifName();
   if (IcmpIntfIdIfIndex v(obj.body()); obj.cType() == 2 && v.valid())
      return v.ifIndex();
   if (IcmpIntfIdAddress v(obj.body()); obj.cType() == 3 && v.valid())
      return v.addr();
   return std::nullopt;
}

TEST(ProbePacket, RequestsMatchGoldenBytes) {
   // Laid out by hand from RFC 8335 section 2 and RFC 4884 section 7; checksums summed by hand.
   const Bytes byName = {
       0x2a, 0x00, 0xbc, 0xca,  // type 42, code 0, checksum
       0x12, 0x34, 0x07, 0x01,  // identifier 0x1234, sequence 7, L
       0x20, 0x00, 0x0f, 0x52,  // extension version 2, checksum
       0x00, 0x08, 0x03, 0x01,  // object length 8, class 3, C-Type 1 (name)
       'e',  't',  'h',  '0',   // a multiple of 4: no padding
   };
   const auto v4 = AddressFamily::ipv4, v6 = AddressFamily::ipv6;
   EXPECT_EQ(buildExtendedEchoRequest(v4, 0x1234, 7, true, std::string("eth0")), byName);
   struct Case {
      AddressFamily af;
      uint16_t identifier;
      uint8_t seq;
      bool local;
      ProbeTarget target;
      std::string golden;  // by field: header, extension header, object header, body
   };
   const Case cases[] = {
       // Length counts the NUL padding.
       {v4, 1, 2, false, std::string("eth10"),
        "2a00d3fe00010200 2000df4c 000c0301 6574683130000000"},
       {v4, 1, 2, true, uint32_t{258}, "2a00d3fd00010201 2000dbf3 00080302 00000102"},
       // ICMPv6: the checksum is the sending socket's. AFI 1, length 4, reserved.
       {v6, 0xbeef, 1, false, ip("192.0.2.1"),
        "a0000000beef0100 200016ee 000c0303 00010400c0000201"},
       {v4, 0xbeef, 1, false, ip("2001:db8::1"),
        "2a001610beef0100 20009f28 00180303 0002100020010db8000000000000000000000001"},
   };
   for (const auto& c : cases) {
      EXPECT_EQ(buildExtendedEchoRequest(c.af, c.identifier, c.seq, c.local, c.target),
                hex(c.golden))
          << c.golden;
   }
}

TEST(ProbePacket, RequestsReadBackThroughTheViews) {
   const std::pair<ProbeTarget, uint16_t> cases[] = {
       // Target and object Length.
       {std::string("a"), 8},
       {std::string("abc"), 8},
       {std::string("abcde"), 12},
       {std::string("vrf1/ethernet1.100"), 24},
       {std::string("\xc3\xa9th0"), 12},  // UTF-8 bytes pass through
       {uint32_t{0}, 8},
       {uint32_t{0xffffffff}, 8},
       {ip("203.0.113.255"), 12},
       {ip("fe80::1"), 24},
   };
   for (auto af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      for (const auto& [target, objLength] : cases) {
         SCOPED_TRACE(::testing::Message() << toString(af) << " object length " << objLength);
         Bytes m = buildExtendedEchoRequest(af, 0xa5c3, 0x81, true, target);
         ASSERT_EQ(m.size(), 12u + objLength);
         IcmpHdr h(m);
         EXPECT_EQ(h.type(), af == AddressFamily::ipv4 ? 42 : 160);
         EXPECT_EQ(h.code(), 0);
         EXPECT_EQ(h.restOfHeader(), 0xa5c38101u);
         EXPECT_EQ(
             af == AddressFamily::ipv4 ? h.computedChecksum(uint16_t(m.size())) : h.checksum(), 0);
         std::span<const uint8_t> ext = std::span<const uint8_t>(m).subspan(8);
         EXPECT_EQ(IcmpExtnHdr(ext).version(), 2);
         EXPECT_EQ(IcmpExtnHdr(ext).computedChecksum(uint16_t(ext.size())), 0);
         IcmpExtnObjHdr obj(ext.subspan(4));
         EXPECT_EQ(obj.length(), objLength);
         EXPECT_EQ(obj.classNum(), 3);
         EXPECT_EQ(readTarget(obj), target);
      }
   }
}

TEST(ProbePacket, MalformedTargetsStillBuildConsistentMessages) {
   // For tests of responders: an empty name or an address of no family is a malformed query,
   // but lengths and checksums stay right so that it reaches the object checks.
   const std::pair<ProbeTarget, uint16_t> cases[] = {{std::string(), 4}, {IpGenAddr(), 8}};
   for (const auto& [target, objLength] : cases) {
      Bytes m = buildExtendedEchoRequest(AddressFamily::ipv4, 1, 1, true, target);
      ASSERT_EQ(m.size(), 12u + objLength);
      EXPECT_EQ(internetChecksum(m), 0);
      EXPECT_EQ(IcmpExtnHdr(std::span<const uint8_t>(m).subspan(8)).computedChecksum(objLength + 4),
                0);
      IcmpExtnObjHdr obj(std::span<const uint8_t>(m).subspan(12));
      EXPECT_EQ(obj.length(), objLength);
      EXPECT_EQ(readTarget(obj), std::nullopt);
   }
}

TEST(ProbePacket, Icmp6ChecksumGolden) {
   const IpGenAddr src = ip("2001:db8::1"), dst = ip("2001:db8::2");
   Bytes m = buildExtendedEchoRequest(AddressFamily::ipv6, 0x1234, 7, true, std::string("eth0"));
   // Summed by hand: pseudo-header 5bc3, message b935.
   const Bytes want = hex("a000eb061234070120000f520008030165746830");
   fillIcmp6Checksum(m, src, dst);
   EXPECT_EQ(m, want);
   // A stale checksum is replaced, not summed in.
   fillIcmp6Checksum(m, src, dst);
   EXPECT_EQ(m, want);
   Bytes tiny = {0xa0, 0x00, 0x12};
   fillIcmp6Checksum(tiny, src, dst);  // too short to hold one: left alone
   EXPECT_EQ(tiny, (Bytes{0xa0, 0x00, 0x12}));
}

TEST(ProbePacket, ParsesReplies) {
   auto show = [](std::span<const uint8_t> b) -> std::string {
      auto r = parseExtendedEchoReply(b);
      if (!r)
         return "-";
      return fmt::format("{}/{} id {:#x} seq {} state {}{}{}{}", r->type, r->code, r->identifier,
                         r->seq, r->state, r->active ? " A" : "", r->ipv4 ? " 4" : "",
                         r->ipv6 ? " 6" : "");
   };
   const std::pair<std::string, std::string> cases[] = {
       {"2b00000012340746", "43/0 id 0x1234 seq 7 state 2 A 4"},
       {"a100000012340707", "161/0 id 0x1234 seq 7 state 0 A 4 6"},
       {"2b000000fffeff01", "43/0 id 0xfffe seq 255 state 0 6"},
       {"2b030000000100e0", "43/3 id 0x1 seq 0 state 7"},
       {"2b0000000001ff18", "43/0 id 0x1 seq 255 state 0"},  // reserved bits only
       {"2b01000000010000 20000f520008030165746830", "43/1 id 0x1 seq 0 state 0"},
       {"2a00000012340746", "-"},  // requests
       {"a000000012340746", "-"},
       {"0000000012340746", "-"},  // echo reply
       {"a1000000123407", "-"},    // 7 bytes
       {"", "-"},
   };
   for (const auto& [bytes, want] : cases)
      EXPECT_EQ(show(hex(bytes)), want) << bytes;  // exactly the message: overreads show in ASan
   EXPECT_STREQ(extendedEchoReplyCodeName(4), "Multiple Interfaces Satisfy Query");
   EXPECT_STREQ(extendedEchoReplyCodeName(5), "Unknown");
}

}  // namespace
}  // namespace Ravel
