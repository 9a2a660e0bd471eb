#include "platform/values/PacketHeaders.h"

#include <algorithm>

#include "platform/values/Checksum.h"

namespace Ravel {

namespace {

IpGenAddr addrAt(std::span<const uint8_t> b, size_t at, size_t len) {
   if (len > b.size() || at > b.size() - len)
      return IpGenAddr();
   return IpGenAddr::fromBytes(b.subspan(at, len)).value_or(IpGenAddr());
}

std::span<const uint8_t> upTo(std::span<const uint8_t> b, size_t len) {
   return b.first(std::min(len, b.size()));
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
   return internetChecksum(upTo(b_, len));
}

uint16_t Icmp6Hdr::computedChecksum(const IpGenAddr& src, const IpGenAddr& dst,
                                    uint32_t len) const {
   const uint8_t tail[8] = {
       uint8_t(len >> 24), uint8_t(len >> 16), uint8_t(len >> 8), uint8_t(len), 0, 0, 0, 58};
   // Every piece but the message is of even length, so the chaining rule holds.
   uint32_t sum = checksumPartial(src.bytes());
   sum = checksumPartial(dst.bytes(), sum);
   sum = checksumPartial(tail, sum);
   sum = checksumPartial(upTo(b_, len), sum);
   return checksumFold(sum);
}

uint16_t IcmpExtnHdr::computedChecksum(uint16_t len) const {
   return internetChecksum(upTo(b_, len));
}

std::span<const uint8_t> IcmpExtnObjHdr::body() const {
   uint16_t len = length();
   if (len <= kSize || b_.size() <= kSize)
      return {};
   return upTo(b_.subspan(kSize), len - kSize);
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
   uint8_t len = addrLength();
   bool known = (afi() == kAfiIpv4 && len == 4) || (afi() == kAfiIpv6 && len == 16);
   return known && size() >= 4u + len;
}

IpGenAddr IcmpIntfIdAddress::addr() const {
   if (!valid())
      return IpGenAddr();
   return addrAt(b_, 4, addrLength());
}

}  // namespace Ravel
