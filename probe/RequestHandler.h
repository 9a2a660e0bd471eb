#pragma once

#include "platform/core/Ptr.h"
#include "platform/store/IntfTables.h"
#include "platform/store/NetSchema.h"
#include "probe/PacketParserResult.h"
#include "probe/ProbeHandlerResult.h"
#include "probe/ProbeSchema.h"
#include "probe/RequestPolicy.h"

namespace Ravel::ProbeResponder {

// Decides the reply to a well-formed, allowed request (RFC 8335 section 3): the code and,
// for a local request, the interface's A/4/6 bits, for a remote one the neighbour State.
// Each refusal counts once.
class RequestHandler {
 public:
   // Any state may be missing (a store without it): it then answers as if empty.
   RequestHandler(const RequestPolicy& policy, Ptr<AllIntfStatusDir> allIntfStatusDir,
                  Ptr<L3IntfStatusDir> l3IntfStatusDir, Ptr<IpStatus> ipStatus,
                  Ptr<Ip6Status> ip6Status, Ptr<ArpTableStatus> arpStatus,
                  Ptr<NameToIdMap> vrfNameToId, Status& status);

   // By the L bit. handlerResult.reply already carries the identifier and sequence.
   void handleRequest(const VrfName& requestVrf, const PacketParserResult& result,
                      ProbeHandlerResult& handlerResult) const;
   void handleLocalRequest(const VrfName& requestVrf, const PacketParserResult& result,
                           ProbeHandlerResult& handlerResult) const;
   void handleRemoteRequest(const VrfName& requestVrf, const PacketParserResult& result,
                            ProbeHandlerResult& handlerResult) const;

 private:
   const RequestPolicy& policy_;
   Ptr<AllIntfStatusDir> allIntfStatusDir_;
   Ptr<L3IntfStatusDir> l3IntfStatusDir_;
   Ptr<IpStatus> ipStatus_;
   Ptr<Ip6Status> ip6Status_;
   Ptr<ArpTableStatus> arpStatus_;
   Ptr<NameToIdMap> vrfNameToId_;
   Status& status_;
};

}  // namespace Ravel::ProbeResponder
