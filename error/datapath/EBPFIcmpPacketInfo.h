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

// For tests: a record built by the test, with the interface index given separately.
class EBPFIcmpPacketTestInfo : public EBPFIcmpPacketInfoBase {
 public:
   explicit EBPFIcmpPacketTestInfo(uint32_t ifIndex) : ifIndex_(ifIndex) {}
   void pktInfoIs(const packet_info* record) { pktInfo_ = record; }
   // The record's address as a harness outside C++ hands it over.
   void fillPktInfo_py(uint64_t address) {
      pktInfo_ = reinterpret_cast<const packet_info*>(address);
   }
   uint32_t ifIndex() const override { return ifIndex_; }
   const void* data() const override { return pktInfo_; }

 private:
   uint32_t ifIndex_;
   const packet_info* pktInfo_ = nullptr;
};

}  // namespace Ravel::ErrorResponder
