#include "error/datapath/EBPFIcmpPacketInfo.h"

#include "IcmpPktInfo.h"
#include "platform/core/Assert.h"

namespace Ravel::ErrorResponder {

uint32_t EBPFIcmpPacketInfo::ifIndex() const {
   RAVEL_ASSERT(pktInfo() != NULL);
   return pktInfo_->ifindex;
}

Ptr<EBPFIcmpPacketInfo> eBPFIcmpPacketInfoFactory(const packet_info* record) {
   return make<EBPFIcmpPacketInfo>(record);
}

}  // namespace Ravel::ErrorResponder
