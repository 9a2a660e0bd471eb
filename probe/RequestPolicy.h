#pragma once

#include <functional>

#include "platform/core/Ptr.h"
#include "platform/store/Acl.h"
#include "platform/store/IntfTables.h"
#include "platform/store/NetSchema.h"
#include "platform/values/Values.h"
#include "probe/PacketParserResult.h"
#include "probe/ProbeSchema.h"

namespace Ravel::ProbeResponder {

// What the configuration lets through (RFC 8335 section 6), and which local interface a
// request names. The tables belong to the root state machine, which keeps them filled.
class RequestPolicy {
 public:
   // A VRF namespace's devices by kernel ifIndex; null when not known.
   using KniOf = std::function<Ptr<KniNsStatus>(const VrfName&)>;
   // The ACL sources: the configuration's lists, and the operator's, which win on a name.
   RequestPolicy(Ptr<Config> config, Ptr<IntfIdByIfIndex> intfIdByIfIndex,
                 Ptr<AllIntfAddrVrfTable> allIntfAddrVrfTable, Ptr<AclConfig> aclInput,
                 Ptr<AclConfig> aclCli, KniOf kniOf);

   // Decides on the L bit and the kind of identification only.
   bool requestAllowed(const VrfName& vrf, const PacketParserResult& result) const;
   // Whether the source may ask what it asks (RFC 8335 section 4): permitted by the ACL named
   // for the request's kind. No list named: every source; a list named but not (yet) defined:
   // none, since a list meant to restrict must not open up while it is missing.
   bool sourceAuthorized(const PacketParserResult& result, const IpGenAddr& src,
                         const IpGenAddr& dst) const;
   // The interface a local request names; the empty IntfId when there is none. A name is
   // normalised, not looked up: existence and VRF are the handler's to check.
   IntfId determineInterface(const VrfName& requestVrf, const PacketParserResult& result) const;

 private:
   Ptr<Config> config_;
   Ptr<IntfIdByIfIndex> intfIdByIfIndex_;
   Ptr<AllIntfAddrVrfTable> allIntfAddrVrfTable_;
   Ptr<AclConfig> aclInput_;
   Ptr<AclConfig> aclCli_;
   KniOf kniOf_;
};

}  // namespace Ravel::ProbeResponder
