#include "platform/Checksum.h"

#include <cstring>

namespace Ravel {

uint32_t checksumPartial(std::span<const uint8_t> data, uint32_t sum) {
   // 64-bit accumulation of 32-bit big-endian words; folded back to 32 bits at the end.
   uint64_t acc = sum;
   const uint8_t* p = data.data();
   size_t n = data.size();
   while (n >= 4) {
      acc += uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
      p += 4;
      n -= 4;
   }
   if (n >= 2) {
      acc += uint32_t{p[0]} << 8 | p[1];
      p += 2;
      n -= 2;
   }
   if (n)
      acc += uint32_t{p[0]} << 8;
   while (acc >> 32)
      acc = (acc & 0xffffffffu) + (acc >> 32);
   return static_cast<uint32_t>(acc);
}

uint16_t checksumFold(uint32_t sum) {
   uint64_t s = sum;
   s = (s & 0xffff) + (s >> 16);
   s = (s & 0xffff) + (s >> 16);
   s = (s & 0xffff) + (s >> 16);
   return static_cast<uint16_t>(~s & 0xffff);
}

}  // namespace Ravel
