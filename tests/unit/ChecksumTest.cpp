#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/values/Checksum.h"
#include "tests/unit/TestBytes.h"

namespace Ravel {
namespace {

using test::Bytes;

using test::hex;

// RFC 1071 word by word, for comparison.
uint16_t slowChecksum(std::span<const uint8_t> b) {
   uint64_t s = 0;
   for (size_t i = 0; i < b.size(); i += 2)
      s += uint32_t(b[i] << 8) | (i + 1 < b.size() ? b[i + 1] : 0);
   while (s >> 16)
      s = (s & 0xffff) + (s >> 16);
   return static_cast<uint16_t>(~s);
}

TEST(Checksum, GoldenValues) {
   struct Case {
      const char* what;
      std::string bytes;
      uint16_t checksum;
      int storedAt = -1;  // where the message keeps it: summed with it, the message gives 0
   };
   const Case cases[] = {
       // RFC 1071 section 3: 0001 f203 f4f5 f6f7 sums to ddf2.
       {"RFC 1071 example", "0001f203f4f5f6f7", 0x220d},
       // A Windows ping: echo request, id 1, seq 1, "abcdefghijklmnopqrstuvwabcdefghi".
       {"ICMP echo request",
        "08004d5a00010001"
        "6162636465666768696a6b6c6d6e6f7071727374757677616263646566676869",
        0x4d5a, 2},
       // The usual IPv4 header example: UDP, 192.168.0.1 to 192.168.0.199.
       {"IPv4 header", "45000073000040004011b861c0a80001c0a800c7", 0xb861, 10},
       {"empty", "", 0xffff},
       {"one byte is a high byte", "ff", 0x00ff},
       {"odd length", "0001f2", 0x0dfe},  // 0001 + f200
       {"end-around carry", "ffff0001", 0xfffe},
       {"all ones", "ffffffffffffffffffffffffffffffff", 0x0000},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      Bytes m = hex(c.bytes);
      if (c.storedAt < 0) {
         EXPECT_EQ(internetChecksum(m), c.checksum);
         continue;
      }
      EXPECT_EQ(internetChecksum(m), 0);
      m[c.storedAt] = m[c.storedAt + 1] = 0;
      EXPECT_EQ(internetChecksum(m), c.checksum);
   }
}

TEST(Checksum, AgreesWithWordByWordAtEveryLengthAndAlignment) {
   // Covers each tail the wide loads leave at every start alignment, with values that carry.
   Bytes data(96);
   for (size_t i = 0; i < data.size(); ++i)
      data[i] = static_cast<uint8_t>(i % 3 ? 0xff - i : i * 37);
   for (size_t offset = 0; offset < 8; ++offset) {
      for (size_t len = 0; len <= data.size(); ++len) {
         // Ends with its allocation, so that an overread shows under ASan.
         Bytes b(offset + len);
         std::copy_n(data.begin(), len, b.begin() + offset);
         std::span<const uint8_t> s(b.data() + offset, len);
         ASSERT_EQ(internetChecksum(s), slowChecksum(s)) << offset << "+" << len;
      }
   }
   Bytes big(70001, 0xff);  // longer than any datagram; every addition carries
   big[70000] = 0x12;
   EXPECT_EQ(internetChecksum(big), slowChecksum(big));
}

TEST(Checksum, ChainingMatchesOnePass) {
   Bytes data = hex("45000073a6f240004011b861c0a80001c0a800c7abcdef0123456789fedcba");
   ASSERT_EQ(data.size() % 2, 1u);
   uint16_t whole = internetChecksum(data);
   // Even-length chunks, in either order, then an odd last one.
   for (size_t split = 0; split + 1 < data.size(); split += 2) {
      std::span<const uint8_t> head(data.data(), split), mid(data.data() + split, 2);
      std::span<const uint8_t> tail(data.data() + split + 2, data.size() - split - 2);
      EXPECT_EQ(checksumFold(checksumPartial(tail, checksumPartial(head, checksumPartial(mid)))),
                whole)
          << split;
   }
   // A running sum near the top of 32 bits keeps its carries.
   Bytes ones(64, 0xff);
   uint32_t s = 0xfffffffe;
   for (int i = 0; i < 1000; ++i)
      s = checksumPartial(ones, s);
   EXPECT_EQ(checksumFold(s), checksumFold(0xfffffffe));
}

}  // namespace
}  // namespace Ravel
