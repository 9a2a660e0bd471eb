#pragma once

// Decides, for one kernel record of one family, which error the agent sends: with the RFC 5837
// extensions, or in plain RFC 792 / RFC 4443 form when the VRF's ACL refuses them or the
// interface cannot be found. Records of namespaces no longer enabled get no reply.

#include <functional>
#include <string>

#include "bpf/IcmpPktInfo.h"
#include "error/ErrorResponderCounterSm.h"
#include "error/ErrorResponderTypes.h"
#include "error/datapath/ErrorResponderEbpfHelper.h"
#include "error/datapath/ErrorResponderEbpfpacket.h"
#include "error/datapath/InterfaceLookupHelper.h"
#include "pam/PamRecords.h"
#include "platform/store/Acl.h"

namespace Ravel::ErrorResponder {

enum class AclFilterAction : uint8_t { extensions, noExtensionsByDeny, noExtensionsByDefault };
const char* toString(AclFilterAction a);

struct IcmpErrPktInfoProcessorInputs {
   AddressFamily af = AddressFamily::ipunknown;
   Ptr<IntfLookupHelper> intfLookupHelper;
   Ptr<PamCollection> pamCollection;
   Ptr<Config> config;
   Ptr<EbpfVrfStatus> ebpfVrfStatus;  // the family's
   Ptr<AclTypeConfig> aclTypeConfig;  // the family's lists, by name
   Ptr<ErrorResponderStats> stats;
   Ptr<EbpfConfig> ebpfConfig;
   // A record of the VRF that got no error from us: its kernel error may have been dropped.
   std::function<void(const VrfName&)> replacementLost;
};

class IcmpErrPktInfoProcessor : public Node {
 public:
   explicit IcmpErrPktInfoProcessor(IcmpErrPktInfoProcessorInputs inputs);

   void handleInitialized();
   // One record; its memory need only be valid during the call.
   void processPacketInfo(const packet_info& pktInfo);
   // A record as the ring-buffer callback hands it over (its size already checked).
   void processPacketInfo(const EBPFIcmpPacketInfoBase& pktInfo) {
      processPacketInfo(*static_cast<const packet_info*>(pktInfo.data()));
   }

   bool nsValidate(const packet_info& pktInfo) const;
   VrfName getVrf(const packet_info& pktInfo) const;
   AclFilterAction aclFilterAction(const packet_info& pktInfo, const VrfName& vrfName) const;
   bool aclFilterResult(const packet_info& pktInfo, const VrfName& vrfName) const {
      return aclFilterAction(pktInfo, vrfName) == AclFilterAction::extensions;
   }
   ReplyPktMetadata fetchMetadata(const packet_info& pktInfo, const VrfName& vrfName) const;
   IpGenAddr hostIdentifierAddress(const VrfName& vrfName) const;
   // Where a forwarded packet was going: the route's gateway, else its own destination.
   IpGenAddr nextHop(const packet_info& pktInfo) const;
   std::string dumpPacketInfo(const packet_info& pktInfo) const;

   AddressFamily af() const { return in_.af; }
   const Ptr<IcmpErrReplyHandler>& replyHandler() const { return replyHandler_; }

 private:
   void lost(const VrfName& vrf) const;

   IcmpErrPktInfoProcessorInputs in_;
   Ptr<IcmpErrReplyHandler> replyHandler_;
};

using IcmpPktInfoProcessor = IcmpErrPktInfoProcessor;

}  // namespace Ravel::ErrorResponder
