#pragma once

// Read-only views over packet bytes. Accessors never read past the span: a field that does not
// fit reads as 0, so callers check lengths before trusting values.

#include <cstdint>
#include <span>
#include <string>

#include "platform/Values.h"

namespace Ravel {

class ByteView {
 public:
   explicit ByteView(std::span<const uint8_t> b) : b_(b) {}
   size_t size() const { return b_.size(); }
   std::span<const uint8_t> bytes() const { return b_; }

 protected:
   uint8_t u8(size_t at) const { return at < b_.size() ? b_[at] : 0; }
   uint16_t u16(size_t at) const { return static_cast<uint16_t>(u8(at) << 8 | u8(at + 1)); }
   uint32_t u32(size_t at) const { return uint32_t{u16(at)} << 16 | u16(at + 2); }
   std::span<const uint8_t> b_;
};

// IPv4 header (RFC 791).
class IpHdr : public ByteView {
 public:
   using ByteView::ByteView;
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
   uint8_t type() const { return u8(0); }
   uint8_t code() const { return u8(1); }
   uint16_t checksum() const { return u16(2); }
   uint32_t restOfHeader() const { return u32(4); }
   // Over the first `len` bytes (at most the view), stored checksum included.
   uint16_t computedChecksum(uint16_t len) const;
};

class Icmp6Hdr : public IcmpHdr {
 public:
   using IcmpHdr::IcmpHdr;
   // Including the RFC 8200 section 8.1 pseudo-header.
   uint16_t computedChecksum(const IpGenAddr& src, const IpGenAddr& dst, uint32_t len) const;
};

// RFC 4884 extension header.
class IcmpExtnHdr : public ByteView {
 public:
   using ByteView::ByteView;
   uint8_t version() const { return u8(0) >> 4; }
   uint16_t checksum() const { return u16(2); }
   uint16_t computedChecksum(uint16_t len) const;
};

// RFC 4884 object header.
class IcmpExtnObjHdr : public ByteView {
 public:
   using ByteView::ByteView;
   uint16_t length() const { return u16(0); }
   uint8_t classNum() const { return u8(2); }
   uint8_t cType() const { return u8(3); }
};

// RFC 8335 section 2.1 Interface Identification Object bodies (class 3), each over the bytes
// after the object header, limited by the object's Length.

// C-Type 1: the name, NUL-padded to a 4-byte boundary. Valid when not empty and not all NUL.
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
// length agree and the address fits; trailing padding is allowed.
class IcmpIntfIdAddress : public ByteView {
 public:
   using ByteView::ByteView;
   bool valid() const;
   IpGenAddr addr() const;
};

}  // namespace Ravel
