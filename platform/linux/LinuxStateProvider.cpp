#include "platform/linux/LinuxStateProvider.h"

#include <stdexcept>
#include <vector>

#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("LinuxStateProvider");

namespace Ravel {

namespace {

std::string kniPath(const VrfName& vrf) {
   return "kni/ns/" + LinuxStateProvider::kniName(vrf) + "/status";
}

template <typename T>
Ptr<T> mountOrThrow(EntityManager& em, const std::string& path) {
   auto e = ptrCast<T>(em.mount(path, T::kTypeName));
   if (!e)
      throw std::runtime_error(fmt::format("{} holds something else than {}", path, T::kTypeName));
   return e;
}

}  // namespace

std::string LinuxStateProvider::kniName(const VrfName& vrf) {
   return vrf.isDefault() ? "default" : vrf.nsName();
}

LinuxStateProvider::LinuxStateProvider(Scheduler& sched, Ptr<EntityManager> em,
                                       std::string netnsDir)
    : sched_(sched), em_(std::move(em)) {
   entities_.intfs = mountOrThrow<AllIntfStatusDir>(*em_, "interface/status/all");
   entities_.ifIndex = mountOrThrow<IfIndexStatus>(*em_, "interface/ifIndex/all");
   entities_.l3 = mountOrThrow<L3IntfStatusDir>(*em_, "l3/intf/status");
   entities_.ip = mountOrThrow<IpStatus>(*em_, "ip/status");
   entities_.ip6 = mountOrThrow<Ip6Status>(*em_, "ip6/status");
   entities_.arp = mountOrThrow<ArpTableStatus>(*em_, "arp/status");
   vrfStatus_ = mountOrThrow<AllVrfStatusLocal>(*em_, "ip/vrf/status/local");
   vrfIds_ = mountOrThrow<VrfIdMapStatus>(*em_, "vrf/vrfIdMapStatus");

   ids_[VrfName::defaultVrf()] = 0;
   if (!addVrf(VrfName::defaultVrf(), "", 0))
      throw std::runtime_error("cannot read the agent's own network namespace");
   watcher_ = std::make_unique<NetnsWatcher>(
       sched_, std::move(netnsDir), [this](const NetnsFiles& files) { netnsChanged(files); });
   watcher_->scan();
}

LinuxStateProvider::~LinuxStateProvider() {
   watcher_.reset();
   vrfs_.clear();
}

VrfId LinuxStateProvider::vrfIdOf(const VrfName& vrf) {
   auto it = ids_.find(vrf);
   if (it == ids_.end())
      it = ids_.emplace(vrf, nextId_++).first;
   return it->second;
}

void LinuxStateProvider::netnsChanged(const NetnsFiles& files) {
   std::vector<VrfName> gone;
   for (auto& [vrf, v] : vrfs_) {
      if (vrf.isDefault())
         continue;
      auto it = files.find(vrf);
      if (it == files.end() || it->second.inode != v->inode)
         gone.push_back(vrf);
   }
   for (auto& vrf : gone)
      removeVrf(vrf);
   bool failed = false;
   for (auto& [vrf, f] : files) {
      if (!vrfs_.count(vrf))
         failed |= !addVrf(vrf, f.path, f.inode);
   }
   if (failed)
      watcher_->retryLater();
}

bool LinuxStateProvider::addVrf(const VrfName& vrf, const std::string& path, NsInode inode) {
   auto v = std::make_unique<Vrf>();
   Vrf* raw = v.get();
   v->inode = inode;
   try {
      // Reports arrive from the scheduler only, once the publisher below exists.
      v->netlink = std::make_unique<NetlinkNamespace>(
          sched_, kniName(vrf), path, inode, [raw](unsigned parts) {
             // Interface identities come from the links: a link change republishes everything.
             if (parts & kLinkPart)
                parts = kAllParts;
             raw->publisher->update(raw->netlink->state(parts), parts);
          });
   } catch (const std::exception& e) {
      // The namespace may be going already; the directory watcher settles it.
      TRACE(0, "cannot read the namespace of VRF {}: {}", vrf, e.what());
      return false;
   }
   auto kni = ptrCast<KniNsStatus>(em_->mount(kniPath(vrf), KniNsStatus::kTypeName));
   if (!kni) {
      TRACE(0, "{} holds something else than {}; not published", kniPath(vrf),
            KniNsStatus::kTypeName);
   }
   VrfId id = vrfIdOf(vrf);
   v->kni = kni;
   v->publisher = std::make_unique<NamespacePublisher>(entities_, vrf, id, kni);
   TRACE(3, "VRF {} id {} namespace {} inode {}", vrf, id, path.empty() ? "(own)" : path, inode);
   vrfs_[vrf] = std::move(v);
   raw->publisher->update(raw->netlink->state(), kAllParts);
   vrfIds_->vrfName.is(id, vrf);
   if (!vrf.isDefault()) {
      auto s = make<VrfStatusLocal>(vrf);
      s->state.set(VrfState::active);
      s->nsInode.set(inode);
      s->nsPath.set(path);
      s->nsInodeValid.set(true);
      vrfStatus_->vrf.is(vrf, s);
   }
   return true;
}

void LinuxStateProvider::removeVrf(const VrfName& vrf) {
   auto it = vrfs_.find(vrf);
   if (it == vrfs_.end())
      return;
   TRACE(3, "VRF {} namespace gone", vrf);
   it->second->netlink.reset();
   vrfStatus_->vrf.del(vrf);
   it->second->publisher->withdraw();
   if (it->second->kni && em_->entity(kniPath(vrf)) == Ptr<Entity>(it->second->kni))
      em_->entityDel(kniPath(vrf));
   vrfIds_->vrfName.del(vrfIdOf(vrf));
   vrfs_.erase(it);
}

}  // namespace Ravel
