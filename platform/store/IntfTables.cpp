#include "platform/store/IntfTables.h"

#include "platform/core/Assert.h"

namespace Ravel {

IntfIdByIfIndexSm::IntfIdByIfIndexSm(Ptr<IfIndexStatus> status, Ptr<IntfIdByIfIndex> table)
    : status_(std::move(status)), table_(std::move(table)) {
   RAVEL_ASSERT(table_);
   handleInitialized();
   if (status_)
      sub_ = status_->intfId.subscribe([this](uint32_t i) { handleIfIndex(i); });
}

void IntfIdByIfIndexSm::handleInitialized() {
   if (!status_)
      return;
   for (auto& [ifIndex, id] : status_->intfId)
      table_->intfId.is(ifIndex, id);
}

void IntfIdByIfIndexSm::handleIfIndex(uint32_t ifIndex) {
   if (const IntfId* id = status_->intfId.find(ifIndex)) {
      table_->intfId.is(ifIndex, *id);
   } else {
      table_->intfId.del(ifIndex);
   }
}

IntfAddrVrfTableSm::IntfAddrVrfTableSm(VrfName vrf, std::string netNs, Scheduler&,
                                       Ptr<IpStatus> ipStatus, Ptr<Ip6Status> ip6Status,
                                       Ptr<VirtualIpStatus> virtualIpStatus,
                                       Ptr<VirtualIpStatus> virtualIp6Status, Ptr<AllIntfStatusDir>,
                                       Ptr<IntfAddrVrfTable> table, IntfAddrVrfTableSmConfig config)
    : vrf_(std::move(vrf)),
      netNs_(std::move(netNs)),
      ipStatus_(std::move(ipStatus)),
      ip6Status_(std::move(ip6Status)),
      virtualIpStatus_(std::move(virtualIpStatus)),
      virtualIp6Status_(std::move(virtualIp6Status)),
      table_(std::move(table)),
      config_(config) {
   RAVEL_ASSERT(table_);
   handleInitialized();
   auto onIntf = [this](const IntfId& i) {
      watch(i);
      handleIntf(i);
   };
   if (ipStatus_)
      subs_.push_back(ipStatus_->ipIntfStatus.subscribe(onIntf));
   if (ip6Status_ && config_.ipv6Enabled) {
      subs_.push_back(ip6Status_->ip6IntfStatus.subscribe(onIntf));
   }
   if (config_.virtualEnabled) {
      if (virtualIpStatus_)
         subs_.push_back(virtualIpStatus_->addrs.subscribe(onIntf));
      if (virtualIp6Status_ && config_.ipv6Enabled) {
         subs_.push_back(virtualIp6Status_->addrs.subscribe(onIntf));
      }
   }
}

void IntfAddrVrfTableSm::handleInitialized() {
   std::set<IntfId> intfs;
   if (ipStatus_) {
      for (auto& [id, s] : ipStatus_->ipIntfStatus)
         intfs.insert(id);
   }
   if (ip6Status_ && config_.ipv6Enabled) {
      for (auto& [id, s] : ip6Status_->ip6IntfStatus)
         intfs.insert(id);
   }
   for (auto& id : intfs) {
      watch(id);
      handleIntf(id);
   }
}

// Attribute changes of one interface's status recompute that interface.
void IntfAddrVrfTableSm::watch(const IntfId& intf) {
   auto& subs = intfSubs_[intf];
   subs.clear();
   auto again = [this, intf] { handleIntf(intf); };
   if (ipStatus_) {
      if (auto s = ipStatus_->ipIntfStatus.get(intf)) {
         subs.push_back(s->vrf.subscribe(again));
         subs.push_back(s->primaryAddr.subscribe(again));
         subs.push_back(s->secondaryAddrs.subscribe(again));
      }
   }
   if (ip6Status_ && config_.ipv6Enabled) {
      if (auto s = ip6Status_->ip6IntfStatus.get(intf)) {
         subs.push_back(s->vrf.subscribe(again));
         subs.push_back(s->addrs.subscribe(again));
      }
   }
   if (subs.empty())
      intfSubs_.erase(intf);
}

std::set<IpGenAddr> IntfAddrVrfTableSm::addressesOf(const IntfId& intf) const {
   std::set<IpGenAddr> out;
   if (ipStatus_) {
      if (auto s = ipStatus_->ipIntfStatus.get(intf); s && s->vrf() == vrf_) {
         if (s->primaryAddr().addr.isV4())
            out.insert(s->primaryAddr().addr);
         for (auto& a : s->secondaryAddrs())
            out.insert(a.addr);
      }
   }
   if (ip6Status_ && config_.ipv6Enabled) {
      if (auto s = ip6Status_->ip6IntfStatus.get(intf); s && s->vrf() == vrf_) {
         for (auto& a : s->addrs())
            out.insert(a.addr);
      }
   }
   if (config_.virtualEnabled) {
      for (auto* v :
           {virtualIpStatus_.get(), config_.ipv6Enabled ? virtualIp6Status_.get() : nullptr}) {
         if (!v)
            continue;
         if (auto* addrs = v->addrs.find(intf))
            out.insert(addrs->begin(), addrs->end());
      }
   }
   return out;
}

void IntfAddrVrfTableSm::handleIntf(const IntfId& intf) {
   std::set<IpGenAddr> now = addressesOf(intf);
   std::set<IpGenAddr>& before = tabled_[intf];
   for (auto& a : before) {
      if (now.count(a))
         continue;
      // Only remove what this interface put there: another may hold the address now.
      auto key = IntfAddrEntryKey{a, IntfId()};
      if (auto* e = table_->entry.find(key); e && e->intfId == intf)
         table_->entry.del(key);
   }
   for (auto& a : now)
      table_->entry.is({a, IntfId()}, {intf});
   if (now.empty()) {
      tabled_.erase(intf);
   } else {
      before = std::move(now);
   }
}

ReverseMapper::ReverseMapper(Ptr<VrfIdMapStatus> forward, Ptr<NameToIdMap> reverse)
    : forward_(std::move(forward)), reverse_(std::move(reverse)) {
   RAVEL_ASSERT(reverse_);
   handleInitialized();
   if (forward_)
      sub_ = forward_->vrfName.subscribe([this](VrfId id) { handleId(id); });
}

void ReverseMapper::handleInitialized() {
   if (!forward_)
      return;
   for (auto& [id, name] : forward_->vrfName)
      handleId(id);
}

void ReverseMapper::handleId(VrfId id) {
   if (auto it = mirrored_.find(id); it != mirrored_.end()) {
      if (auto* cur = reverse_->id.find(it->second); cur && *cur == id) {
         reverse_->id.del(it->second);
      }
      mirrored_.erase(it);
   }
   if (const VrfName* name = forward_->vrfName.find(id)) {
      reverse_->id.is(*name, id);
      mirrored_[id] = *name;
   }
}

}  // namespace Ravel
