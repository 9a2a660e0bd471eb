#pragma once

#include "platform/linux/IpPam.h"
#include "platform/store/Entity.h"
#include "platform/values/Values.h"

namespace Ravel {

// The VRFs for which a responder wants PAMs.
class PamConfig : public Node {
 public:
   void vrfIs(const VrfName& n) { vrf.is(n); }
   bool vrfDel(const VrfName& n) { return vrf.del(n); }
   void vrfDelAll() { vrf.delAll(); }
   bool vrfHas(const VrfName& n) const { return vrf.has(n); }

   NotifyingSet<VrfName> vrf;
};

// The PAMs created for one VRF.
class PamVrfStatus : public Node {
 public:
   PamVrfStatus(VrfName name, NsInode inode) : vrfName_(std::move(name)), nsInode_(inode) {}
   const VrfName& vrfName() const { return vrfName_; }
   NsInode nsInode() const { return nsInode_; }
   bool probeEnabled() const { return probeEnabled_(); }
   void probeEnabledIs(bool v) { probeEnabled_.set(v); }

 private:
   const VrfName vrfName_;
   const NsInode nsInode_;
   Attr<bool> probeEnabled_;
};

// The open PAM of each (VRF, family).
class PamCollection : public Node {
 public:
   // Inserts, replaces, or with a null pam deletes; the same pam again changes nothing.
   void pamIs(const VrfNameAndAddressFamily& key, const Ptr<IpPam>& pam);
   Ptr<IpPam> pamDel(const VrfNameAndAddressFamily& key);
   void pamDelAll() { pam.delAll(); }
   Ptr<IpPam> pamGet(const VrfNameAndAddressFamily& key) const { return pam.get(key); }

   Collection<VrfNameAndAddressFamily, Ptr<IpPam>> pam;
};

// Thrown when a record is re-created with different immutable fields.
struct ReinstantiationError : std::logic_error {
   using std::logic_error::logic_error;
};

class PamStatus : public Node {
 public:
   PamStatus() { pamCollectionIs(); }
   ~PamStatus() override;

   // Returns the existing record for the name when its inode matches; creates one when there
   // is none; throws ReinstantiationError when one exists with another inode.
   Ptr<PamVrfStatus> vrfStatusIs(const VrfName& name, NsInode inode);
   Ptr<PamVrfStatus> vrfStatusDel(const VrfName& name);
   void vrfStatusDelAll() { vrfStatus.delAll(); }

   const Ptr<PamCollection>& pamCollection() const { return pamCollection_; }
   void pamCollectionIs() {
      if (!pamCollection_)
         pamCollection_ = make<PamCollection>();
   }
   void pamCollectionDel() { pamCollection_.reset(); }

   Collection<VrfName, Ptr<PamVrfStatus>> vrfStatus;

 private:
   Ptr<PamCollection> pamCollection_;
};

}  // namespace Ravel
