#pragma once

// Named IPv4/IPv6 access lists over IP header fields, first match wins.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Entity.h"
#include "platform/Values.h"

namespace Ravel {

enum class AclAction : uint8_t { permit, deny };
const char* toString(AclAction a);

struct IpPrefix {
   IpGenAddr addr;  // host bits cleared
   uint8_t len = 0;
   // "any", "a.b.c.d/n", "x::/n" or a bare address (a host prefix). nullopt when malformed,
   // of the wrong family (when af is known), or with host bits set.
   static std::optional<IpPrefix> parse(std::string_view text, AddressFamily af);
   bool contains(std::span<const uint8_t> addr) const;
   std::string str() const;
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
   AclAction action = AclAction::deny;
};

// Over the IP header at the start of `header`. IPv6 extension headers are not followed: the
// protocol is the fixed header's next header. A truncated header matches nothing.
AclMatch matchesIpAcl(const AclList& acl, std::span<const uint8_t> ipv4Header);
AclMatch matchesIp6Acl(const AclList& acl, std::span<const uint8_t> ipv6Header);

// The lists of one family, by name.
class AclTypeConfig : public Node {
 public:
   Collection<std::string, AclList> acl;
};

// "acl/config/cli" (what the operator configured) and "acl/config/input" (the aggregate the
// agents read). With one configuration source the two hold the same lists; the service keeps
// them in step.
class AclConfig : public Entity {
   RAVEL_ENTITY_TYPE(AclConfig, "Acl::Config")
 public:
   Ptr<AclTypeConfig> ipv4 = make<AclTypeConfig>();
   Ptr<AclTypeConfig> ipv6 = make<AclTypeConfig>();
   const Ptr<AclTypeConfig>& of(AddressFamily af) const {
      return af == AddressFamily::ipv6 ? ipv6 : ipv4;
   }
};

class AclInput : public AclConfig {
   RAVEL_ENTITY_TYPE(AclInput, "Acl::Input")
};

}  // namespace Ravel
