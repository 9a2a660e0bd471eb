#pragma once

// Decides, before a request is queued, whether it is worth any work (RFC 8335 sections 4 and 8):
// it must be sent to one of our unicast addresses, not to a broadcast or multicast one, and come
// within the configured rate, for all sources together and for its source's prefix. What it
// refuses costs a lookup and a counter, not a parse.

#include <map>
#include <utility>

#include "platform/core/Ptr.h"
#include "platform/core/RateLimit.h"
#include "platform/core/Scheduler.h"
#include "platform/store/IntfTables.h"
#include "platform/store/NetSchema.h"
#include "probe/ProbeSchema.h"

namespace Ravel::ProbeResponder {

enum class Admission : uint8_t { admitted, notUnicast, rateLimited };

class RequestAdmission : public Node {
 public:
   // Source prefixes tracked at once; past it, new sources wait for idle ones to be forgotten.
   static constexpr size_t kMaxSources = 16384;

   RequestAdmission(Ptr<Config> config, Ptr<IntfIdByIfIndex> intfIdByIfIndex,
                    Ptr<IpStatus> ipStatus, Scheduler& scheduler);

   Admission admit(const IpGenAddr& src, const IpGenAddr& dst, uint32_t rxIfIndex);
   size_t sources() const { return perSource_.size(); }

 private:
   bool broadcast(const IpGenAddr& dst, uint32_t rxIfIndex) const;
   void handleRateLimit();
   std::pair<IpGenAddr, uint8_t> sourceKey(const IpGenAddr& src) const;

   Ptr<Config> config_;
   Ptr<IntfIdByIfIndex> intfIdByIfIndex_;
   Ptr<IpStatus> ipStatus_;
   Scheduler& scheduler_;
   TokenBucket all_{0, 0};
   std::map<std::pair<IpGenAddr, uint8_t>, TokenBucket> perSource_;
   Subscription rateSub_;
};

}  // namespace Ravel::ProbeResponder
