#pragma once

// Fills the state store from the running kernel and keeps it live.
//
// VRFs: the default VRF is the daemon's own namespace; every file "ns-<vrf>" of the namespace
// directory that is a mounted network namespace is VRF <vrf> (NetnsWatcher). Other files, names
// longer than VrfName::kMaxLen and "ns-default" are ignored. "ip/vrf/status/local" holds the
// non-default VRFs: active, with the inode of the namespace (nsfs, not of the file under the
// mount). A namespace that goes, or is replaced by another one, takes with it everything that
// came from it. VRF ids are stable for the process's life: default is 0, others are numbered as
// first seen, and "vrf/vrfIdMapStatus" lists the VRFs present.
//
// Per namespace (NetlinkNamespace, NamespacePublisher):
// - interfaces: the default VRF's devices keep their kernel names; a device of VRF red is
//   "red/<dev>" (Linux forbids '/' in device names, so names that collide across namespaces,
//   like every namespace's "lo", stay distinct). Oper status is up when the device is up and
//   has carrier (IFF_UP and IFF_RUNNING). "interface/ifIndex/all" is the default namespace's.
// - "ip/status" has an entry exactly for the interfaces with an IPv4 address (ipv4Running is
//   then true): primary is the first address the kernel lists (primaries before secondaries,
//   narrower scope first, then in the order added), the others are secondary.
// - "ip6/status" has an entry exactly for the interfaces with a usable IPv6 address, link-local
//   included: Linux runs IPv6 on an interface exactly when it has one (disable_ipv6 removes them
//   all), which is what RFC 8335 asks of "IPv6 running". Tentative addresses (DAD not done,
//   not optimistic) and DAD failures are not usable and not listed.
// - ARP/ND entries in states REACHABLE, STALE, DELAY, PROBE or PERMANENT with a link-layer
//   address; incomplete, failed, none and no-ARP ones are not neighbours one can vouch for.
//   Bridge FDB entries are not neighbours either.
// - "kni/ns/<ns>/status": <ns> is "default" for the agent's own namespace and the namespace
//   file's name ("ns-red") for the others; the entity is deleted with its namespace.

#include <map>
#include <memory>
#include <string>

#include "platform/core/Scheduler.h"
#include "platform/linux/NetStatePublisher.h"
#include "platform/linux/NetlinkNamespace.h"
#include "platform/linux/NetnsWatcher.h"
#include "platform/store/EntityManager.h"
#include "platform/store/NetSchema.h"

namespace Ravel {

class LinuxStateProvider {
 public:
   // Mounts (or reuses) the entities and publishes the current state before returning. Throws
   // std::runtime_error when an entity path holds another type or the agent's own namespace
   // cannot be read.
   LinuxStateProvider(Scheduler& sched, Ptr<EntityManager> em, std::string netnsDir);
   ~LinuxStateProvider();
   LinuxStateProvider(const LinuxStateProvider&) = delete;
   LinuxStateProvider& operator=(const LinuxStateProvider&) = delete;

   // Kernel namespace name of a VRF's published interfaces: "default" or "ns-<vrf>".
   static std::string kniName(const VrfName& vrf);
   // Namespaces being read, the agent's own included.
   size_t namespaceCount() const { return vrfs_.size(); }

 private:
   struct Vrf {
      NsInode inode = 0;
      Ptr<KniNsStatus> kni;
      std::unique_ptr<NamespacePublisher> publisher;
      std::unique_ptr<NetlinkNamespace> netlink;
   };

   void netnsChanged(const NetnsFiles& files);
   bool addVrf(const VrfName& vrf, const std::string& path, NsInode inode);
   void removeVrf(const VrfName& vrf);
   VrfId vrfIdOf(const VrfName& vrf);

   Scheduler& sched_;
   Ptr<EntityManager> em_;
   NetStateEntities entities_;
   Ptr<AllVrfStatusLocal> vrfStatus_;
   Ptr<VrfIdMapStatus> vrfIds_;
   std::map<VrfName, VrfId> ids_;  // kept when a VRF goes, so that it comes back with its id
   VrfId nextId_ = 1;
   std::map<VrfName, std::unique_ptr<Vrf>> vrfs_;
   std::unique_ptr<NetnsWatcher> watcher_;
};

}  // namespace Ravel
