#pragma once

#include "platform/core/Ptr.h"
#include "platform/values/Pkt.h"
#include "platform/values/Values.h"

namespace Ravel::ProbeResponder {

// One received packet and, later, its reply (written into the same buffer).
class QueueEntry : public Node {
 public:
   IpGenAddr src;  // its family is the entry's
   IpGenAddr dst;
   Ptr<Pkt> pkt;
   VrfName vrf;
   uint32_t rxIfIndex = 0;  // arrival interface; the reply leaves through it (0: unknown)
};

inline Ptr<QueueEntry> queueEntryFactory() {
   return make<QueueEntry>();
}

}  // namespace Ravel::ProbeResponder
