#pragma once

// The access lists the error responder filters with: one aggregate made from the lists of every
// configuration source ("acl/config/input") and the lists configured on the device
// ("acl/config/cli").

#include "platform/core/Notifier.h"
#include "platform/store/Acl.h"

namespace Ravel::ErrorResponder {

// Keeps `aclConfig` equal, per family and name, to the union of `aclInput` and `aclCli`. A name
// in both sources takes the cli list: the device's own configuration is what the operator
// last said, and another source must not silently override it. A list leaves the aggregate as
// soon as neither source has it. The aggregate's per-family objects are never replaced, only
// their lists, so a reader holding `aclConfig->of(af)` follows every change.
class AclConfigAggregatorSm : public Node {
 public:
   AclConfigAggregatorSm(Ptr<AclInput> aclInput, Ptr<AclConfig> aclCli, Ptr<AclConfig> aclConfig);

   void handleInitialized();
   // A list of `af` named `name` was added, changed or removed in either source.
   void handleAcl(AddressFamily af, const std::string& name);

   const Ptr<AclInput>& aclInput() const { return aclInput_; }
   const Ptr<AclConfig>& aclCli() const { return aclCli_; }
   const Ptr<AclConfig>& aclConfig() const { return aclConfig_; }

 private:
   Ptr<AclInput> aclInput_;
   Ptr<AclConfig> aclCli_;
   Ptr<AclConfig> aclConfig_;
   Subscription subs_[4];  // input v4, input v6, cli v4, cli v6
};

}  // namespace Ravel::ErrorResponder
