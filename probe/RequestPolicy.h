#pragma once

#include "platform/core/Ptr.h"
#include "platform/store/IntfTables.h"
#include "platform/values/Values.h"
#include "probe/PacketParserResult.h"
#include "probe/ProbeSchema.h"

namespace Ravel::ProbeResponder {

// What the configuration lets through (RFC 8335 section 6), and which local interface a
// request names. The tables belong to the root state machine, which keeps them filled.
class RequestPolicy {
 public:
   RequestPolicy(Ptr<Config> config, Ptr<IntfIdByIfIndex> intfIdByIfIndex,
                 Ptr<AllIntfAddrVrfTable> allIntfAddrVrfTable);

   // Decides on the L bit and the kind of identification only.
   bool requestAllowed(const PacketParserResult& result) const;
   // The interface a local request names; the empty IntfId when there is none. A name is
   // normalised, not looked up: existence and VRF are the handler's to check.
   IntfId determineInterface(const VrfName& requestVrf, const PacketParserResult& result) const;

 private:
   Ptr<Config> config_;
   Ptr<IntfIdByIfIndex> intfIdByIfIndex_;
   Ptr<AllIntfAddrVrfTable> allIntfAddrVrfTable_;
};

}  // namespace Ravel::ProbeResponder
