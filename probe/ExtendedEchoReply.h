#pragma once

#include <cstdint>
#include <span>

#include "platform/values/Values.h"
#include "probe/ProbeHandlerResult.h"

namespace Ravel::ProbeResponder {

// Turns a request's ICMP or ICMPv6 message, in place, into its Extended Echo Reply (RFC 8335
// section 3): type, code and bytes 4-7 rewritten, everything after byte 7 returned as it came.
// The IPv4 checksum is filled; the ICMPv6 one is left 0 for the sending socket. The message
// holds at least the 8-byte header.
void writeExtendedEchoReply(std::span<uint8_t> icmp, AddressFamily af,
                            const ProbeHandlerResult& handlerResult);

}  // namespace Ravel::ProbeResponder
