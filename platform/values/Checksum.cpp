#include "platform/values/Checksum.h"

#include <bit>
#include <cstring>

namespace Ravel {

namespace {

// Adds both 32-bit halves of a 64-bit word: an accumulator takes 2^31 words before it can
// overflow, far beyond any packet, so the loop needs no carry handling.
inline uint64_t addHalves(uint64_t acc, uint64_t w) {
   return acc + (w & 0xffffffffu) + (w >> 32);
}

}  // namespace

uint32_t checksumPartial(std::span<const uint8_t> data, uint32_t sum) {
   // The ones'-complement sum does not depend on byte order (RFC 1071 section 2(B)): words are
   // loaded in host order, 8 bytes at a time, and the folded result is swapped once at the end.
   const uint8_t* p = data.data();
   size_t n = data.size();
   uint64_t a = 0, b = 0;  // two chains so that consecutive additions do not wait on each other
   while (n >= 16) {
      uint64_t w0, w1;
      std::memcpy(&w0, p, 8);
      std::memcpy(&w1, p + 8, 8);
      a = addHalves(a, w0);
      b = addHalves(b, w1);
      p += 16;
      n -= 16;
   }
   if (n >= 8) {
      uint64_t w;
      std::memcpy(&w, p, 8);
      a = addHalves(a, w);
      p += 8;
      n -= 8;
   }
   if (n >= 4) {
      uint32_t w;
      std::memcpy(&w, p, 4);
      b += w;
      p += 4;
      n -= 4;
   }
   if (n >= 2) {
      uint16_t w;
      std::memcpy(&w, p, 2);
      a += w;
      p += 2;
      n -= 2;
   }
   if (n) {
      // An odd last byte is the high byte of a word padded with zero, in network order.
      b += std::endian::native == std::endian::little ? uint64_t{p[0]} : uint64_t{p[0]} << 8;
   }
   uint64_t s = addHalves(0, a) + addHalves(0, b);
   while (s >> 16)
      s = (s & 0xffff) + (s >> 16);
   if constexpr (std::endian::native == std::endian::little)
      s = ((s & 0xff) << 8) | (s >> 8);
   uint64_t t = uint64_t{sum} + s;
   return static_cast<uint32_t>((t & 0xffffffffu) + (t >> 32));
}

}  // namespace Ravel
