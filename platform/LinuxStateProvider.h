#pragma once

// Fills the state store from the running kernel and keeps it live.
//
// VRFs: the default VRF is the daemon's own namespace; every namespace file "ns-<vrf>" in the
// namespace directory is VRF <vrf> (watched with inotify; a file created by `ip netns add`
// becomes a namespace only when it is mounted, so new files are re-checked for a short while).
// VRF ids are stable for the process's life: default is 0, others are numbered as first seen.
//
// Per namespace, links, addresses and neighbours come from rtnetlink (libnl cache managers whose
// sockets are opened inside the namespace) and are published as:
// - interfaces: the default VRF's devices keep their kernel names; a device of VRF red is
//   "red/<dev>". Linux forbids '/' in device names, so names that collide across namespaces
//   (every namespace has "lo") stay distinct;
// - oper status up when the device is administratively up and has carrier (IFF_UP|IFF_RUNNING);
// - "ip/status" entries for interfaces with an IPv4 address: primary = lowest non-secondary
//   address, the rest secondary, ipv4Running true. "ip6/status" entries for interfaces with any
//   IPv6 address, link-local included (Linux runs IPv6 on an interface exactly when it has
//   one; disable_ipv6 removes them all), ipv6Running true;
// - ARP/ND entries in states REACHABLE, STALE, DELAY, PROBE or PERMANENT (incomplete, failed
//   and no-ARP entries are not neighbours one can vouch for);
// - "kni/ns/<ns>/status" with <ns> "default" or the namespace file name ("ns-red").

#include <map>
#include <memory>
#include <set>
#include <string>

#include "platform/EntityManager.h"
#include "platform/NetSchema.h"
#include "platform/Scheduler.h"

namespace Ravel {

class LinuxStateProvider {
 public:
   LinuxStateProvider(Scheduler& sched, Ptr<EntityManager> em, std::string netnsDir);
   ~LinuxStateProvider();
   LinuxStateProvider(const LinuxStateProvider&) = delete;
   LinuxStateProvider& operator=(const LinuxStateProvider&) = delete;

   // Kernel namespace name of a VRF's published interfaces: "default" or "ns-<vrf>".
   static std::string kniName(const VrfName& vrf);
   size_t namespaceCount() const { return namespaces_.size(); }

 private:
   struct Namespace;

   void scanDirectory();
   void handleInotify();
   std::unique_ptr<Namespace> openNamespace(const VrfName& vrf, const std::string& path,
                                            NsInode inode);
   void addNamespace(const VrfName& vrf, const std::string& path, NsInode inode);
   void reloadNamespace(const VrfName& vrf);
   void removeNamespace(const VrfName& vrf);
   void markDirty(const VrfName& vrf);
   void resync();
   void publish(Namespace& ns);
   void unpublish(Namespace& ns);
   VrfId vrfIdOf(const VrfName& vrf);

   Scheduler& sched_;
   Ptr<EntityManager> em_;
   std::string netnsDir_;
   Ptr<AllIntfStatusDir> intfs_;
   Ptr<IfIndexStatus> ifIndex_;
   Ptr<L3IntfStatusDir> l3_;
   Ptr<IpStatus> ip_;
   Ptr<Ip6Status> ip6_;
   Ptr<AllVrfStatusLocal> vrfs_;
   Ptr<ArpTableStatus> arp_;
   Ptr<VrfIdMapStatus> vrfIds_;
   std::map<VrfName, std::unique_ptr<Namespace>> namespaces_;
   std::map<VrfName, VrfId> ids_;
   VrfId nextId_ = 1;
   std::set<VrfName> dirty_;
   std::set<VrfName> stale_;
   Task resyncTask_;
   int inotifyFd_ = -1;
   bool dirWatched_ = false;
   std::unique_ptr<FdTask> inotifyTask_;
   // Re-checks the directory while it is missing or a new file is not yet a namespace.
   TimerTask rescanTimer_;
   int pendingRescans_ = 0;
};

}  // namespace Ravel
