#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/Assert.h"
#include "platform/Ptr.h"

namespace Ravel {

// A packet buffer with headroom, so that headers can be stripped or prepended in place.
class Pkt : public Node {
 public:
   static Ptr<Pkt> create(size_t capacity, size_t headroom = 64) {
      return Ptr<Pkt>(new Pkt(capacity, headroom));
   }
   static Ptr<Pkt> fromBytes(std::span<const uint8_t> bytes, size_t headroom = 64) {
      auto p = create(bytes.size(), headroom);
      std::copy(bytes.begin(), bytes.end(), p->data());
      p->size_ = bytes.size();
      return p;
   }

   uint8_t* data() { return buf_.data() + start_; }
   const uint8_t* data() const { return buf_.data() + start_; }
   size_t size() const { return size_; }
   size_t capacity() const { return buf_.size() - start_; }
   std::span<uint8_t> bytes() { return {data(), size_}; }
   std::span<const uint8_t> bytes() const { return {data(), size_}; }

   void sizeIs(size_t n) {
      RAVEL_ASSERT(n <= capacity());
      size_ = n;
   }
   // Drops n bytes from the front (e.g. the IPv4 header).
   void pullFront(size_t n) {
      RAVEL_ASSERT(n <= size_);
      start_ += n;
      size_ -= n;
   }
   // Makes room for n bytes in front, from the headroom.
   uint8_t* pushFront(size_t n) {
      RAVEL_ASSERT(n <= start_);
      start_ -= n;
      size_ += n;
      return data();
   }

 private:
   Pkt(size_t capacity, size_t headroom) : buf_(capacity + headroom), start_(headroom) {}
   std::vector<uint8_t> buf_;
   size_t start_;
   size_t size_ = 0;
};

}  // namespace Ravel
