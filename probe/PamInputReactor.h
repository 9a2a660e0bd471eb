#pragma once

#include "pam/PamRecords.h"
#include "platform/core/Notifier.h"
#include "platform/core/Ptr.h"
#include "platform/linux/IpPam.h"
#include "probe/ProbeSchema.h"
#include "probe/Queues.h"
#include "probe/RequestAdmission.h"

namespace Ravel::ProbeResponder {

// Reads every packet waiting on one PAM into the input queue, unless a queue is over its limit.
class PamInputReactor : public Node {
 public:
   PamInputReactor(VrfNameAndAddressFamily key, Ptr<IpPam> pam, Ptr<Queues> queues,
                   Ptr<Config> config, Ptr<Status> status, Ptr<RequestAdmission> admission);
   void handlePamReadable();
   const VrfNameAndAddressFamily& key() const { return key_; }
   const Ptr<IpPam>& pam() const { return pam_; }

 private:
   VrfNameAndAddressFamily key_;
   Ptr<IpPam> pam_;
   Ptr<Queues> queues_;
   Ptr<Config> config_;
   Ptr<Status> status_;
   Ptr<RequestAdmission> admission_;
   Subscription sub_;
};

}  // namespace Ravel::ProbeResponder
