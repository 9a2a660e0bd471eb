#pragma once

#include <cstdint>
#include <span>

namespace Ravel {

// RFC 1071 Internet checksum. checksumPartial adds 16-bit big-endian words to a running sum;
// when chaining, every chunk but the last must have an even length.
uint32_t checksumPartial(std::span<const uint8_t> data, uint32_t sum = 0);
uint16_t checksumFold(uint32_t sum);
// Over data that includes its stored checksum, a correct message gives 0.
inline uint16_t internetChecksum(std::span<const uint8_t> data) {
   return checksumFold(checksumPartial(data));
}

}  // namespace Ravel
