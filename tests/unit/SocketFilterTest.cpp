// The PAM socket filters run on crafted packets by libpcap's classic-BPF interpreter, which
// executes the same instructions the kernel runs on a raw socket: cases the kernel never lets a
// raw socket see (a lone non-first fragment) are tested here.

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "pam/PamSm.h"

// libpcap's interpreter; its instruction layout is the kernel's sock_filter.
extern "C" unsigned bpf_filter(const sock_filter* prog, const unsigned char* pkt, unsigned wirelen,
                               unsigned buflen);

namespace Ravel {
namespace {

bool accepts(const SockFilterProgram& prog, const std::vector<uint8_t>& pkt) {
   auto n = static_cast<unsigned>(pkt.size());
   return bpf_filter(prog.data(), pkt.data(), n, n) != 0;
}

// IPv4 header (IHL words, no checksum: filters do not look) then the payload.
std::vector<uint8_t> ipv4(uint8_t protocol, uint16_t fragField, std::vector<uint8_t> payload,
                          uint8_t ihl = 5) {
   std::vector<uint8_t> p(ihl * 4u, 0);
   p[0] = static_cast<uint8_t>(0x40 | ihl);
   p[6] = static_cast<uint8_t>(fragField >> 8);
   p[7] = static_cast<uint8_t>(fragField);
   p[8] = 64;
   p[9] = protocol;
   p.insert(p.end(), payload.begin(), payload.end());
   return p;
}

std::vector<uint8_t> withOption42(std::vector<uint8_t> pkt) {
   pkt[20] = 42;  // where the ICMP type would be without options
   return pkt;
}

std::vector<uint8_t> icmp(uint8_t type) {
   return {type, 0, 0, 0, 0x12, 0x34, 0x01, 0x00};
}

TEST(SocketFilter, Ipv4ProbeFilter) {
   struct Case {
      const char* what;
      std::vector<uint8_t> pkt;
      bool accepted;
   };
   const Case cases[] = {
       {"extended echo request", ipv4(1, 0, icmp(42)), true},
       {"with don't-fragment", ipv4(1, 0x4000, icmp(42)), true},
       {"first fragment (more fragments, offset 0)", ipv4(1, 0x2000, icmp(42)), true},
       {"IP options: the ICMP header is found after them", ipv4(1, 0, icmp(42), 6), true},
       {"echo request after options whose first byte is 42", withOption42(ipv4(1, 0, icmp(8), 6)),
        false},
       {"non-first fragment whose data starts with 42", ipv4(1, 0x0001, icmp(42)), false},
       {"last non-first fragment", ipv4(1, 0x00b9, icmp(42)), false},
       {"echo request", ipv4(1, 0, icmp(8)), false},
       {"extended echo reply", ipv4(1, 0, icmp(43)), false},
       {"UDP with 42 as first byte", ipv4(17, 0, icmp(42)), false},
   };
   for (const auto& c : cases)
      EXPECT_EQ(accepts(PamSm::v4ProbeFilter, c.pkt), c.accepted) << c.what;
}

TEST(SocketFilter, Ipv6ProbeFilterAndDropAll) {
   EXPECT_TRUE(accepts(PamSm::v6ProbeFilter, icmp(160)));
   for (uint8_t type : {128, 129, 161, 42, 1, 3})
      EXPECT_FALSE(accepts(PamSm::v6ProbeFilter, icmp(type))) << int(type);
   for (auto& pkt : {icmp(160), ipv4(1, 0, icmp(42))})
      EXPECT_FALSE(accepts(PamSm::dropAllFilter, pkt));
}

}  // namespace
}  // namespace Ravel
