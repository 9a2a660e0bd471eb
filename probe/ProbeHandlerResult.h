#pragma once

#include <netinet/ip_icmp.h>

#include <cstdint>

#include "platform/core/Ptr.h"

namespace Ravel::ProbeResponder {

// Extended Echo Reply codes (RFC 8335 section 3).
enum class ReplyCode : uint8_t {
   noError = 0,
   malformedQuery = ICMP_EXT_CODE_MAL_QUERY,
   noSuchInterface = ICMP_EXT_CODE_NO_IF,
   noSuchTableEntry = ICMP_EXT_CODE_NO_TABLE_ENT,
   multipleInterfaces = ICMP_EXT_CODE_MULT_IFS,
};

// Neighbour states of a remote reply (RFC 8335 section 3); only these two are sent.
enum class ReplyState : uint8_t { none = 0, reachable = 2 };

// The reply decision: code and bytes 4-7 of the Extended Echo Reply.
class ProbeHandlerResult : public Node {
 public:
   static constexpr uint32_t kActive = ICMP_EXT_ECHOREPLY_ACTIVE;
   static constexpr uint32_t kIpv4 = ICMP_EXT_ECHOREPLY_IPV4;
   static constexpr uint32_t kIpv6 = ICMP_EXT_ECHOREPLY_IPV6;
   ReplyCode icmpCode = ReplyCode::noError;
   // Identifier (31..16), sequence (15..8), State (7..5), reserved (4..3), A, 4, 6 (2..0).
   uint32_t reply = 0;
   void stateIs(ReplyState state) {
      reply = (reply & ~0xe0u) | (uint32_t{static_cast<uint8_t>(state) & 7u} << 5);
   }
   uint8_t state() const { return static_cast<uint8_t>((reply >> 5) & 7u); }
};

inline Ptr<ProbeHandlerResult> probeHandlerResultFactory() {
   return make<ProbeHandlerResult>();
}

}  // namespace Ravel::ProbeResponder
