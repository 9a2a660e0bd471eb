#include "platform/values/Pkt.h"

#include <cstring>

namespace Ravel {

Pkt::Pkt(size_t capacity, size_t headroom) : buf_(capacity + headroom), start_(headroom) {}

Ptr<Pkt> Pkt::create(size_t capacity, size_t headroom) {
   return Ptr<Pkt>(new Pkt(capacity, headroom));
}

Ptr<Pkt> Pkt::fromBytes(std::span<const uint8_t> bytes, size_t headroom) {
   Ptr<Pkt> p = create(bytes.size(), headroom);
   if (!bytes.empty())
      std::memcpy(p->data(), bytes.data(), bytes.size());
   p->size_ = bytes.size();
   return p;
}

}  // namespace Ravel
