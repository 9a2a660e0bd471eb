#pragma once

// Views of one ring-buffer record as the packet-info processor receives them.

#include <cstdint>

#include "error/datapath/ErrorResponderEbpfHelper.h"

struct packet_info;

namespace Ravel::ErrorResponder {

// Points into the ring buffer: valid only during the sample callback that made it.
class EBPFIcmpPacketInfo : public EBPFIcmpPacketInfoBase {
 public:
   explicit EBPFIcmpPacketInfo(const packet_info* record) : pktInfo_(record) {}
   const packet_info* pktInfo() const { return pktInfo_; }
   uint32_t ifIndex() const override;
   const void* data() const override { return pktInfo_; }

 private:
   const packet_info* pktInfo_;
};
Ptr<EBPFIcmpPacketInfo> eBPFIcmpPacketInfoFactory(const packet_info* record);

}  // namespace Ravel::ErrorResponder
