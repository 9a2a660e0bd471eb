#pragma once

// Builds the ICMP or ICMPv6 error for one kernel record, plain or with the RFC 4884 extension
// structure (RFC 5837 interface information, optional node identification), and sends it on
// the VRF's PAM.

#include <cstdint>
#include <optional>
#include <string>

#include "bpf/IcmpPktInfo.h"
#include "error/ErrorResponderCounterSm.h"
#include "error/datapath/InterfaceLookupHelper.h"
#include "pam/PamRecords.h"
#include "platform/core/RateLimit.h"
#include "platform/values/Pkt.h"
#include "wire/IcmpExtension.h"

namespace Ravel::ErrorResponder {

// Lets an nftables rule tell the errors we send from the ones the kernel sends.
constexpr uint32_t kErrorReplySockMark = 42;
constexpr int kErrorReplyTtl = 64;

struct ReplyPktMetadata {
   IcmpIntfInfo inIntfInfo;
   IcmpIntfInfo outIntfInfo;  // valid for a packet the router was forwarding
   IpGenAddr nextHop;         // where it was forwarding it; unset when not
   bool addHostName = false;
   IpGenAddr hostIdAddr;         // node identification address; may be unspecified
   uint8_t nodeIdCodePoint = 0;  // 0: no node identification object
   Disclosure disclosure;        // what the VRF's interface objects tell
   IpGenAddr dstReplyIp;
   IpGenAddr srcReplyIp;
   bool valid = false;  // the interface information was found

   bool operator==(const ReplyPktMetadata&) const = default;
   explicit operator bool() const { return *this != ReplyPktMetadata{}; }
   std::string str() const;
};

// The node's host name as the node identification object and qualified names carry it.
std::string systemHostName();

class IcmpErrReplyHandler : public Node {
 public:
   IcmpErrReplyHandler(Ptr<PamCollection> pamCollection, Ptr<ErrorResponderStats> stats);

   // The record must outlive the following create and send calls.
   virtual void setPacketContext(const packet_info& pktInfo, const ReplyPktMetadata& metadata,
                                 AddressFamily af);
   // Whether the message built carries extensions: none when there is nothing to disclose.
   virtual bool createIcmpErrPacket(bool withExtensions) = 0;
   virtual bool sendIcmpReply(bool withExtensions, const VrfName& vrfName) = 0;

   // What the built message says, the codec's input.
   IcmpErrorSpec errorSpec(bool withExtensions) const;

   const Ptr<Pkt>& pkt() const { return pkt_; }
   void pktDel() { pkt_ = nullptr; }
   const ReplyPktMetadata& metadata() const { return metadata_; }
   // The system's host name, read at each use so that a rename shows at once; a name set
   // here replaces it.
   std::string hostName() const { return hostName_ ? *hostName_ : systemHostName(); }
   void hostNameIs(std::string n) { hostName_ = std::move(n); }

 protected:
   bool buildInto(size_t bufferSize, bool withExtensions);
   bool send(bool withExtensions, const VrfName& vrfName);

   Ptr<PamCollection> pamCollection_;
   Ptr<ErrorResponderStats> stats_;
   const packet_info* pktInfo_ = nullptr;
   ReplyPktMetadata metadata_;
   AddressFamily af_ = AddressFamily::ipunknown;
   RateLimit failureReports_{10};
   Ptr<Pkt> pkt_;
   std::optional<std::string> hostName_;
};

class IcmpErrV4ReplyHandler : public IcmpErrReplyHandler {
 public:
   static constexpr size_t kBufferSize = 576;  // RFC 1812 section 4.3.2.3
   using IcmpErrReplyHandler::IcmpErrReplyHandler;
   bool createIcmpErrPacket(bool withExtensions) override;
   bool sendIcmpReply(bool withExtensions, const VrfName& vrfName) override;
};

// The ICMPv6 checksum is left 0: the PAM's raw socket fills it with the pseudo-header.
class IcmpErrV6ReplyHandler : public IcmpErrReplyHandler {
 public:
   static constexpr size_t kBufferSize = 1280;  // RFC 4443 section 2.4
   using IcmpErrReplyHandler::IcmpErrReplyHandler;
   bool createIcmpErrPacket(bool withExtensions) override;
   bool sendIcmpReply(bool withExtensions, const VrfName& vrfName) override;
};

}  // namespace Ravel::ErrorResponder

RAVEL_STR_FORMATTER(Ravel::ErrorResponder::ReplyPktMetadata);
