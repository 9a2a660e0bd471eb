#include "probe/RequestHandler.h"

#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ProbeRequestHandler");

namespace Ravel::ProbeResponder {

namespace {
constexpr uint32_t kIdentifierAndSequence = 0xffffff00u;
}

RequestHandler::RequestHandler(const RequestPolicy& policy, Ptr<AllIntfStatusDir> allIntfStatusDir,
                               Ptr<L3IntfStatusDir> l3IntfStatusDir, Ptr<IpStatus> ipStatus,
                               Ptr<Ip6Status> ip6Status, Ptr<ArpTableStatus> arpStatus,
                               Ptr<NameToIdMap> vrfNameToId, Status& status)
    : policy_(policy),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      l3IntfStatusDir_(std::move(l3IntfStatusDir)),
      ipStatus_(std::move(ipStatus)),
      ip6Status_(std::move(ip6Status)),
      arpStatus_(std::move(arpStatus)),
      vrfNameToId_(std::move(vrfNameToId)),
      status_(status) {}

void RequestHandler::handleRequest(const VrfName& requestVrf, const PacketParserResult& result,
                                   ProbeHandlerResult& handlerResult) const {
   if (result.localNode()) {
      handleLocalRequest(requestVrf, result, handlerResult);
   } else {
      handleRemoteRequest(requestVrf, result, handlerResult);
   }
}

void RequestHandler::handleLocalRequest(const VrfName& requestVrf, const PacketParserResult& result,
                                        ProbeHandlerResult& handlerResult) const {
   IntfId intf = policy_.determineInterface(requestVrf, result);
   if (intf.empty()) {
      handlerResult.icmpCode = ReplyCode::noSuchInterface;
      status_.interfaceLookupFailedInc(1);
      return;
   }
   auto intfStatus = allIntfStatusDir_ ? allIntfStatusDir_->intfStatus.get(intf) : nullptr;
   auto l3 = l3IntfStatusDir_ ? l3IntfStatusDir_->intfStatus.get(intf) : nullptr;
   VrfName vrf = l3 ? l3->vrf() : VrfName::defaultVrf();
   TRACE(5, "intf {} intfStatus? {} l3IntfStatus? {} vrf {} requestVrf {}", intf, bool(intfStatus),
         bool(l3), vrf, requestVrf);
   // An interface of another VRF is not there as far as the requester is concerned.
   if (!intfStatus || vrf != requestVrf) {
      handlerResult.icmpCode = ReplyCode::noSuchInterface;
      status_.wrongVrfRequestedInc(1);
      return;
   }
   uint32_t bits = 0;
   if (intfStatus->operStatus() == OperStatus::up) {
      auto ip = ipStatus_ ? ipStatus_->ipIntfStatus.get(intf) : nullptr;
      auto ip6 = ip6Status_ ? ip6Status_->ip6IntfStatus.get(intf) : nullptr;
      bits = ProbeHandlerResult::kActive;
      if (ip && ip->ipv4Running())
         bits |= ProbeHandlerResult::kIpv4;
      if (ip6 && ip6->ipv6Running())
         bits |= ProbeHandlerResult::kIpv6;
   }
   handlerResult.reply = (handlerResult.reply & kIdentifierAndSequence) | bits;
   handlerResult.icmpCode = ReplyCode::noError;
}

void RequestHandler::handleRemoteRequest(const VrfName& requestVrf,
                                         const PacketParserResult& result,
                                         ProbeHandlerResult& handlerResult) const {
   handlerResult.reply &= kIdentifierAndSequence;
   if (!result.interface.containsIfAddr()) {
      status_.remoteRequestMalformedInc(1);
      handlerResult.icmpCode = ReplyCode::malformedQuery;
      return;
   }
   const IpGenAddr& addr = result.interface.ifAddrValue();
   const VrfId* vrfId = vrfNameToId_ ? vrfNameToId_->id.find(requestVrf) : nullptr;
   if (!vrfId) {
      TRACE(5, "No vrfId for vrf {}", requestVrf);
      handlerResult.icmpCode = ReplyCode::noSuchTableEntry;
      return;
   }
   // Entries of the address on any interface count; their state is not consulted.
   size_t matches = 0;
   if (arpStatus_ && (addr.isV4() || addr.isV6())) {
      const auto& table = addr.isV4() ? arpStatus_->arp : arpStatus_->nd;
      try {
         for (auto it = table.map().lower_bound({*vrfId, addr, IntfId()});
              it != table.end() && it->first.vrfId == *vrfId && it->first.addr == addr; ++it) {
            ++matches;
         }
      } catch (const SharedTableCorruption& e) {
         if (arpStatus_->corruptionHandler)
            arpStatus_->corruptionHandler(e.what());
      }
   }
   TRACE(5, "Matching {} in vrf {} arp/nd table (vrfId {}) resulted in {} matches", addr,
         requestVrf, *vrfId, matches);
   if (matches == 1) {
      handlerResult.icmpCode = ReplyCode::noError;
      handlerResult.stateIs(ReplyState::reachable);
   } else {
      handlerResult.icmpCode =
          matches == 0 ? ReplyCode::noSuchTableEntry : ReplyCode::multipleInterfaces;
   }
}

}  // namespace Ravel::ProbeResponder
