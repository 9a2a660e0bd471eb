#pragma once

// Configuration and kernel-program parameters of the extended ICMP error responder
// (RFC 4884 extension structures carrying RFC 5837 interface and node information).

#include <cstdint>
#include <iosfwd>
#include <string>

#include "platform/store/Entity.h"
#include "platform/values/Values.h"

namespace Ravel::ErrorResponder {

// A boolean that may be unset. "Disabled" means set and false: unset is not disabled, so a VRF
// left unset follows the global setting and an unset global setting blocks nothing.
struct TriState {
   bool value = false;
   bool isSet = false;
   static TriState unset() { return {}; }
   static TriState of(bool v) { return {v, true}; }
   bool disabled() const { return isSet && !value; }
   bool operator==(const TriState&) const = default;
   const char* str() const { return !isSet ? "unset" : value ? "true" : "false"; }
};
std::ostream& operator<<(std::ostream& os, const TriState& t);

// What the node identification object says for one VRF; empty members are left out of it.
struct NodeIdVrfConfig {
   IpGenAddr ipv4;
   IpGenAddr ipv6;
   IntfId interface;
   bool empty() const { return *this == NodeIdVrfConfig{}; }
   bool operator==(const NodeIdVrfConfig&) const = default;
   std::string str() const;
};
std::ostream& operator<<(std::ostream& os, const NodeIdVrfConfig& n);

class VrfConfig : public Node {
 public:
   explicit VrfConfig(VrfName n) : vrfName(std::move(n)) {}
   const VrfName vrfName;
   Attr<TriState> enabled;
   Attr<std::string> v4AclName;  // empty: no list
   Attr<std::string> v6AclName;
   Attr<NodeIdVrfConfig> nodeIdConfig;
};

// "icmp/errorResponder/config"
class Config : public Entity {
   RAVEL_ENTITY_TYPE(Config, "Icmp::ErrorResponder::Config")
 public:
   Attr<TriState> enabled;
   Attr<bool> addHostName;
   Attr<uint8_t> nodeIdCodePoint;  // 0: no node identification object
   Collection<VrfName, Ptr<VrfConfig>> vrfConfig;
};

class EbpfVrfConfigEntry : public Node {
 public:
   EbpfVrfConfigEntry(VrfName n, NsInode i) : vrfName(std::move(n)), nsInode(i) {}
   const VrfName vrfName;
   const NsInode nsInode;
};

// "icmp/errorResponder/ebpfConfig": the enabled VRFs and their namespace inodes, indexed both
// ways, and the kernel programs' table sizes. Two writers, disjoint members: the agent writes
// the two maps, the configuration only the sizes.
class EbpfConfig : public Entity {
   RAVEL_ENTITY_TYPE(EbpfConfig, "Icmp::ErrorResponder::EbpfConfig")
 public:
   // Keeps the existing entry when its inode is unchanged, so readers see no change. A new
   // inode replaces the entry by name only: the caller moves the inode index itself.
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
   Attr<uint32_t> ringBufSz;  // bytes; 0: the program's default
   Attr<uint32_t> vrfMapSz;   // entries; 0: the program's default
};

}  // namespace Ravel::ErrorResponder

RAVEL_STR_FORMATTER(Ravel::ErrorResponder::TriState);
RAVEL_STR_FORMATTER(Ravel::ErrorResponder::NodeIdVrfConfig);
