#pragma once

#include <cstdint>
#include <string_view>

#include "platform/core/Ptr.h"
#include "probe/RequestedInterface.h"

namespace Ravel::ProbeResponder {

enum class ParseResultCode : uint8_t {
   good = 0,
   malformedPacket = 1,   // dropped without reply: IP, ICMP or extension structure fault
   malformedRequest = 2,  // answered with Malformed Query: Interface Identification Object fault
};
const char* toString(ParseResultCode c);
// Throws std::invalid_argument for an unknown name.
ParseResultCode parseResultCodeFromString(std::string_view name);

// The parsed request. identifier, seq and localNode are views of `request` (bytes 4-7 of the
// Extended Echo Request header).
class PacketParserResult : public Node {
 public:
   uint32_t request = 0;
   RequestedInterface interface;

   uint16_t identifier() const { return static_cast<uint16_t>(request >> 16); }
   void identifierIs(uint16_t v) { request = (request & 0x0000ffffu) | (uint32_t{v} << 16); }
   uint8_t seq() const { return static_cast<uint8_t>(request >> 8); }
   void seqIs(uint8_t v) { request = (request & 0xffff00ffu) | (uint32_t{v} << 8); }
   bool localNode() const { return request & 1u; }  // the L bit
};

inline Ptr<PacketParserResult> packetParserResultFactory() {
   return make<PacketParserResult>();
}

}  // namespace Ravel::ProbeResponder
