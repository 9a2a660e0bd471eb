#include "platform/store/Acl.h"

#include <charconv>

namespace Ravel {

const char* toString(AclAction a) {
   return a == AclAction::permit ? "permit" : "deny";
}

std::optional<IpPrefix> IpPrefix::parse(std::string_view text, AddressFamily af) {
   IpPrefix p;
   if (text == "any") {
      p.addr = af == AddressFamily::ipv6 ? *IpGenAddr::parse("::") : *IpGenAddr::parse("0.0.0.0");
      return p;
   }
   auto slash = text.find('/');
   auto a = IpGenAddr::parse(text.substr(0, slash));
   if (!a || (af != AddressFamily::ipunknown && a->af() != af))
      return std::nullopt;
   unsigned max = a->isV4() ? 32 : 128;
   unsigned len = max;
   if (slash != std::string_view::npos) {
      auto s = text.substr(slash + 1);
      auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), len);
      if (ec != std::errc() || ptr != s.data() + s.size() || s.empty() || len > max) {
         return std::nullopt;
      }
   }
   p.addr = *a;
   p.len = static_cast<uint8_t>(len);
   auto b = a->bytes();
   for (unsigned bit = len; bit < max; ++bit) {
      if (b[bit / 8] & (0x80 >> (bit % 8)))
         return std::nullopt;
   }
   return p;
}

bool IpPrefix::contains(std::span<const uint8_t> other) const {
   auto mine = addr.bytes();
   if (other.size() != mine.size())
      return false;
   unsigned full = len / 8, rest = len % 8;
   for (unsigned i = 0; i < full; ++i) {
      if (mine[i] != other[i])
         return false;
   }
   if (rest) {
      uint8_t mask = static_cast<uint8_t>(0xff << (8 - rest));
      if ((mine[full] & mask) != (other[full] & mask))
         return false;
   }
   return true;
}

std::string IpPrefix::str() const {
   return len == 0 ? "any" : addr.str() + "/" + std::to_string(len);
}

namespace {
AclMatch match(const AclList& acl, uint8_t proto, std::span<const uint8_t> src,
               std::span<const uint8_t> dst) {
   for (auto& r : acl.rules) {
      if (r.protocol && *r.protocol != proto)
         continue;
      if (!r.source.contains(src) || !r.destination.contains(dst))
         continue;
      return {true, r.action};
   }
   return {};
}
}  // namespace

AclMatch matchesAcl(const AclList& acl, uint8_t protocol, const IpGenAddr& src,
                    const IpGenAddr& dst) {
   if (src.af() != acl.af || dst.af() != acl.af)
      return {};
   return match(acl, protocol, src.bytes(), dst.bytes());
}

AclMatch matchesIpAcl(const AclList& acl, std::span<const uint8_t> h) {
   if (h.size() < 20 || (h[0] >> 4) != 4)
      return {};
   return match(acl, h[9], h.subspan(12, 4), h.subspan(16, 4));
}

AclMatch matchesIp6Acl(const AclList& acl, std::span<const uint8_t> h) {
   if (h.size() < 40 || (h[0] >> 4) != 6)
      return {};
   return match(acl, h[6], h.subspan(8, 16), h.subspan(24, 16));
}

RAVEL_REGISTER_ENTITY(AclConfig);
RAVEL_REGISTER_ENTITY(AclInput);

}  // namespace Ravel
