#include "platform/LinuxStateProvider.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <net/if.h>
#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/neighbour.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "platform/SocketPam.h"
#include "platform/Trace.h"

RAVEL_TRACE_CATEGORY("LinuxStateProvider");

#ifndef NSFS_MAGIC
#define NSFS_MAGIC 0x6e736673
#endif

namespace Ravel {

namespace {

constexpr int kTaskPriority = 2;
constexpr int kRescanAttempts = 40;  // 2 s at 50 ms: `ip netns add` mounts right after creating
constexpr Seconds kRescanInterval = 0.05;
constexpr Seconds kMissingDirInterval = 1.0;

struct LinkInfo {
   uint32_t ifindex;
   std::string name;
   uint32_t mtu;
   bool up;
};

struct AddrInfo {
   uint32_t ifindex;
   IpPrefixAddr addr;
   bool secondary;
};

struct NeighInfo {
   uint32_t ifindex;
   IpGenAddr addr;
   std::string mac;
};

std::optional<IpGenAddr> fromNlAddr(nl_addr* a) {
   if (!a)
      return std::nullopt;
   auto* p = static_cast<const uint8_t*>(nl_addr_get_binary_addr(a));
   return IpGenAddr::fromBytes({p, nl_addr_get_len(a)});
}

// An `ip netns add` file is a namespace once it is mounted; before that it is a plain file.
std::optional<NsInode> namespaceInode(const std::string& path) {
   int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0)
      return std::nullopt;
   struct statfs sfs {};
   struct stat st {};
   bool ok = ::fstatfs(fd, &sfs) == 0 && static_cast<unsigned long>(sfs.f_type) == NSFS_MAGIC &&
             ::fstat(fd, &st) == 0;
   ::close(fd);
   if (!ok)
      return std::nullopt;
   return static_cast<NsInode>(st.st_ino);
}

}  // namespace

struct LinuxStateProvider::Namespace {
   LinuxStateProvider* owner = nullptr;
   VrfName vrf;
   std::string path;
   NsInode inode = 0;
   nl_cache_mngr* mngr = nullptr;
   nl_cache* links = nullptr;
   nl_cache* addrs = nullptr;
   nl_cache* neighs = nullptr;
   std::unique_ptr<FdTask> task;
   Ptr<KniNsStatus> kni;
   // What this namespace published, so that it can be withdrawn.
   std::set<IntfId> intfs;
   std::set<uint32_t> ifIndexes;
   std::set<ArpKey> arp;
   std::set<ArpKey> nd;

   ~Namespace() {
      task.reset();
      if (mngr)
         nl_cache_mngr_free(mngr);
   }
};

std::string LinuxStateProvider::kniName(const VrfName& vrf) {
   return vrf.isDefault() ? "default" : vrf.nsName();
}

LinuxStateProvider::LinuxStateProvider(Scheduler& sched, Ptr<EntityManager> em,
                                       std::string netnsDir)
    : sched_(sched),
      em_(std::move(em)),
      netnsDir_(std::move(netnsDir)),
      resyncTask_(sched, "LinuxStateResync", kTaskPriority, [this] { resync(); }),
      rescanTimer_(sched, "NetnsRescan", kTaskPriority, [this] { scanDirectory(); }) {
   auto at = [this](const std::string& path, const char* type) { return em_->mount(path, type); };
   intfs_ = ptrCast<AllIntfStatusDir>(at("interface/status/all", AllIntfStatusDir::kTypeName));
   ifIndex_ = ptrCast<IfIndexStatus>(at("interface/ifIndex/all", IfIndexStatus::kTypeName));
   l3_ = ptrCast<L3IntfStatusDir>(at("l3/intf/status", L3IntfStatusDir::kTypeName));
   ip_ = ptrCast<IpStatus>(at("ip/status", IpStatus::kTypeName));
   ip6_ = ptrCast<Ip6Status>(at("ip6/status", Ip6Status::kTypeName));
   vrfs_ = ptrCast<AllVrfStatusLocal>(at("ip/vrf/status/local", AllVrfStatusLocal::kTypeName));
   arp_ = ptrCast<ArpTableStatus>(at("arp/status", ArpTableStatus::kTypeName));
   vrfIds_ = ptrCast<VrfIdMapStatus>(at("vrf/vrfIdMapStatus", VrfIdMapStatus::kTypeName));
   RAVEL_ASSERT(intfs_ && ifIndex_ && l3_ && ip_ && ip6_ && vrfs_ && arp_ && vrfIds_);

   ids_[VrfName::defaultVrf()] = 0;
   addNamespace(VrfName::defaultVrf(), "", 0);

   inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
   if (inotifyFd_ >= 0) {
      inotifyTask_ = std::make_unique<FdTask>(sched_, "NetnsWatch", kTaskPriority, inotifyFd_,
                                              [this] { handleInotify(); });
      inotifyTask_->taskWatchReadableIs(true);
   } else {
      TRACE(0, "inotify: {}", std::strerror(errno));
   }
   scanDirectory();
}

LinuxStateProvider::~LinuxStateProvider() {
   inotifyTask_.reset();
   if (inotifyFd_ >= 0)
      ::close(inotifyFd_);
   namespaces_.clear();
}

VrfId LinuxStateProvider::vrfIdOf(const VrfName& vrf) {
   auto it = ids_.find(vrf);
   if (it == ids_.end())
      it = ids_.emplace(vrf, nextId_++).first;
   return it->second;
}

void LinuxStateProvider::scanDirectory() {
   if (!dirWatched_ && inotifyFd_ >= 0) {
      uint32_t mask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF |
                      IN_MOVE_SELF | IN_ATTRIB;
      dirWatched_ = ::inotify_add_watch(inotifyFd_, netnsDir_.c_str(), mask) >= 0;
   }
   std::map<VrfName, std::pair<std::string, NsInode>> present;
   bool unsettled = false;
   if (DIR* d = ::opendir(netnsDir_.c_str())) {
      while (dirent* e = ::readdir(d)) {
         std::string name = e->d_name;
         if (!name.starts_with("ns-") || name.size() == 3)
            continue;
         if (name.size() - 3 > VrfName::kMaxLen) {
            TRACE(1, "ignoring namespace {}: VRF name longer than {} bytes", name,
                  VrfName::kMaxLen);
            continue;
         }
         std::string path = netnsDir_ + "/" + name;
         if (auto inode = namespaceInode(path)) {
            present[VrfName(name.substr(3))] = {path, *inode};
         } else {
            unsettled = true;
         }
      }
      ::closedir(d);
   }
   std::vector<VrfName> gone;
   for (auto& [vrf, ns] : namespaces_) {
      if (vrf.isDefault())
         continue;
      auto it = present.find(vrf);
      if (it == present.end() || it->second.second != ns->inode)
         gone.push_back(vrf);
   }
   for (auto& vrf : gone)
      removeNamespace(vrf);
   for (auto& [vrf, p] : present) {
      if (!namespaces_.count(vrf))
         addNamespace(vrf, p.first, p.second);
   }
   if (!dirWatched_) {
      rescanTimer_.scheduleTaskDelay(kMissingDirInterval);
   } else if (unsettled && pendingRescans_ > 0) {
      --pendingRescans_;
      rescanTimer_.scheduleTaskDelay(kRescanInterval);
   }
}

void LinuxStateProvider::handleInotify() {
   alignas(inotify_event) char buf[4096];
   bool selfGone = false;
   while (true) {
      ssize_t n = ::read(inotifyFd_, buf, sizeof buf);
      if (n <= 0)
         break;
      for (char* p = buf; p < buf + n;) {
         auto* ev = reinterpret_cast<inotify_event*>(p);
         if (ev->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED))
            selfGone = true;
         p += sizeof(inotify_event) + ev->len;
      }
   }
   if (selfGone)
      dirWatched_ = false;
   pendingRescans_ = kRescanAttempts;
   scanDirectory();
}

std::unique_ptr<LinuxStateProvider::Namespace> LinuxStateProvider::openNamespace(
    const VrfName& vrf, const std::string& path, NsInode inode) {
   auto ns = std::make_unique<Namespace>();
   ns->owner = this;
   ns->vrf = vrf;
   ns->path = path;
   ns->inode = inode;
   auto onChange = [](nl_cache*, nl_object*, int, void* arg) {
      auto* n = static_cast<Namespace*>(arg);
      n->owner->markDirty(n->vrf);
   };
   try {
      // The manager's sockets belong to the namespace they are created in.
      inNamespace(path, [&] {
         int err = nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, 0, &ns->mngr);
         if (err < 0)
            throw std::runtime_error(nl_geterror(err));
         for (auto [kind, cache] :
              {std::pair{"route/link", &ns->links}, std::pair{"route/addr", &ns->addrs},
               std::pair{"route/neigh", &ns->neighs}}) {
            err = nl_cache_mngr_add(ns->mngr, kind, onChange, ns.get(), cache);
            if (err < 0)
               throw std::runtime_error(std::string(kind) + ": " + nl_geterror(err));
         }
      });
   } catch (const std::exception& e) {
      // The namespace may have gone already; the next directory event settles it.
      TRACE(0, "cannot read namespace of VRF {}: {}", vrf, e.what());
      return nullptr;
   }
   Namespace* raw = ns.get();
   ns->task = std::make_unique<FdTask>(sched_, "Netlink " + kniName(vrf), kTaskPriority,
                                       nl_cache_mngr_get_fd(ns->mngr), [this, raw] {
                                          int err = nl_cache_mngr_data_ready(raw->mngr);
                                          if (err < 0) {
                                             // Lost notifications (a full socket buffer): the
                                             // caches can no longer be trusted; read afresh.
                                             TRACE(0, "VRF {} netlink: {}; reloading", raw->vrf,
                                                   nl_geterror(err));
                                             stale_.insert(raw->vrf);
                                             resyncTask_.scheduleTask();
                                          }
                                       });
   ns->task->taskWatchReadableIs(true);
   ns->kni = ptrCast<KniNsStatus>(
       em_->mount("kni/ns/" + kniName(vrf) + "/status", KniNsStatus::kTypeName));
   return ns;
}

void LinuxStateProvider::addNamespace(const VrfName& vrf, const std::string& path, NsInode inode) {
   auto ns = openNamespace(vrf, path, inode);
   if (!ns)
      return;
   TRACE(3, "VRF {} namespace {} inode {}", vrf, path.empty() ? "(own)" : path, inode);
   Namespace* raw = ns.get();
   namespaces_[vrf] = std::move(ns);
   publish(*raw);
   vrfIds_->vrfName.is(vrfIdOf(vrf), vrf);
   if (!vrf.isDefault()) {
      auto s = make<VrfStatusLocal>(vrf);
      s->state.set(VrfState::active);
      s->nsInode.set(inode);
      s->nsInodeValid.set(true);
      vrfs_->vrf.is(vrf, s);
   }
}

// Fresh caches for a namespace whose notifications were lost. What was published stays and
// is diffed against the new contents, so the VRF and its PAMs are not disturbed.
void LinuxStateProvider::reloadNamespace(const VrfName& vrf) {
   auto it = namespaces_.find(vrf);
   if (it == namespaces_.end())
      return;
   auto fresh = openNamespace(vrf, it->second->path, it->second->inode);
   if (!fresh)
      return;
   Namespace& old = *it->second;
   fresh->intfs = std::move(old.intfs);
   fresh->ifIndexes = std::move(old.ifIndexes);
   fresh->arp = std::move(old.arp);
   fresh->nd = std::move(old.nd);
   it->second = std::move(fresh);
   publish(*it->second);
}

void LinuxStateProvider::removeNamespace(const VrfName& vrf) {
   auto it = namespaces_.find(vrf);
   if (it == namespaces_.end())
      return;
   TRACE(3, "VRF {} namespace gone", vrf);
   vrfs_->vrf.del(vrf);
   unpublish(*it->second);
   em_->entityDel("kni/ns/" + kniName(vrf) + "/status");
   if (!vrf.isDefault())
      vrfIds_->vrfName.del(vrfIdOf(vrf));
   dirty_.erase(vrf);
   namespaces_.erase(it);
}

void LinuxStateProvider::markDirty(const VrfName& vrf) {
   dirty_.insert(vrf);
   resyncTask_.scheduleTask();
}

void LinuxStateProvider::resync() {
   // Re-created outside the namespace's own task, which a reload destroys.
   auto stale = std::move(stale_);
   stale_.clear();
   for (auto& vrf : stale) {
      auto it = namespaces_.find(vrf);
      if (it == namespaces_.end())
         continue;
      std::string path = it->second->path;
      NsInode inode = it->second->inode;
      removeNamespace(vrf);
      addNamespace(vrf, path, inode);
   }
   auto dirty = std::move(dirty_);
   dirty_.clear();
   for (auto& vrf : dirty) {
      if (auto it = namespaces_.find(vrf); it != namespaces_.end())
         publish(*it->second);
   }
}

void LinuxStateProvider::publish(Namespace& ns) {
   std::vector<LinkInfo> links;
   nl_cache_foreach(
       ns.links,
       [](nl_object* o, void* arg) {
          auto* l = reinterpret_cast<rtnl_link*>(o);
          const char* name = rtnl_link_get_name(l);
          unsigned flags = rtnl_link_get_flags(l);
          static_cast<std::vector<LinkInfo>*>(arg)->push_back(
              {static_cast<uint32_t>(rtnl_link_get_ifindex(l)), name ? name : "",
               rtnl_link_get_mtu(l), (flags & IFF_UP) && (flags & IFF_RUNNING)});
       },
       &links);
   std::vector<AddrInfo> addrs;
   nl_cache_foreach(
       ns.addrs,
       [](nl_object* o, void* arg) {
          auto* a = reinterpret_cast<rtnl_addr*>(o);
          auto ip = fromNlAddr(rtnl_addr_get_local(a));
          if (!ip)
             return;
          static_cast<std::vector<AddrInfo>*>(arg)->push_back(
              {static_cast<uint32_t>(rtnl_addr_get_ifindex(a)),
               {*ip, static_cast<uint8_t>(rtnl_addr_get_prefixlen(a))},
               (rtnl_addr_get_flags(a) & IFA_F_SECONDARY) != 0});
       },
       &addrs);
   std::vector<NeighInfo> neighs;
   nl_cache_foreach(
       ns.neighs,
       [](nl_object* o, void* arg) {
          auto* n = reinterpret_cast<rtnl_neigh*>(o);
          int state = rtnl_neigh_get_state(n);
          constexpr int kUsable = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;
          if (state < 0 || !(state & kUsable))
             return;
          auto ip = fromNlAddr(rtnl_neigh_get_dst(n));
          if (!ip)
             return;
          char mac[64] = "";
          if (nl_addr* ll = rtnl_neigh_get_lladdr(n))
             nl_addr2str(ll, mac, sizeof mac);
          static_cast<std::vector<NeighInfo>*>(arg)->push_back(
              {static_cast<uint32_t>(rtnl_neigh_get_ifindex(n)), *ip, mac});
       },
       &neighs);

   const VrfName& vrf = ns.vrf;
   std::map<uint32_t, IntfId> byIndex;
   std::set<IntfId> nowIntfs;
   std::set<uint32_t> nowIndexes;
   for (auto& l : links) {
      IntfId id = IntfId::forDevice(vrf, l.name);
      byIndex[l.ifindex] = id;
      nowIntfs.insert(id);
      nowIndexes.insert(l.ifindex);
      auto s = intfs_->intfStatus.get(id);
      bool fresh = !s;
      if (fresh)
         s = make<IntfStatus>(id);
      s->operStatus.set(l.up ? OperStatus::up : OperStatus::down);
      s->mtu.set(l.mtu);
      s->snmpIndex.set(l.ifindex);
      s->deviceName.set(l.name);
      if (fresh)
         intfs_->intfStatus.is(id, s);
      auto l3 = l3_->intfStatus.get(id);
      if (!l3) {
         l3 = make<L3IntfStatus>(id);
         l3->vrf.set(vrf);
         l3_->intfStatus.is(id, l3);
      }
      if (vrf.isDefault())
         ifIndex_->intfId.is(l.ifindex, id);
      if (ns.kni)
         ns.kni->intf.is(l.ifindex, {l.name, id});
   }

   std::map<IntfId, std::vector<AddrInfo>> v4, v6;
   for (auto& a : addrs) {
      auto it = byIndex.find(a.ifindex);
      if (it == byIndex.end())
         continue;
      (a.addr.addr.isV4() ? v4 : v6)[it->second].push_back(a);
   }
   for (auto& id : nowIntfs) {
      if (auto it = v4.find(id); it != v4.end()) {
         std::set<IpPrefixAddr> primaries, secondaries;
         for (auto& a : it->second)
            (a.secondary ? secondaries : primaries).insert(a.addr);
         IpPrefixAddr primary;
         if (!primaries.empty()) {
            primary = *primaries.begin();
            primaries.erase(primaries.begin());
         } else {
            primary = *secondaries.begin();
            secondaries.erase(secondaries.begin());
         }
         secondaries.insert(primaries.begin(), primaries.end());
         auto s = ip_->ipIntfStatus.get(id);
         bool fresh = !s;
         if (fresh)
            s = make<IpIntfStatus>(id);
         s->vrf.set(vrf);
         s->primaryAddr.set(primary);
         s->secondaryAddrs.set(secondaries);
         s->ipv4Running.set(true);
         if (fresh)
            ip_->ipIntfStatus.is(id, s);
      } else {
         ip_->ipIntfStatus.del(id);
      }
      if (auto it = v6.find(id); it != v6.end()) {
         std::set<IpPrefixAddr> all;
         for (auto& a : it->second)
            all.insert(a.addr);
         auto s = ip6_->ip6IntfStatus.get(id);
         bool fresh = !s;
         if (fresh)
            s = make<Ip6IntfStatus>(id);
         s->vrf.set(vrf);
         s->addrs.set(all);
         s->ipv6Running.set(true);
         if (fresh)
            ip6_->ip6IntfStatus.is(id, s);
      } else {
         ip6_->ip6IntfStatus.del(id);
      }
   }

   VrfId vrfId = vrfIdOf(vrf);
   std::set<ArpKey> nowArp, nowNd;
   for (auto& n : neighs) {
      auto it = byIndex.find(n.ifindex);
      if (it == byIndex.end())
         continue;
      ArpKey key{vrfId, n.addr, it->second};
      (n.addr.isV4() ? nowArp : nowNd).insert(key);
      (n.addr.isV4() ? arp_->arp : arp_->nd).is(key, {n.mac});
   }

   for (auto& id : ns.intfs) {
      if (nowIntfs.count(id))
         continue;
      ip_->ipIntfStatus.del(id);
      ip6_->ip6IntfStatus.del(id);
      l3_->intfStatus.del(id);
      intfs_->intfStatus.del(id);
   }
   for (uint32_t i : ns.ifIndexes) {
      if (nowIndexes.count(i))
         continue;
      if (vrf.isDefault())
         ifIndex_->intfId.del(i);
      if (ns.kni)
         ns.kni->intf.del(i);
   }
   for (auto& k : ns.arp) {
      if (!nowArp.count(k))
         arp_->arp.del(k);
   }
   for (auto& k : ns.nd) {
      if (!nowNd.count(k))
         arp_->nd.del(k);
   }
   ns.intfs = std::move(nowIntfs);
   ns.ifIndexes = std::move(nowIndexes);
   ns.arp = std::move(nowArp);
   ns.nd = std::move(nowNd);
}

void LinuxStateProvider::unpublish(Namespace& ns) {
   for (auto& k : ns.arp)
      arp_->arp.del(k);
   for (auto& k : ns.nd)
      arp_->nd.del(k);
   for (auto& id : ns.intfs) {
      ip_->ipIntfStatus.del(id);
      ip6_->ip6IntfStatus.del(id);
      l3_->intfStatus.del(id);
      intfs_->intfStatus.del(id);
   }
   if (ns.vrf.isDefault()) {
      for (uint32_t i : ns.ifIndexes)
         ifIndex_->intfId.del(i);
   }
   ns.intfs.clear();
   ns.ifIndexes.clear();
   ns.arp.clear();
   ns.nd.clear();
}

}  // namespace Ravel
