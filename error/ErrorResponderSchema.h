#pragma once

// Configuration and kernel-program parameters of the extended ICMP error responder
// (RFC 4884 extension structures carrying RFC 5837 interface and node information).

#include <array>
#include <cstdint>
#include <iosfwd>
#include <map>
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

// The sub-objects an interface information object of one role carries (RFC 5837 section 4.1);
// none: the role's object is left out.
struct IntfDisclosure {
   bool ifIndex = false;
   bool address = false;
   bool name = false;
   bool mtu = false;
   static IntfDisclosure all() { return {true, true, true, true}; }
   bool any() const { return ifIndex || address || name || mtu; }
   bool operator==(const IntfDisclosure&) const = default;
};

// What a VRF's errors tell, per role. The ACLs decide to whom; this decides what.
struct Disclosure {
   IntfDisclosure incoming = IntfDisclosure::all();
   IntfDisclosure outgoing;
   IntfDisclosure nextHop;  // the neighbour: its address only
   bool operator==(const Disclosure&) const = default;
};

class VrfConfig : public Node {
 public:
   explicit VrfConfig(VrfName n) : vrfName(std::move(n)) {}
   const VrfName vrfName;
   Attr<TriState> enabled;
   Attr<std::string> v4AclName;  // empty: no list
   Attr<std::string> v6AclName;
   Attr<NodeIdVrfConfig> nodeIdConfig;
   Attr<Disclosure> disclosure;
};

// "icmp/errorResponder/config"
class Config : public Entity {
   RAVEL_ENTITY_TYPE(Config, "Icmp::ErrorResponder::Config")
 public:
   Attr<TriState> enabled;
   Attr<bool> addHostName;
   Attr<uint8_t> nodeIdCodePoint;  // 0: no node identification object
   // Drop the kernel's own unmarked errors where extended errors are enabled.
   Attr<bool> suppressKernelErrors{true};
   Collection<VrfName, Ptr<VrfConfig>> vrfConfig;
};

// Per-family counters of the records the kernel programs hand over.
enum class AfCounterId : uint8_t {
   ringBufQueued = 0,  // the kernel's own count, refreshed at each sync
   pktInfoReceived = 1,
   ringBufDropped = 2,  // the kernel's own count, refreshed at each sync
   invalidDataSize = 3,
   insufficientDataLen = 4,
   nsValidationFailed = 5,
   pktInfoProcessed = 6,
};
constexpr size_t kAfCounterCount = 7;
const char* toString(AfCounterId id);

// Per-VRF counters of the errors the responder sends.
enum class VrfCounterId : uint8_t {
   replyAttempted = 0,
   pamNotFound = 1,
   rfc792ErrorSent = 2,
   extendedErrorSent = 3,
   replySendFailed = 4,
   leftToKernel = 5,  // not ours to send: the kernel's own error goes through
};
constexpr size_t kVrfCounterCount = 6;
const char* toString(VrfCounterId id);

// Published counters of one VRF whose namespace is in a family's kernel filter.
class VrfStatus : public Node {
 public:
   explicit VrfStatus(VrfName n) : vrfName(std::move(n)) {}
   const VrfName vrfName;
   std::map<VrfCounterId, uint64_t> vrfCounter;
   // The kernel's own errors of this family are being dropped in the VRF (ours replace them).
   bool kernelErrorsDropped = false;
   void vrfCounterIs(VrfCounterId id, uint64_t v) { vrfCounter[id] = v; }
   void vrfCounterDelAll() { vrfCounter.clear(); }
   uint64_t counter(VrfCounterId id) const {
      auto it = vrfCounter.find(id);
      return it == vrfCounter.end() ? 0 : it->second;
   }
};

// One family whose kernel program is loaded.
class AfStatus : public Node {
 public:
   explicit AfStatus(AddressFamily a) : af(a) {}
   const AddressFamily af;
   std::map<AfCounterId, uint64_t> afCounter;
   Collection<VrfName, Ptr<VrfStatus>> vrfStatus;
   void afCounterIs(AfCounterId id, uint64_t v) { afCounter[id] = v; }
   void afCounterDelAll() { afCounter.clear(); }
   uint64_t counter(AfCounterId id) const {
      auto it = afCounter.find(id);
      return it == afCounter.end() ? 0 : it->second;
   }
   Ptr<VrfStatus> vrfStatusIs(const VrfName& n) {
      auto v = vrfStatus.get(n);
      if (!v) {
         v = make<VrfStatus>(n);
         vrfStatus.is(n, v);
      }
      return v;
   }
   void vrfStatusDel(const VrfName& n) { vrfStatus.del(n); }
};

// "icmp/errorResponder/status". Counters are plain values: readers poll them.
class Status : public Entity {
   RAVEL_ENTITY_TYPE(Status, "Icmp::ErrorResponder::Status")
 public:
   Collection<AddressFamily, Ptr<AfStatus>> afStatus;
   Ptr<AfStatus> afStatusIs(AddressFamily af) {
      auto s = afStatus.get(af);
      if (!s) {
         s = make<AfStatus>(af);
         afStatus.is(af, s);
      }
      return s;
   }
   void afStatusDel(AddressFamily af) { afStatus.del(af); }
   void afStatusDelAll() { afStatus.delAll(); }

   // VRFs refused because their namespace inode already belongs to another enabled VRF (two
   // names for one namespace): the kernel filter can only map an inode to one VRF.
   uint64_t nsInodeConflict = 0;
   void nsInodeConflictInc() { ++nsInodeConflict; }
   // Kernel program loads that failed; the family is tried again with backoff.
   uint64_t ebpfLoadFailed = 0;
   void ebpfLoadFailedInc() { ++ebpfLoadFailed; }
   // Families whose program is not loaded for want of a successful load: why, how often it
   // failed in a row, and when (scheduler clock, seconds) the next attempt is.
   struct LoadRetry {
      std::string error;
      uint32_t failures = 0;
      double nextAttempt = 0;
   };
   using LoadRetries = std::map<AddressFamily, LoadRetry>;
   LoadRetries loadRetry;
   // VRFs not written into a family's namespace filter (a full map): the kernel's errors go on
   // there. Tried again when another VRF leaves the map.
   uint64_t vrfMapAddFailed = 0;
   void vrfMapAddFailedInc() { ++vrfMapAddFailed; }
   // VRFs whose nftables filter of the kernel's own errors could not be installed; their
   // senders then get the kernel's error too.
   uint64_t kernelErrorFilterFailed = 0;
   void kernelErrorFilterFailedInc() { ++kernelErrorFilterFailed; }
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

template <>
struct fmt::formatter<Ravel::ErrorResponder::AfCounterId> : fmt::formatter<std::string_view> {
   auto format(Ravel::ErrorResponder::AfCounterId v, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(Ravel::ErrorResponder::toString(v), ctx);
   }
};
template <>
struct fmt::formatter<Ravel::ErrorResponder::VrfCounterId> : fmt::formatter<std::string_view> {
   auto format(Ravel::ErrorResponder::VrfCounterId v, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(Ravel::ErrorResponder::toString(v), ctx);
   }
};
