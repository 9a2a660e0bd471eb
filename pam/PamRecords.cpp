#include "pam/PamRecords.h"

#include <fmt/format.h>

namespace Ravel {

void PamCollection::pamIs(const VrfNameAndAddressFamily& key, const Ptr<IpPam>& p) {
   if (!p) {
      pam.del(key);
      return;
   }
   pam.is(key, p);
}

Ptr<IpPam> PamCollection::pamDel(const VrfNameAndAddressFamily& key) {
   Ptr<IpPam> old = pam.get(key);
   pam.del(key);
   return old;
}

PamStatus::~PamStatus() {
   vrfStatusDelAll();
   pamCollectionDel();
}

Ptr<PamVrfStatus> PamStatus::vrfStatusIs(const VrfName& name, NsInode inode) {
   if (auto existing = vrfStatus.get(name)) {
      if (existing->nsInode() == inode)
         return existing;
      throw ReinstantiationError(fmt::format("PamVrfStatus {} exists with nsInode {}, not {}",
                                             name.str(), existing->nsInode(), inode));
   }
   auto s = make<PamVrfStatus>(name, inode);
   vrfStatus.is(name, s);
   return s;
}

Ptr<PamVrfStatus> PamStatus::vrfStatusDel(const VrfName& name) {
   Ptr<PamVrfStatus> old = vrfStatus.get(name);
   vrfStatus.del(name);
   return old;
}

}  // namespace Ravel
