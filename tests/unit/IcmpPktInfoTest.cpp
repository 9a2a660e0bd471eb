#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "bpf/IcmpPktInfo.h"

namespace Ravel {
namespace {

// An IPv4 record as the probe writes it, read back through the agent's view of the layout.
TEST(IcmpPktInfo, ReadsARecordWrittenByTheProbe) {
   std::vector<uint8_t> bytes(1076, 0xee);
   const uint8_t head[] = {
       7,    0,    0,    0,                       // ifindex 7
       0x00, 0xf0, 0xff, 0xef,                    // nsindex 0xeffff000
       3,    4,    0xab, 0xcd, 0, 0, 0x05, 0xdc,  // fragmentation needed, next-hop MTU 1500
       192,  0,    2,    1,                       // dst_addr.ip4
   };
   std::memcpy(bytes.data(), head, sizeof(head));
   const uint8_t src[] = {198, 51, 100, 7};
   std::memcpy(bytes.data() + 32, src, sizeof(src));
   const uint8_t datalen[] = {20, 0, 0, 0};
   std::memcpy(bytes.data() + 48, datalen, sizeof(datalen));
   bytes[52] = 0x45;

   packet_info info;
   std::memcpy(&info, bytes.data(), sizeof(info));
   EXPECT_EQ(info.ifindex, 7u);
   EXPECT_EQ(info.nsindex, 0xeffff000u);
   EXPECT_EQ(info.hdr.icmp4.type, 3);
   EXPECT_EQ(info.hdr.icmp4.code, 4);
   EXPECT_EQ(info.hdr.icmp6.icmp6_type, 3);
   EXPECT_EQ(info.hdr.icmp4.rest[2] << 8 | info.hdr.icmp4.rest[3], 1500);
   EXPECT_EQ(std::memcmp(&info.dst_addr.ip4, "\xc0\x00\x02\x01", 4), 0);
   EXPECT_EQ(std::memcmp(info.src_addr.ip6, src, 4), 0);
   EXPECT_EQ(info.datalen, 20u);
   EXPECT_EQ(info.data[0], 0x45);
   EXPECT_EQ(info.data[ICMP_DATA_MAX_SIZE - 1], 0xee);
}

}  // namespace
}  // namespace Ravel
