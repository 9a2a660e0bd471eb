#include "wire/IcmpExtension.h"

#include <algorithm>

#include "platform/core/Assert.h"
#include "platform/values/Checksum.h"
#include "platform/values/PacketHeaders.h"

namespace Ravel {

namespace {

constexpr size_t kPayloadAt = IcmpHdr::kSize;
constexpr size_t kExtnAt = kPayloadAt + kIcmpExtnQuoteLength;

// RFC 5837 section 4.1 C-Type bits below the role.
constexpr uint8_t kHasIfIndex = 0x08;
constexpr uint8_t kHasAddr = 0x04;
constexpr uint8_t kHasName = 0x02;
constexpr uint8_t kHasMtu = 0x01;

constexpr uint16_t kAfiIpv4 = 1;
constexpr uint16_t kAfiIpv6 = 2;

bool hasAddr(const IpGenAddr& a) {
   return !a.isZero();  // also false for an address of no family
}

size_t nameField(const std::string& name) {
   return std::min(name.size(), kIcmpIntfNameMaxLength);
}

// The name sub-object: the length octet counts itself and the NUL padding to a 4-byte end.
size_t nameSubObjLength(const std::string& name) {
   return (1 + nameField(name) + 3) & ~size_t{3};
}

size_t addrSubObjLength(const IpGenAddr& a) {
   return 4 + a.bytes().size();
}

size_t intfObjLength(const IcmpIntfInfoObject& o) {
   return IcmpExtnObjHdr::kSize + (o.ifIndex ? 4 : 0) +
          (hasAddr(o.addr) ? addrSubObjLength(o.addr) : 0) +
          (o.name.empty() ? 0 : nameSubObjLength(o.name)) + (o.mtu ? 4 : 0);
}

size_t nodeObjLength(const IcmpNodeIdObject& o) {
   return IcmpExtnObjHdr::kSize + (hasAddr(o.addr) ? addrSubObjLength(o.addr) : 0) +
          nameSubObjLength(o.hostName);
}

size_t extnLength(const IcmpErrorSpec& s) {
   size_t n = IcmpExtnHdr::kSize + (s.node ? nodeObjLength(*s.node) : 0);
   for (const auto& o : s.intfs)
      n += intfObjLength(o);
   return n;
}

size_t quoteLength(const IcmpErrorSpec& s) {
   if (s.withExtensions)
      return kIcmpExtnQuoteLength;
   size_t cap = s.af == AddressFamily::ipv6 ? kIcmp6ErrorMaxQuote : kIcmpErrorMaxQuote;
   return std::min(s.datagram.size(), cap);
}

// Writers over a zeroed buffer; each returns the offset after what it wrote.
size_t putAddr(std::span<uint8_t> b, size_t at, const IpGenAddr& a) {
   store16(b, at, a.isV4() ? kAfiIpv4 : kAfiIpv6);
   std::copy(a.bytes().begin(), a.bytes().end(), b.begin() + static_cast<ptrdiff_t>(at + 4));
   return at + addrSubObjLength(a);
}

size_t putName(std::span<uint8_t> b, size_t at, const std::string& name) {
   size_t n = nameField(name);
   b[at] = static_cast<uint8_t>(nameSubObjLength(name));
   std::copy_n(name.begin(), n, b.begin() + static_cast<ptrdiff_t>(at + 1));
   return at + nameSubObjLength(name);
}

size_t putObjHdr(std::span<uint8_t> b, size_t at, size_t len, uint8_t classNum, uint8_t cType) {
   store16(b, at, static_cast<uint16_t>(len));
   b[at + 2] = classNum;
   b[at + 3] = cType;
   return at + IcmpExtnObjHdr::kSize;
}

size_t putIntfObj(std::span<uint8_t> b, size_t at, const IcmpIntfInfoObject& o) {
   uint8_t cType = static_cast<uint8_t>(static_cast<uint8_t>(o.role) << 6);
   cType |= (o.ifIndex ? kHasIfIndex : 0) | (hasAddr(o.addr) ? kHasAddr : 0) |
            (o.name.empty() ? 0 : kHasName) | (o.mtu ? kHasMtu : 0);
   size_t p = putObjHdr(b, at, intfObjLength(o), kIcmpExtnClassIntfInfo, cType);
   if (o.ifIndex) {
      store32(b, p, o.ifIndex);
      p += 4;
   }
   if (hasAddr(o.addr))
      p = putAddr(b, p, o.addr);
   if (!o.name.empty())
      p = putName(b, p, o.name);
   if (o.mtu) {
      store32(b, p, o.mtu);
      p += 4;
   }
   return p;
}

size_t putNodeObj(std::span<uint8_t> b, size_t at, const IcmpNodeIdObject& o) {
   uint8_t codePoint = o.classNum;
   RAVEL_ASSERT_MSG(!!codePoint, "Unexpected, undefined codepoint.");
   uint8_t cType = kHasName | (hasAddr(o.addr) ? kHasAddr : 0);
   size_t p = putObjHdr(b, at, nodeObjLength(o), codePoint, cType);
   if (hasAddr(o.addr))
      p = putAddr(b, p, o.addr);
   return putName(b, p, o.hostName);
}

}  // namespace

const char* toString(IcmpIntfRole role) {
   switch (role) {
      case IcmpIntfRole::incoming:
         return "incoming";
      case IcmpIntfRole::subIp:
         return "subIp";
      case IcmpIntfRole::outgoing:
         return "outgoing";
      case IcmpIntfRole::nextHop:
         return "nextHop";
   }
   return "unknown";
}

size_t icmpErrorLength(const IcmpErrorSpec& spec) {
   return IcmpHdr::kSize + quoteLength(spec) + (spec.withExtensions ? extnLength(spec) : 0);
}

size_t buildIcmpError(const IcmpErrorSpec& spec, std::span<uint8_t> out) {
   size_t len = icmpErrorLength(spec);
   RAVEL_ASSERT(out.size() >= len);
   std::span<uint8_t> m = out.first(len);
   std::fill(m.begin(), m.end(), uint8_t{0});
   bool v6 = spec.af == AddressFamily::ipv6;
   m[0] = spec.type;
   m[1] = spec.code;
   if (!v6 && spec.type == kIcmpDestUnreach && spec.code == kIcmpCodeFragNeeded)
      store16(m, 6, static_cast<uint16_t>(spec.restOfHeader));  // RFC 1191 next-hop MTU
   if (!v6 && spec.type == kIcmpParamProblem)
      m[4] = static_cast<uint8_t>(spec.restOfHeader >> 24);  // the pointer (RFC 792)
   size_t quote = std::min(spec.datagram.size(), quoteLength(spec));
   std::copy_n(spec.datagram.begin(), quote, m.begin() + kPayloadAt);
   if (spec.withExtensions) {
      // RFC 4884 length of the 128-byte original datagram field: 32-bit words in ICMP (byte 5),
      // 64-bit words in ICMPv6 (byte 4).
      if (v6)
         m[4] = kIcmpExtnQuoteLength / 8;
      else
         m[5] = kIcmpExtnQuoteLength / 4;
      m[kExtnAt] = 2 << 4;  // version 2
      size_t p = kExtnAt + IcmpExtnHdr::kSize;
      for (const auto& o : spec.intfs)
         p = putIntfObj(m, p, o);
      if (spec.node)
         p = putNodeObj(m, p, *spec.node);
      RAVEL_ASSERT(p == len);
      store16(m, kExtnAt + 2, internetChecksum(m.subspan(kExtnAt)));
   }
   if (!v6)
      store16(m, 2, internetChecksum(m));
   return len;
}

std::vector<uint8_t> buildIcmpError(const IcmpErrorSpec& spec) {
   std::vector<uint8_t> m(icmpErrorLength(spec));
   buildIcmpError(spec, m);
   return m;
}

const char* toString(IcmpParseError e) {
   switch (e) {
      case IcmpParseError::none:
         return "none";
      case IcmpParseError::truncatedHeader:
         return "truncated ICMP header";
      case IcmpParseError::notAnError:
         return "not an ICMP error RFC 4884 extends";
      case IcmpParseError::badChecksum:
         return "bad ICMP checksum";
      case IcmpParseError::lengthBelowMinimum:
         return "original datagram field under 128 bytes";
      case IcmpParseError::lengthBeyondMessage:
         return "original datagram field past the message";
      case IcmpParseError::truncatedExtnHeader:
         return "truncated extension header";
      case IcmpParseError::badExtnVersion:
         return "bad extension version";
      case IcmpParseError::badExtnChecksum:
         return "bad extension checksum";
      case IcmpParseError::truncatedObject:
         return "truncated extension object header";
      case IcmpParseError::badObjectLength:
         return "bad extension object length";
      case IcmpParseError::truncatedSubObject:
         return "truncated sub-object";
      case IcmpParseError::badAfi:
         return "bad address family identifier";
      case IcmpParseError::badNameLength:
         return "bad interface name length";
      case IcmpParseError::trailingBytes:
         return "trailing bytes in object";
      case IcmpParseError::duplicateNodeObject:
         return "more than one node identification object";
   }
   return "unknown";
}

namespace {

// Consumes a span from the front; every read checks the length first.
class Reader {
 public:
   explicit Reader(std::span<const uint8_t> b) : b_(b) {}
   size_t left() const { return b_.size(); }
   uint8_t peek() const { return b_[0]; }
   std::span<const uint8_t> take(size_t n) {
      auto r = b_.first(n);
      b_ = b_.subspan(n);
      return r;
   }
   uint16_t u16() {
      auto r = take(2);
      return static_cast<uint16_t>(r[0] << 8 | r[1]);
   }
   uint32_t u32() {
      auto r = take(4);
      return uint32_t{r[0]} << 24 | uint32_t{r[1]} << 16 | uint32_t{r[2]} << 8 | r[3];
   }

 private:
   std::span<const uint8_t> b_;
};

// The RFC 5837 sub-objects of an object body, in C-Type order; fills the fields present.
IcmpParseError readSubObjects(std::span<const uint8_t> body, uint8_t cType, IcmpIntfInfoObject& o) {
   Reader r(body);
   if (cType & kHasIfIndex) {
      if (r.left() < 4)
         return IcmpParseError::truncatedSubObject;
      o.ifIndex = r.u32();
   }
   if (cType & kHasAddr) {
      if (r.left() < 4)
         return IcmpParseError::truncatedSubObject;
      uint16_t afi = r.u16();
      r.take(2);  // reserved
      size_t n = afi == kAfiIpv4 ? 4 : afi == kAfiIpv6 ? 16 : 0;
      if (!n)
         return IcmpParseError::badAfi;
      if (r.left() < n)
         return IcmpParseError::truncatedSubObject;
      o.addr = *IpGenAddr::fromBytes(r.take(n));
   }
   if (cType & kHasName) {
      if (r.left() < 1)
         return IcmpParseError::truncatedSubObject;
      size_t n = r.peek();
      if (n == 0 || n > kIcmpIntfNameMaxLength + 1)
         return IcmpParseError::badNameLength;
      if (r.left() < n)
         return IcmpParseError::truncatedSubObject;
      auto name = r.take(n).subspan(1);
      while (!name.empty() && name.back() == 0)
         name = name.first(name.size() - 1);
      o.name.assign(name.begin(), name.end());
   }
   if (cType & kHasMtu) {
      if (r.left() < 4)
         return IcmpParseError::truncatedSubObject;
      o.mtu = r.u32();
   }
   return r.left() ? IcmpParseError::trailingBytes : IcmpParseError::none;
}

bool extendedType(AddressFamily af, uint8_t type) {
   if (af == AddressFamily::ipv6)
      return type == kIcmp6DestUnreach || type == kIcmp6TimeExceeded;
   return type == kIcmpDestUnreach || type == kIcmpTimeExceeded || type == kIcmpParamProblem;
}

IcmpParseError readExtensions(std::span<const uint8_t> extn, const IcmpParseOptions& opts,
                              IcmpErrorMessage& msg) {
   if (extn.size() < IcmpExtnHdr::kSize)
      return IcmpParseError::truncatedExtnHeader;
   IcmpExtnHdr h(extn);
   if (h.version() != 2)
      return IcmpParseError::badExtnVersion;
   // RFC 4884 section 7: a zero checksum means none was sent.
   if (h.checksum() != 0 && internetChecksum(extn) != 0)
      return IcmpParseError::badExtnChecksum;
   msg.hasExtensions = true;
   msg.extnChecksum = h.checksum();
   Reader r(extn.subspan(IcmpExtnHdr::kSize));
   while (r.left()) {
      if (r.left() < IcmpExtnObjHdr::kSize)
         return IcmpParseError::truncatedObject;
      IcmpExtnObjHdr obj(extn.subspan(extn.size() - r.left()));
      if (obj.length() < IcmpExtnObjHdr::kSize || obj.length() > r.left())
         return IcmpParseError::badObjectLength;
      auto body = r.take(obj.length()).subspan(IcmpExtnObjHdr::kSize);
      if (obj.classNum() == kIcmpExtnClassIntfInfo) {
         IcmpIntfInfoObject o;
         o.role = static_cast<IcmpIntfRole>(obj.cType() >> 6);
         if (auto e = readSubObjects(body, obj.cType(), o); e != IcmpParseError::none)
            return e;
         msg.intfs.push_back(std::move(o));
      } else if (opts.nodeIdClassNum != 0 && obj.classNum() == opts.nodeIdClassNum) {
         if (msg.node)
            return IcmpParseError::duplicateNodeObject;
         IcmpIntfInfoObject o;
         if (auto e = readSubObjects(body, obj.cType(), o); e != IcmpParseError::none)
            return e;
         msg.node = IcmpNodeIdObject{obj.classNum(), o.addr, std::move(o.name)};
      } else {
         msg.otherObjects.push_back(
             {obj.classNum(), obj.cType(), std::vector<uint8_t>(body.begin(), body.end())});
      }
   }
   return IcmpParseError::none;
}

IcmpParseResult failed(IcmpParseError e) {
   return IcmpParseResult{std::nullopt, e};
}

}  // namespace

IcmpParseResult parseIcmpError(std::span<const uint8_t> icmp, const IcmpParseOptions& opts) {
   if (icmp.size() < IcmpHdr::kSize)
      return failed(IcmpParseError::truncatedHeader);
   bool v6 = opts.af == AddressFamily::ipv6;
   IcmpHdr h(icmp);
   if (!extendedType(opts.af, h.type()))
      return failed(IcmpParseError::notAnError);
   if (v6) {
      if (opts.src.isV6() && opts.dst.isV6() &&
          Icmp6Hdr(icmp).computedChecksum(opts.src, opts.dst, static_cast<uint32_t>(icmp.size())) !=
              0)
         return failed(IcmpParseError::badChecksum);
   } else if (internetChecksum(icmp) != 0) {
      return failed(IcmpParseError::badChecksum);
   }
   IcmpErrorMessage msg;
   msg.type = h.type();
   msg.code = h.code();
   msg.checksum = h.checksum();
   msg.restOfHeader = h.restOfHeader();
   if (!v6 && h.type() == kIcmpDestUnreach && h.code() == kIcmpCodeFragNeeded)
      msg.nextHopMtu = static_cast<uint16_t>(msg.restOfHeader);
   msg.lengthField = v6 ? icmp[4] : icmp[5];
   auto payload = icmp.subspan(kPayloadAt);
   // RFC 4884 section 5: a zero length is the plain form, the whole payload quoting the
   // datagram. The section 5.5 heuristic for senders that extend without the length is not
   // applied: this codec's peers set it.
   size_t quote = msg.lengthField * (v6 ? 8 : 4);
   if (quote == 0)
      quote = payload.size();
   else if (quote < kIcmpExtnQuoteLength)
      return failed(IcmpParseError::lengthBelowMinimum);
   else if (quote > payload.size())
      return failed(IcmpParseError::lengthBeyondMessage);
   msg.quote.assign(payload.begin(), payload.begin() + static_cast<ptrdiff_t>(quote));
   if (quote < payload.size()) {
      if (auto e = readExtensions(payload.subspan(quote), opts, msg); e != IcmpParseError::none)
         return failed(e);
   }
   return IcmpParseResult{std::move(msg), IcmpParseError::none};
}

}  // namespace Ravel
