#pragma once

#include <cstdint>
#include <span>

#include "platform/values/Values.h"
#include "probe/PacketParserResult.h"
#include "probe/ProbeSchema.h"

namespace Ravel::ProbeResponder {

// Scratch of one parse.
struct IntermediateParserResult {
   uint8_t code = 0;       // the request's ICMP code; nothing depends on it
   uint32_t pktBytes = 0;  // bytes of the ICMP message accounted for so far
   // Where the ICMP message starts in the received bytes: the IPv4 header length, 0 for IPv6.
   uint32_t icmpOffset = 0;
   // From the extension header to the end of the message.
   std::span<const uint8_t> extnHdr;
   void pktBytesInc(int32_t n) {
      pktBytes = static_cast<uint32_t>(static_cast<int32_t>(pktBytes) + n);
   }
};

// The RFC 8335 section 2 PROBE request parser over the bytes a PAM delivered: an ICMP Extended
// Echo Request (from the IPv4 header on) or an ICMPv6 one (the message only), then an RFC 4884
// extension whose first object identifies the interface. It only reads the bytes; each
// failure counts one Status counter and traces once.
class RequestParser {
 public:
   explicit RequestParser(Status& status) : status_(status) {}

   // The family is the source's. src and dst also make the ICMPv6 pseudo-header.
   ParseResultCode parsePacket(std::span<const uint8_t> bytes, const IpGenAddr& src,
                               const IpGenAddr& dst, IntermediateParserResult& im,
                               PacketParserResult& result) const;

   // The stages, in order, each run only after the previous one returned good.
   ParseResultCode parseIcmp4(std::span<const uint8_t> bytes, IntermediateParserResult& im,
                              PacketParserResult& result) const;
   ParseResultCode parseIcmp6(std::span<const uint8_t> icmp, const IpGenAddr& src,
                              const IpGenAddr& dst, IntermediateParserResult& im,
                              PacketParserResult& result) const;
   ParseResultCode parseExtendedIcmp(std::span<const uint8_t> icmp,
                                     IntermediateParserResult& im) const;
   ParseResultCode parseExtendedIcmpObject(const IntermediateParserResult& im,
                                           PacketParserResult& result) const;

 private:
   Status& status_;
};

}  // namespace Ravel::ProbeResponder
