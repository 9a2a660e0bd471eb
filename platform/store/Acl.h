#pragma once

// Named IPv4/IPv6 access lists over IP header fields, first match wins.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/store/Entity.h"
#include "platform/values/Values.h"

namespace Ravel {

enum class AclAction : uint8_t { permit, deny };
const char* toString(AclAction a);

struct IpPrefix {
   IpGenAddr addr;  // host bits clear
   uint8_t len = 0;
   // "any" (the /0 of `af`, IPv4 when af is unknown), "a.b.c.d/n", "x::/n", or a bare address
   // (a host prefix). nullopt when malformed, of another family than a known `af`, or with host
   // bits set: "10.0.0.1/8" is more likely a typo than a wish for 10/8.
   static std::optional<IpPrefix> parse(std::string_view text, AddressFamily af);
   // `addr` is 4 or 16 bytes in network order; the other family never matches.
   bool contains(std::span<const uint8_t> addr) const;
   std::string str() const;  // "any" for /0
   bool operator==(const IpPrefix&) const = default;
};

struct AclRule {
   AclAction action = AclAction::deny;
   IpPrefix source;
   IpPrefix destination;
   std::optional<uint8_t> protocol;  // none: any
   bool operator==(const AclRule&) const = default;
};

struct AclList {
   std::string name;
   AddressFamily af = AddressFamily::ipv4;
   std::vector<AclRule> rules;
   bool operator==(const AclList&) const = default;
};

struct AclMatch {
   bool matched = false;
   AclAction action = AclAction::deny;  // meaningful only when matched
};

// Over the IP header at the start of the span, whose version nibble must be the list's. The
// IPv6 protocol is the fixed header's next header: extension header chains are not followed,
// so a rule on a transport protocol does not match a packet with extension headers. A
// truncated header matches nothing.
AclMatch matchesIpAcl(const AclList& acl, std::span<const uint8_t> ipv4Header);
// Over the fields themselves, for packets whose header the socket keeps (IPv6 raw sockets).
AclMatch matchesAcl(const AclList& acl, uint8_t protocol, const IpGenAddr& src,
                    const IpGenAddr& dst);
AclMatch matchesIp6Acl(const AclList& acl, std::span<const uint8_t> ipv6Header);

// The lists of one family, by name.
class AclTypeConfig : public Node {
 public:
   Collection<std::string, AclList> acl;
};

// "acl/config/cli": the lists as configured. "acl/config/input" (AclInput) is the aggregate of
// every configuration source. It is a separate object kept equal to the cli lists rather than
// one object mounted twice: the state store types each path on its own, and with a second
// source the aggregate would stop being any single source. A reader merges the two (the error
// responder's AclConfigAggregatorSm, where a cli list wins over an input list of its name).
class AclConfig : public Entity {
   RAVEL_ENTITY_TYPE(AclConfig, "Acl::Config")
 public:
   Ptr<AclTypeConfig> ipv4 = make<AclTypeConfig>();
   Ptr<AclTypeConfig> ipv6 = make<AclTypeConfig>();
   const Ptr<AclTypeConfig>& of(AddressFamily af) const {
      return af == AddressFamily::ipv6 ? ipv6 : ipv4;
   }
   // Null when no such list exists (yet).
   const AclList* list(AddressFamily af, const std::string& name) const {
      return of(af)->acl.find(name);
   }
};

class AclInput : public AclConfig {
   RAVEL_ENTITY_TYPE(AclInput, "Acl::Input")
};

}  // namespace Ravel
