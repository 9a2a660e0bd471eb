#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/values/PacketHeaders.h"
#include "platform/values/Pkt.h"
#include "tests/unit/TestBytes.h"

namespace Ravel {
namespace {

using test::Bytes;
using View = std::span<const uint8_t>;

using test::hex;

using test::ip;

// The usual IPv4 header example (UDP, DF, 192.168.0.1 to 192.168.0.199, checksum b861).
const char* const kIpv4 = "45000073000040004011b861c0a80001c0a800c7";
// IPv6 with a traffic class and flow label around the fields read: 24 bytes of ICMPv6, hop
// limit 64, 2001:db8::1 to 2001:db8::2.
const char* const kIpv6 =
    "6ab12345"
    "00183a40"
    "20010db8000000000000000000000001"
    "20010db8000000000000000000000002";
// Extended Echo Request header, id 0x1234, seq 7, L set.
const char* const kIcmp = "2a00bcca12340701";
const char* const kExtn = "2fff0f52";  // version 2; the reserved bits must not leak into it
const char* const kObj = "00080301";

std::string num(uint64_t v) {
   return std::to_string(v);
}

TEST(PacketHeaders, FieldsReadGoldenBytesOrZeroWhenCut) {
   struct Field {
      const char* what;
      const char* golden;
      size_t needs;  // bytes the field ends at
      std::function<std::string(View)> get;
      std::string value;
   };
   const std::string noAddr = IpGenAddr().str();
   const Field fields[] = {
       {"ip version", kIpv4, 1, [](View b) { return num(IpHdr(b).version()); }, "4"},
       {"ip header length", kIpv4, 1, [](View b) { return num(IpHdr(b).headerLength()); }, "20"},
       {"ip total length", kIpv4, 4, [](View b) { return num(IpHdr(b).totalLength()); }, "115"},
       {"ip flags", kIpv4, 8, [](View b) { return num(IpHdr(b).fragOffsetAndFlags()); }, "16384"},
       {"ip ttl", kIpv4, 9, [](View b) { return num(IpHdr(b).ttl()); }, "64"},
       {"ip protocol", kIpv4, 10, [](View b) { return num(IpHdr(b).protocol()); }, "17"},
       {"ip src", kIpv4, 16, [](View b) { return IpHdr(b).src().str(); }, "192.168.0.1"},
       {"ip dst", kIpv4, 20, [](View b) { return IpHdr(b).dst().str(); }, "192.168.0.199"},
       {"ip6 payload", kIpv6, 6, [](View b) { return num(Ip6Hdr(b).payloadLength()); }, "24"},
       {"ip6 next", kIpv6, 7, [](View b) { return num(Ip6Hdr(b).nextHeader()); }, "58"},
       {"ip6 hops", kIpv6, 8, [](View b) { return num(Ip6Hdr(b).hopLimit()); }, "64"},
       {"ip6 src", kIpv6, 24, [](View b) { return Ip6Hdr(b).src().str(); }, "2001:db8::1"},
       {"ip6 dst", kIpv6, 40, [](View b) { return Ip6Hdr(b).dst().str(); }, "2001:db8::2"},
       {"icmp type", kIcmp, 1, [](View b) { return num(IcmpHdr(b).type()); }, "42"},
       {"icmp code", kIcmp, 2, [](View b) { return num(IcmpHdr(b).code()); }, "0"},
       {"icmp checksum", kIcmp, 4, [](View b) { return num(IcmpHdr(b).checksum()); }, "48330"},
       {"icmp rest", kIcmp, 8, [](View b) { return num(IcmpHdr(b).restOfHeader()); },
        num(0x12340701)},
       {"extn version", kExtn, 1, [](View b) { return num(IcmpExtnHdr(b).version()); }, "2"},
       {"extn checksum", kExtn, 4, [](View b) { return num(IcmpExtnHdr(b).checksum()); }, "3922"},
       {"obj length", kObj, 2, [](View b) { return num(IcmpExtnObjHdr(b).length()); }, "8"},
       {"obj class", kObj, 3, [](View b) { return num(IcmpExtnObjHdr(b).classNum()); }, "3"},
       {"obj c-type", kObj, 4, [](View b) { return num(IcmpExtnObjHdr(b).cType()); }, "1"},
   };
   for (const auto& f : fields) {
      SCOPED_TRACE(f.what);
      Bytes golden = hex(f.golden);
      for (size_t len = 0; len <= golden.size(); ++len) {
         // Exactly len bytes: an overread leaves the allocation (ASan builds catch it).
         Bytes cut(golden.begin(), golden.begin() + static_cast<ptrdiff_t>(len));
         bool absent = len < f.needs;
         std::string zero = f.value.find_first_of(".:") != std::string::npos ? noAddr : "0";
         EXPECT_EQ(f.get(cut), absent ? zero : f.value) << len << " bytes";
      }
   }
}

TEST(PacketHeaders, NonFirstFragment) {
   // DF, MF with offset 0 (the first fragment) and all flags read as first; any offset does not.
   const std::pair<uint16_t, bool> cases[] = {
       {0x0000, false}, {0x4000, false}, {0x2000, false}, {0xe000, false},
       {0x2001, true},  {0x0001, true},  {0x1fff, true},
   };
   for (const auto& [field, nonFirst] : cases) {
      Bytes h = hex(kIpv4);
      store16(h, 6, field);
      EXPECT_EQ(IpHdr(h).isNonFirstFragment(), nonFirst) << std::hex << field;
   }
}

TEST(PacketHeaders, ChecksumsOverTheRequestedLength) {
   // Windows ping: echo request id 1, seq 1, 32 bytes of "abc..."; stored checksum 4d5a.
   Bytes echo =
       hex("08004d5a00010001"
           "6162636465666768696a6b6c6d6e6f7071727374757677616263646566676869");
   // ICMPv6 echo request id 0x1234, seq 1, "ping", 2001:db8::1 to 2001:db8::2.
   Bytes echo6 = hex("8000333e1234000170696e67");
   // Extension header and name object "eth0" of the golden request.
   Bytes extn = hex("20000f520008030165746830");
   IpGenAddr a = ip("2001:db8::1"), b = ip("2001:db8::2");
   struct Case {
      const char* what;
      uint16_t got;
      uint16_t want;
   };
   const Case cases[] = {
       {"icmp whole", IcmpHdr(echo).computedChecksum(40), 0},
       {"icmp len past the view", IcmpHdr(echo).computedChecksum(1000), 0},
       {"icmp header only", IcmpHdr(echo).computedChecksum(8), 0xaaa3},
       {"icmp6 whole", Icmp6Hdr(echo6).computedChecksum(a, b, 12), 0},
       {"icmp6 other dst", Icmp6Hdr(echo6).computedChecksum(a, ip("2001:db8::3"), 12), 0xfffe},
       // One byte fewer summed and a pseudo-header length one smaller: 0x67 + 1.
       {"icmp6 short len", Icmp6Hdr(echo6).computedChecksum(a, b, 11), 0x0068},
       {"extn whole", IcmpExtnHdr(extn).computedChecksum(12), 0},
       {"extn header only", IcmpExtnHdr(extn).computedChecksum(4), 0xd0ad},
   };
   for (const auto& c : cases)
      EXPECT_EQ(c.got, c.want) << c.what;
}

TEST(PacketHeaders, ObjectBodyIsBoundedByLengthAndBytes) {
   // Object header, then "lo\0\0" and one more word.
   const Bytes object = hex("000003016c6f0000aabbccdd");
   // Length field, object bytes in the view, body bytes seen: a Length below 4 leaves no body,
   // one past the bytes gets what is there.
   const size_t cases[][3] = {{0, 12, 0}, {3, 12, 0},  {4, 12, 0},  {6, 12, 2},
                              {8, 12, 4}, {12, 12, 8}, {13, 12, 8}, {0xffff, 6, 2},
                              {8, 4, 0},  {8, 3, 0},   {8, 0, 0}};
   for (const auto& [length, available, seen] : cases) {
      Bytes obj(object.begin(), object.begin() + static_cast<ptrdiff_t>(available));
      if (available >= 2)
         store16(obj, 0, static_cast<uint16_t>(length));
      auto body = IcmpExtnObjHdr(obj).body();
      EXPECT_EQ(Bytes(body.begin(), body.end()),
                Bytes(object.begin() + 4, object.begin() + 4 + static_cast<ptrdiff_t>(seen)))
          << length << "/" << available;
   }
}

TEST(PacketHeaders, InterfaceIdentificationBodyValidity) {
   struct Case {
      const char* what;
      int cType;
      std::string body;
      bool valid;
      std::string value;  // name, decimal ifIndex or address
   };
   const Case cases[] = {
       {"name", 1, "65746830", true, "eth0"},
       {"name padded", 1, "6c6f0000", true, "lo"},
       {"name padded past a boundary", 1, "6574683100000000", true, "eth1"},
       {"name unpadded", 1, "657468", true, "eth"},
       {"name with a NUL inside", 1, "61006200", true, std::string("a\0b", 3)},
       {"name not UTF-8", 1, "fffe0000", true, "\xff\xfe"},
       {"name all padding", 1, "00000000", false, ""},
       {"name empty", 1, "", false, ""},
       {"ifindex", 2, "00000102", true, "258"},
       {"ifindex high bit", 2, "fffffffe", true, "4294967294"},
       {"ifindex short", 2, "000001", false, ""},
       {"ifindex long", 2, "0000000100000000", false, ""},
       {"ipv4", 3, "00010400c0000201", true, "192.0.2.1"},
       {"ipv4 reserved set", 3, "000104ffc0000201", true, "192.0.2.1"},
       {"ipv4 trailing bytes", 3, "00010400c0000201ffffffff", true, "192.0.2.1"},
       {"ipv6", 3, "0002100020010db8000000000000000000000001", true, "2001:db8::1"},
       {"ipv4 address, AFI 2", 3, "00020400c0000201", false, ""},
       {"ipv6 length, AFI 1", 3, "0001100020010db8000000000000000000000001", false, ""},
       {"ipv4 length 5", 3, "00010500c000020100000000", false, ""},
       {"AFI byte-swapped", 3, "01000400c0000201", false, ""},
       {"AFI 3", 3, "00030400c0000201", false, ""},
       {"ipv4 cut", 3, "00010400c00002", false, ""},
       {"ipv6 cut", 3, "0002100020010db80000000000000000000000", false, ""},
       {"header only", 3, "00010400", false, ""},
       {"empty", 3, "", false, ""},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      Bytes b = hex(c.body);  // exactly the body: an overread leaves the allocation
      bool valid;
      std::string value;
      if (c.cType == 1) {
         IcmpIntfIdIfName v(b);
         valid = v.valid();
         value = valid ? v.ifName() : "";
      } else if (c.cType == 2) {
         IcmpIntfIdIfIndex v(b);
         valid = v.valid();
         value = valid ? std::to_string(v.ifIndex()) : "";
      } else {
         IcmpIntfIdAddress v(b);
         valid = v.valid();
         value = v.addr().str();  // empty unless valid
      }
      EXPECT_EQ(valid, c.valid);
      EXPECT_EQ(value, c.value);
   }
}

TEST(PacketHeaders, PktStripsAndPrependsInPlace) {
   Bytes wire = hex(std::string(kIpv4) + kIcmp);
   Ptr<Pkt> p = Pkt::fromBytes(wire, 32);
   uint8_t* icmp = p->data() + 20;
   p->pullFront(IpHdr(p->bytes()).headerLength());
   EXPECT_EQ(p->data(), icmp);
   EXPECT_EQ(Bytes(p->bytes().begin(), p->bytes().end()), hex(kIcmp));
   EXPECT_EQ(p->headroom(), 52u);
   // The stripped header is still there in front.
   EXPECT_EQ(p->pushFront(20), icmp - 20);
   EXPECT_EQ(Bytes(p->bytes().begin(), p->bytes().end()), wire);
   p->pushFront(32);
   EXPECT_EQ(p->headroom(), 0u);
   EXPECT_EQ(p->size(), 60u);
   EXPECT_EQ(p->capacity(), 60u);

   Ptr<Pkt> c = Pkt::create(100);
   EXPECT_EQ(c->size(), 0u);
   EXPECT_EQ(c->headroom(), 64u);
   c->sizeIs(c->capacity());
   EXPECT_EQ(c->bytes().size(), 100u);
}

TEST(PacketHeadersDeathTest, PktBoundsAreInvariants) {
   Bytes wire = hex(kIcmp);
   EXPECT_DEATH(Pkt::fromBytes(wire, 4)->pushFront(5), "n <= start_");
   EXPECT_DEATH(Pkt::fromBytes(wire)->pullFront(9), "n <= size_");
   EXPECT_DEATH(Pkt::create(10)->sizeIs(11), "n <= capacity");
   Bytes small(3);
   EXPECT_DEATH(store16(std::span<uint8_t>(small), 2, 1), "at \\+ 2 <= b.size");
}

}  // namespace
}  // namespace Ravel
