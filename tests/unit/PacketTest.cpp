#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/values/Checksum.h"
#include "platform/values/PacketHeaders.h"
#include "wire/ProbePacket.h"

namespace Ravel {
namespace {

std::vector<uint8_t> hex(const std::string& s) {
   std::vector<uint8_t> out;
   for (size_t i = 0; i + 1 < s.size(); i += 2) {
      out.push_back(static_cast<uint8_t>(std::stoi(s.substr(i, 2), nullptr, 16)));
   }
   return out;
}

TEST(Checksum, Rfc1071ExampleOddLengthsAndChaining) {
   // RFC 1071 section 3: the sum of 0001 f203 f4f5 f6f7 is ddf2, its complement 220d.
   auto rfc = hex("0001f203f4f5f6f7");
   EXPECT_EQ(internetChecksum(rfc), 0x220d);
   struct Case {
      std::string bytes;
      uint16_t sum;
   };
   const Case cases[] = {
       {"", 0xffff},
       {"ff", 0x00ff},        // odd length: padded with a zero byte
       {"0001f2", 0x0dfe},    // 0001 + f200
       {"ffffffff", 0x0000},  // carries fold back in
   };
   for (auto& c : cases) {
      auto b = hex(c.bytes);
      uint32_t expect = 0;
      for (size_t i = 0; i < b.size(); i += 2) {
         expect += uint32_t(b[i] << 8) | (i + 1 < b.size() ? b[i + 1] : 0);
      }
      while (expect >> 16)
         expect = (expect & 0xffff) + (expect >> 16);
      EXPECT_EQ(internetChecksum(b), uint16_t(~expect)) << c.bytes;
   }
   // Chained over even-length chunks equals one pass, whatever the split.
   auto data = hex("45000054a6f240004001000ac0a80001c0a800c7abcdef");
   for (size_t split = 0; split <= data.size(); split += 2) {
      uint32_t s = checksumPartial({data.data(), split});
      s = checksumPartial({data.data() + split, data.size() - split}, s);
      EXPECT_EQ(checksumFold(s), internetChecksum(data)) << split;
   }
}

TEST(Checksum, StoredChecksumVerifiesToZero) {
   auto msg = hex("0800000012340001616263646566");
   uint16_t sum = internetChecksum(msg);
   msg[2] = uint8_t(sum >> 8);
   msg[3] = uint8_t(sum);
   EXPECT_EQ(IcmpHdr(msg).computedChecksum(uint16_t(msg.size())), 0);
   msg[9] ^= 1;
   EXPECT_NE(IcmpHdr(msg).computedChecksum(uint16_t(msg.size())), 0);
}

TEST(PacketHeaders, ViewsNeverReadPastTheirBytes) {
   auto ip = hex("46000028000020014001f7b3c0000201c0000202");
   IpHdr h(ip);
   EXPECT_EQ(h.version(), 4);
   EXPECT_EQ(h.headerLength(), 24u);
   EXPECT_TRUE(h.isNonFirstFragment());
   EXPECT_EQ(h.protocol(), 1);
   EXPECT_EQ(h.src().str(), "192.0.2.1");
   EXPECT_EQ(h.dst().str(), "192.0.2.2");
   IpHdr shortHdr(std::span<const uint8_t>(ip.data(), 14));
   EXPECT_EQ(shortHdr.dst(), IpGenAddr());  // would need bytes 16-19
   EXPECT_EQ(IcmpHdr(std::span<const uint8_t>()).type(), 0);
}

TEST(PacketHeaders, InterfaceIdentificationBodies) {
   struct Case {
      const char* what;
      int cType;
      std::string body;
      bool valid;
      std::string value;
   };
   const Case cases[] = {
       {"name", 1, "65746830", true, "eth0"},
       {"name with padding", 1, "6c6f0000", true, "lo"},
       {"all padding", 1, "00000000", false, ""},
       {"empty name", 1, "", false, ""},
       {"ifindex", 2, "00000102", true, "258"},
       {"ifindex short", 2, "000001", false, ""},
       {"ifindex long", 2, "0000000100000000", false, ""},
       {"ipv4", 3, "00010400c0000201", true, "192.0.2.1"},
       {"ipv4 padded", 3, "00010400c000020100000000", true, "192.0.2.1"},
       {"ipv6", 3, "0002100020010db8000000000000000000000001", true, "2001:db8::1"},
       {"afi 1 length 16", 3, "00011000c0000201c0000201c0000201c0000201", false, ""},
       {"address cut", 3, "00010400c00002", false, ""},
       {"afi 3", 3, "00030400c0000201", false, ""},
       {"no header", 3, "0001", false, ""},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.what);
      auto b = hex(c.body);
      if (c.cType == 1) {
         IcmpIntfIdIfName v(b);
         EXPECT_EQ(v.valid(), c.valid);
         if (c.valid) {
            EXPECT_EQ(v.ifName(), c.value);
         }
      } else if (c.cType == 2) {
         IcmpIntfIdIfIndex v(b);
         EXPECT_EQ(v.valid(), c.valid);
         if (c.valid) {
            EXPECT_EQ(std::to_string(v.ifIndex()), c.value);
         }
      } else {
         IcmpIntfIdAddress v(b);
         EXPECT_EQ(v.valid(), c.valid);
         if (c.valid) {
            EXPECT_EQ(v.addr().str(), c.value);
         }
      }
   }
}

TEST(ProbePacket, RequestsMatchHandBuiltBytes) {
   // Built independently (byte by byte) from RFC 8335 section 2 and RFC 4884.
   EXPECT_EQ(buildExtendedEchoRequest(AddressFamily::ipv4, 0x1234, 7, true, std::string("eth0")),
             hex("2a00bcca1234070120000f520008030165746830"));
   EXPECT_EQ(buildExtendedEchoRequest(AddressFamily::ipv4, 1, 2, true, uint32_t{258}),
             hex("2a00d3fd000102012000dbf30008030200000102"));
   EXPECT_EQ(buildExtendedEchoRequest(AddressFamily::ipv6, 0xbeef, 1, false,
                                      *IpGenAddr::parse("2001:db8::1")),
             hex("a0000000beef010020009f28001803030002100020010db8000000000000000000000001"));
   // A name that is not a multiple of 4 is NUL-padded and the object length counts the pad.
   auto m = buildExtendedEchoRequest(AddressFamily::ipv4, 0, 0, true, std::string("lo0x1"));
   EXPECT_EQ(m.size(), 8u + 4 + 4 + 8);
   EXPECT_EQ(m[13], 12);
   EXPECT_EQ(IcmpExtnHdr(std::span<const uint8_t>(m).subspan(8)).computedChecksum(16), 0);
}

TEST(ProbePacket, Icmp6ChecksumCoversThePseudoHeader) {
   auto src = *IpGenAddr::parse("2001:db8::1"), dst = *IpGenAddr::parse("2001:db8::2");
   auto m = buildExtendedEchoRequest(AddressFamily::ipv6, 9, 9, true, std::string("eth0"));
   fillIcmp6Checksum(m, src, dst);
   EXPECT_EQ(Icmp6Hdr(m).computedChecksum(src, dst, uint32_t(m.size())), 0);
   // Another destination breaks it: the addresses are covered.
   EXPECT_NE(Icmp6Hdr(m).computedChecksum(src, src, uint32_t(m.size())), 0);
}

TEST(ProbePacket, ReplyParsing) {
   auto r = parseExtendedEchoReply(hex("2b00000012340746"));
   ASSERT_TRUE(r);
   EXPECT_EQ(r->identifier, 0x1234);
   EXPECT_EQ(r->seq, 7);
   EXPECT_EQ(r->state, 2);
   EXPECT_TRUE(r->active);
   EXPECT_TRUE(r->ipv4);
   EXPECT_FALSE(r->ipv6);
   EXPECT_FALSE(parseExtendedEchoReply(hex("2a00000012340746")));  // a request
   EXPECT_FALSE(parseExtendedEchoReply(hex("a1000000123407")));    // 7 bytes
   EXPECT_STREQ(extendedEchoReplyCodeName(4), "Multiple Interfaces Satisfy Query");
}

}  // namespace
}  // namespace Ravel
