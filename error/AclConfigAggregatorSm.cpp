#include "error/AclConfigAggregatorSm.h"

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ErrorResponderAclAggregator");

namespace Ravel::ErrorResponder {

namespace {

constexpr AddressFamily kFamilies[] = {AddressFamily::ipv4, AddressFamily::ipv6};

}  // namespace

AclConfigAggregatorSm::AclConfigAggregatorSm(Ptr<AclInput> aclInput, Ptr<AclConfig> aclCli,
                                             Ptr<AclConfig> aclConfig)
    : aclInput_(std::move(aclInput)), aclCli_(std::move(aclCli)), aclConfig_(std::move(aclConfig)) {
   RAVEL_ASSERT(aclInput_);
   RAVEL_ASSERT(aclCli_);
   RAVEL_ASSERT(aclConfig_);
   size_t i = 0;
   for (const AclConfig* source : {static_cast<const AclConfig*>(aclInput_.get()),
                                   static_cast<const AclConfig*>(aclCli_.get())}) {
      for (AddressFamily af : kFamilies) {
         RAVEL_ASSERT(source->of(af));
         subs_[i++] = source->of(af)->acl.subscribe(
             [this, af](const std::string& name) { handleAcl(af, name); });
      }
   }
   handleInitialized();
}

void AclConfigAggregatorSm::handleInitialized() {
   TRACE(3, "handleInitialized");
   for (AddressFamily af : kFamilies) {
      std::vector<std::string> names;
      for (const AclConfig* c : {static_cast<const AclConfig*>(aclInput_.get()),
                                 static_cast<const AclConfig*>(aclCli_.get()),
                                 static_cast<const AclConfig*>(aclConfig_.get())})
         for (auto& [name, list] : c->of(af)->acl)
            names.push_back(name);
      for (auto& name : names)
         handleAcl(af, name);
   }
}

void AclConfigAggregatorSm::handleAcl(AddressFamily af, const std::string& name) {
   const AclList* list = aclCli_->list(af, name);
   if (!list)
      list = aclInput_->list(af, name);
   AclTypeConfig& dst = *aclConfig_->of(af);
   if (list) {
      if (dst.acl.is(name, *list))
         TRACE(4, "{} acl {} set ({} rules)", af, name, list->rules.size());
   } else if (dst.acl.del(name)) {
      TRACE(4, "{} acl {} removed", af, name);
   }
}

}  // namespace Ravel::ErrorResponder
