#include "probe/ExtendedEchoReply.h"

#include <linux/icmpv6.h>
#include <netinet/ip_icmp.h>

#include "platform/core/Assert.h"
#include "platform/values/Checksum.h"
#include "platform/values/PacketHeaders.h"

namespace Ravel::ProbeResponder {

void writeExtendedEchoReply(std::span<uint8_t> icmp, AddressFamily af,
                            const ProbeHandlerResult& handlerResult) {
   RAVEL_ASSERT(icmp.size() >= IcmpHdr::kSize);
   bool v4 = af == AddressFamily::ipv4;
   icmp[0] = v4 ? ICMP_EXT_ECHOREPLY : ICMPV6_EXT_ECHO_REPLY;
   icmp[1] = static_cast<uint8_t>(handlerResult.icmpCode);
   store16(icmp, 2, 0);
   store32(icmp, 4, handlerResult.reply);
   if (v4)
      store16(icmp, 2, internetChecksum(icmp));
}

}  // namespace Ravel::ProbeResponder
