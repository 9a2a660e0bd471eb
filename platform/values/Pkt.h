#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/core/Assert.h"
#include "platform/core/Ptr.h"

namespace Ravel {

// A packet buffer with headroom in front of the data, so that headers can be stripped (the
// IPv4 header of a received request) or prepended in place without copying the payload.
class Pkt : public Node {
 public:
   // Room for `capacity` bytes of data, plus `headroom` bytes for pushFront. Starts empty.
   static Ptr<Pkt> create(size_t capacity, size_t headroom = 64);
   // A copy of `bytes`, with no room to grow at the back.
   static Ptr<Pkt> fromBytes(std::span<const uint8_t> bytes, size_t headroom = 64);

   uint8_t* data() { return buf_.data() + start_; }
   const uint8_t* data() const { return buf_.data() + start_; }
   size_t size() const { return size_; }
   // Bytes available from data() on: the size can grow up to this.
   size_t capacity() const { return buf_.size() - start_; }
   size_t headroom() const { return start_; }
   std::span<uint8_t> bytes() { return {data(), size_}; }
   std::span<const uint8_t> bytes() const { return {data(), size_}; }

   void sizeIs(size_t n) {
      RAVEL_ASSERT(n <= capacity());
      size_ = n;
   }
   // Drops n bytes from the front; they become headroom.
   void pullFront(size_t n) {
      RAVEL_ASSERT(n <= size_);
      start_ += n;
      size_ -= n;
   }
   // Makes room for n bytes in front, from the headroom; returns the new data().
   uint8_t* pushFront(size_t n) {
      RAVEL_ASSERT(n <= start_);
      start_ -= n;
      size_ += n;
      return data();
   }

 private:
   Pkt(size_t capacity, size_t headroom);
   std::vector<uint8_t> buf_;
   size_t start_;
   size_t size_ = 0;
};

}  // namespace Ravel
