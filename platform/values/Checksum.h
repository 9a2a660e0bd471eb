#pragma once

#include <cstdint>
#include <span>

namespace Ravel {

// RFC 1071 Internet checksum.
//
// checksumPartial adds the 16-bit big-endian words of `data` to a running sum and returns the
// new sum (unfolded; only checksumFold's result is meaningful). An odd trailing byte counts as
// the high byte of a word padded with zero, so when chaining, every chunk but the last must
// have an even length: a chunk starting at an odd offset would have its bytes paired the wrong
// way. The order of the chunks does not matter.
uint32_t checksumPartial(std::span<const uint8_t> data, uint32_t sum = 0);

// Folds a running sum to 16 bits and complements it: the value to store, in host order.
inline uint16_t checksumFold(uint32_t sum) {
   sum = (sum & 0xffff) + (sum >> 16);
   sum = (sum & 0xffff) + (sum >> 16);
   return static_cast<uint16_t>(~sum);
}

// Over data that includes its stored checksum, a correct message gives 0.
inline uint16_t internetChecksum(std::span<const uint8_t> data) {
   return checksumFold(checksumPartial(data));
}

}  // namespace Ravel
