#pragma once

// Configuration and kernel-program parameters of the extended ICMP error responder.

#include <cstdint>
#include <string>

#include "platform/Entity.h"
#include "platform/Values.h"

namespace Ravel::ErrorResponder {

// A boolean that may be unset. "Disabled" means set and false; unset is not disabled.
struct TriState {
   bool value = false;
   bool isSet = false;
   static TriState unset() { return {}; }
   static TriState of(bool v) { return {v, true}; }
   bool disabled() const { return isSet && !value; }
   bool operator==(const TriState&) const = default;
   const char* str() const { return !isSet ? "unset" : value ? "true" : "false"; }
};

// The node identification object's contents for one VRF (RFC 5837 style: addresses and an
// interface name); empty members are left out.
struct NodeIdVrfConfig {
   IpGenAddr ipv4;
   IpGenAddr ipv6;
   IntfId interface;
   bool operator==(const NodeIdVrfConfig&) const = default;
   std::string str() const;
};

class VrfConfig : public Node {
 public:
   explicit VrfConfig(VrfName n) : vrfName(std::move(n)) {}
   const VrfName vrfName;
   Attr<TriState> enabled;
   Attr<std::string> v4AclName;
   Attr<std::string> v6AclName;
   Attr<NodeIdVrfConfig> nodeIdConfig;
};

// "icmp/errorResponder/config"
class Config : public Entity {
   RAVEL_ENTITY_TYPE(Config, "Icmp::ErrorResponder::Config")
 public:
   Attr<TriState> enabled;
   Attr<bool> addHostName;
   Attr<uint8_t> nodeIdCodePoint;
   Collection<VrfName, Ptr<VrfConfig>> vrfConfig;
};

class EbpfVrfConfigEntry : public Node {
 public:
   EbpfVrfConfigEntry(VrfName n, NsInode i) : vrfName(std::move(n)), nsInode(i) {}
   const VrfName vrfName;
   const NsInode nsInode;
};

// "icmp/errorResponder/ebpfConfig": enabled VRFs and their namespace inodes, both ways, and
// the kernel programs' table sizes.
class EbpfConfig : public Entity {
   RAVEL_ENTITY_TYPE(EbpfConfig, "Icmp::ErrorResponder::EbpfConfig")
 public:
   Ptr<EbpfVrfConfigEntry> entryIs(const VrfName& n, NsInode inode) {
      auto e = entry.get(n);
      if (!e || e->nsInode != inode) {
         e = make<EbpfVrfConfigEntry>(n, inode);
         entry.is(n, e);
      }
      return e;
   }
   void entryDel(const VrfName& n) { entry.del(n); }
   void entryByInodeIs(NsInode inode, const Ptr<EbpfVrfConfigEntry>& e) {
      entryByInode.is(inode, e);
   }
   void entryByInodeDel(NsInode inode) { entryByInode.del(inode); }

   Collection<VrfName, Ptr<EbpfVrfConfigEntry>> entry;
   Collection<NsInode, Ptr<EbpfVrfConfigEntry>> entryByInode;
   Attr<uint32_t> ringBufSz;
   Attr<uint32_t> vrfMapSz;
};

}  // namespace Ravel::ErrorResponder
