#include "platform/PacketHeaders.h"

#include <algorithm>

#include "platform/Checksum.h"

namespace Ravel {

namespace {
IpGenAddr addrAt(std::span<const uint8_t> b, size_t at, size_t len) {
   if (at + len > b.size())
      return IpGenAddr();
   return IpGenAddr::fromBytes(b.subspan(at, len)).value_or(IpGenAddr());
}
}  // namespace

IpGenAddr IpHdr::src() const {
   return addrAt(b_, 12, 4);
}
IpGenAddr IpHdr::dst() const {
   return addrAt(b_, 16, 4);
}
IpGenAddr Ip6Hdr::src() const {
   return addrAt(b_, 8, 16);
}
IpGenAddr Ip6Hdr::dst() const {
   return addrAt(b_, 24, 16);
}

uint16_t IcmpHdr::computedChecksum(uint16_t len) const {
   return internetChecksum(b_.first(std::min<size_t>(len, b_.size())));
}

uint16_t Icmp6Hdr::computedChecksum(const IpGenAddr& src, const IpGenAddr& dst,
                                    uint32_t len) const {
   uint8_t tail[8] = {
       uint8_t(len >> 24), uint8_t(len >> 16), uint8_t(len >> 8), uint8_t(len), 0, 0, 0, 58};
   uint32_t sum = checksumPartial(src.bytes());
   sum = checksumPartial(dst.bytes(), sum);
   sum = checksumPartial(tail, sum);
   sum = checksumPartial(b_.first(std::min<size_t>(len, b_.size())), sum);
   return checksumFold(sum);
}

uint16_t IcmpExtnHdr::computedChecksum(uint16_t len) const {
   return internetChecksum(b_.first(std::min<size_t>(len, b_.size())));
}

bool IcmpIntfIdIfName::valid() const {
   return std::any_of(b_.begin(), b_.end(), [](uint8_t c) { return c != 0; });
}

std::string IcmpIntfIdIfName::ifName() const {
   size_t n = b_.size();
   while (n && b_[n - 1] == 0)
      --n;
   return std::string(b_.begin(), b_.begin() + static_cast<ptrdiff_t>(n));
}

bool IcmpIntfIdAddress::valid() const {
   if (size() < 4)
      return false;
   uint16_t afi = u16(0);
   uint8_t len = u8(2);
   bool ok = (afi == 1 && len == 4) || (afi == 2 && len == 16);
   return ok && size() >= 4u + len;
}

IpGenAddr IcmpIntfIdAddress::addr() const {
   if (!valid())
      return IpGenAddr();
   return addrAt(b_, 4, u8(2));
}

}  // namespace Ravel
