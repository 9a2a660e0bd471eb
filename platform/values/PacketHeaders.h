#pragma once

// Views over packet bytes, multi-byte fields in network order. Accessors never read past the
// span: a field that does not fit reads as 0 (an address as the empty IpGenAddr), so callers
// check lengths before trusting values.

#include <cstdint>
#include <span>
#include <string>

#include "platform/core/Assert.h"
#include "platform/values/Values.h"

namespace Ravel {

class ByteView {
 public:
   explicit ByteView(std::span<const uint8_t> b) : b_(b) {}
   size_t size() const { return b_.size(); }
   std::span<const uint8_t> bytes() const { return b_; }

 protected:
   bool fits(size_t at, size_t n) const { return n <= b_.size() && at <= b_.size() - n; }
   uint8_t u8(size_t at) const { return fits(at, 1) ? b_[at] : 0; }
   uint16_t u16(size_t at) const {
      return fits(at, 2) ? static_cast<uint16_t>(b_[at] << 8 | b_[at + 1]) : 0;
   }
   uint32_t u32(size_t at) const {
      return fits(at, 4) ? uint32_t{b_[at]} << 24 | uint32_t{b_[at + 1]} << 16 |
                               uint32_t{b_[at + 2]} << 8 | b_[at + 3]
                         : 0;
   }
   std::span<const uint8_t> b_;
};

// Writers for headers being built; the field must lie inside the span.
inline void store16(std::span<uint8_t> b, size_t at, uint16_t v) {
   RAVEL_ASSERT(at + 2 <= b.size());
   b[at] = static_cast<uint8_t>(v >> 8);
   b[at + 1] = static_cast<uint8_t>(v);
}
inline void store32(std::span<uint8_t> b, size_t at, uint32_t v) {
   RAVEL_ASSERT(at + 4 <= b.size());
   store16(b, at, static_cast<uint16_t>(v >> 16));
   store16(b, at + 2, static_cast<uint16_t>(v));
}

// IPv4 header (RFC 791).
class IpHdr : public ByteView {
 public:
   using ByteView::ByteView;
   static constexpr size_t kMinSize = 20;
   uint8_t version() const { return u8(0) >> 4; }
   size_t headerLength() const { return size_t{u8(0) & 0x0fu} * 4; }
   uint16_t totalLength() const { return u16(2); }
   uint16_t fragOffsetAndFlags() const { return u16(6); }
   bool isNonFirstFragment() const { return (fragOffsetAndFlags() & 0x1fff) != 0; }
   uint8_t ttl() const { return u8(8); }
   uint8_t protocol() const { return u8(9); }
   IpGenAddr src() const;
   IpGenAddr dst() const;
};

// IPv6 fixed header (RFC 8200).
class Ip6Hdr : public ByteView {
 public:
   using ByteView::ByteView;
   static constexpr size_t kSize = 40;
   uint16_t payloadLength() const { return u16(4); }
   uint8_t nextHeader() const { return u8(6); }
   uint8_t hopLimit() const { return u8(7); }
   IpGenAddr src() const;
   IpGenAddr dst() const;
};

class IcmpHdr : public ByteView {
 public:
   using ByteView::ByteView;
   static constexpr size_t kSize = 8;
   uint8_t type() const { return u8(0); }
   uint8_t code() const { return u8(1); }
   uint16_t checksum() const { return u16(2); }
   uint32_t restOfHeader() const { return u32(4); }
   // Over the first `len` bytes (at most the view), stored checksum included: 0 when correct.
   uint16_t computedChecksum(uint16_t len) const;
};

class Icmp6Hdr : public IcmpHdr {
 public:
   using IcmpHdr::IcmpHdr;
   // As IcmpHdr's, with the RFC 8200 section 8.1 pseudo-header in front; `len` is also the
   // pseudo-header's upper-layer length.
   uint16_t computedChecksum(const IpGenAddr& src, const IpGenAddr& dst, uint32_t len) const;
};

// RFC 4884 section 7 extension header.
class IcmpExtnHdr : public ByteView {
 public:
   using ByteView::ByteView;
   static constexpr size_t kSize = 4;
   uint8_t version() const { return u8(0) >> 4; }
   uint16_t checksum() const { return u16(2); }
   // Over the first `len` bytes (at most the view): the header and its objects.
   uint16_t computedChecksum(uint16_t len) const;
};

// RFC 4884 section 7 object header.
class IcmpExtnObjHdr : public ByteView {
 public:
   using ByteView::ByteView;
   static constexpr size_t kSize = 4;
   uint16_t length() const { return u16(0); }  // header included
   uint8_t classNum() const { return u8(2); }
   uint8_t cType() const { return u8(3); }
   // The bytes after the header, up to Length; empty when Length is below 4.
   std::span<const uint8_t> body() const;
};

// RFC 8335 section 2.1 Interface Identification Object bodies (class 3). Each views an object
// body as IcmpExtnObjHdr::body() gives it. Receipt is liberal about padding, which carries no
// information once Length bounds the body; the identifying fields themselves are strict.

// C-Type 1: the name, which a sender NUL-pads to a 4-byte boundary. Trailing NULs are padding
// whatever their number, and a body without them is accepted. Valid when something other than
// padding is there. The name's bytes are not interpreted: embedded NULs or invalid UTF-8 are
// kept for the caller to judge.
class IcmpIntfIdIfName : public ByteView {
 public:
   using ByteView::ByteView;
   bool valid() const;
   std::string ifName() const;  // without the trailing NULs
};

// C-Type 2: a 32-bit ifIndex, exactly.
class IcmpIntfIdIfIndex : public ByteView {
 public:
   using ByteView::ByteView;
   bool valid() const { return size() == 4; }
   uint32_t ifIndex() const { return u32(0); }
};

// C-Type 3: AFI (1 IPv4, 2 IPv6), address length, reserved, address. Valid when the AFI and
// the length agree and the address fits. The reserved byte is ignored (RFC 8335 section 2.1),
// as is anything after the address.
class IcmpIntfIdAddress : public ByteView {
 public:
   using ByteView::ByteView;
   static constexpr uint16_t kAfiIpv4 = 1;
   static constexpr uint16_t kAfiIpv6 = 2;
   uint16_t afi() const { return u16(0); }
   uint8_t addrLength() const { return u8(2); }
   bool valid() const;
   IpGenAddr addr() const;  // the empty address unless valid()
};

}  // namespace Ravel
