#include "platform/linux/NetStatePublisher.h"

#include <linux/if_addr.h>
#include <linux/neighbour.h>
#include <net/if.h>

#include <algorithm>
#include <tuple>

#include <fmt/format.h>

#include "platform/core/Assert.h"

namespace Ravel {

NamespacePublisher::NamespacePublisher(NetStateEntities entities, VrfName vrf, VrfId vrfId,
                                       Ptr<KniNsStatus> kni)
    : e_(std::move(entities)), vrf_(std::move(vrf)), vrfId_(vrfId), kni_(std::move(kni)) {}

bool NamespacePublisher::neighbourUsable(uint16_t nudState) {
   constexpr uint16_t kResolved = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;
   return (nudState & kResolved) && !(nudState & (NUD_NOARP | NUD_FAILED | NUD_INCOMPLETE));
}

bool NamespacePublisher::ip6AddrUsable(uint32_t ifaFlags) {
   if (ifaFlags & IFA_F_DADFAILED)
      return false;
   return !(ifaFlags & IFA_F_TENTATIVE) || (ifaFlags & IFA_F_OPTIMISTIC);
}

std::string NamespacePublisher::macString(std::span<const uint8_t> lladdr) {
   std::string s;
   for (uint8_t b : lladdr)
      s += fmt::format("{}{:02x}", s.empty() ? "" : ":", b);
   return s;
}

void NamespacePublisher::update(const KernelState& state, unsigned parts) {
   RAVEL_ASSERT(!(parts & kLinkPart) || parts == kAllParts);
   std::map<uint32_t, IntfId> old;
   if (parts & kLinkPart) {
      old = byIndex_;
      publishLinks(state.links);
   }
   // Addresses and neighbours of vanished interfaces go before the interfaces themselves.
   if (parts & kAddrPart)
      publishAddrs(state.addrs);
   if (parts & kNeighPart)
      publishNeighs(state.neighs);
   if (parts & kLinkPart)
      withdrawLinks(old);
}

void NamespacePublisher::publishLinks(const std::vector<KernelLink>& links) {
   byIndex_.clear();
   for (auto& l : links) {
      IntfId id = IntfId::forDevice(vrf_, l.name);
      byIndex_[l.ifindex] = id;
      auto s = e_.intfs->intfStatus.get(id);
      bool fresh = !s;
      if (fresh)
         s = make<IntfStatus>(id);
      bool up = (l.flags & IFF_UP) && (l.flags & IFF_RUNNING);
      s->operStatus.set(up ? OperStatus::up : OperStatus::down);
      s->mtu.set(l.mtu);
      s->snmpIndex.set(l.ifindex);
      s->deviceName.set(l.name);
      if (fresh)
         e_.intfs->intfStatus.is(id, s);
      if (!e_.l3->intfStatus.has(id)) {
         auto l3 = make<L3IntfStatus>(id);
         l3->vrf.set(vrf_);
         e_.l3->intfStatus.is(id, l3);
      }
      if (vrf_.isDefault())
         e_.ifIndex->intfId.is(l.ifindex, id);
      if (kni_)
         kni_->intf.is(l.ifindex, {l.name, id});
   }
}

void NamespacePublisher::withdrawLinks(const std::map<uint32_t, IntfId>& old) {
   std::set<IntfId> now;
   for (auto& [i, id] : byIndex_)
      now.insert(id);
   for (auto& [i, id] : old) {
      if (!byIndex_.count(i)) {
         if (vrf_.isDefault())
            e_.ifIndex->intfId.del(i);
         if (kni_)
            kni_->intf.del(i);
      }
      if (!now.count(id)) {
         e_.l3->intfStatus.del(id);
         e_.intfs->intfStatus.del(id);
      }
   }
}

void NamespacePublisher::publishAddrs(const std::vector<KernelAddr>& addrs) {
   std::map<IntfId, std::vector<const KernelAddr*>> v4;
   std::map<IntfId, std::set<IpPrefixAddr>> v6;
   std::map<std::pair<uint32_t, IpPrefixAddr>, uint64_t> seen;
   for (auto& a : addrs) {
      auto it = byIndex_.find(a.ifindex);
      if (it == byIndex_.end())
         continue;
      if (a.addr.addr.isV4()) {
         v4[it->second].push_back(&a);
         auto key = std::pair(a.ifindex, a.addr);
         auto s = v4Seen_.find(key);
         seen[key] = s != v4Seen_.end() ? s->second : nextSeen_++;
      } else if (a.addr.addr.isV6() && ip6AddrUsable(a.flags)) {
         v6[it->second].insert(a.addr);
      }
   }
   v4Seen_ = std::move(seen);

   for (auto& [id, list] : v4) {
      // The kernel lists primaries before secondaries, narrower scopes first, then in the order
      // they were added.
      auto rank = [this](const KernelAddr* a) {
         return std::tuple((a->flags & IFA_F_SECONDARY) != 0, -int(a->scope),
                           v4Seen_.at({a->ifindex, a->addr}));
      };
      std::sort(list.begin(), list.end(),
                [&](const KernelAddr* a, const KernelAddr* b) { return rank(a) < rank(b); });
      std::set<IpPrefixAddr> others;
      for (size_t i = 1; i < list.size(); ++i)
         others.insert(list[i]->addr);
      auto s = e_.ip->ipIntfStatus.get(id);
      bool fresh = !s;
      if (fresh)
         s = make<IpIntfStatus>(id);
      s->vrf.set(vrf_);
      s->primaryAddr.set(list.front()->addr);
      s->secondaryAddrs.set(others);
      s->ipv4Running.set(true);
      if (fresh)
         e_.ip->ipIntfStatus.is(id, s);
   }
   for (auto& [id, set] : v6) {
      auto s = e_.ip6->ip6IntfStatus.get(id);
      bool fresh = !s;
      if (fresh)
         s = make<Ip6IntfStatus>(id);
      s->vrf.set(vrf_);
      s->addrs.set(set);
      s->ipv6Running.set(true);
      if (fresh)
         e_.ip6->ip6IntfStatus.is(id, s);
   }
   for (auto& id : v4Intfs_) {
      if (!v4.count(id))
         e_.ip->ipIntfStatus.del(id);
   }
   for (auto& id : v6Intfs_) {
      if (!v6.count(id))
         e_.ip6->ip6IntfStatus.del(id);
   }
   v4Intfs_.clear();
   for (auto& [id, list] : v4)
      v4Intfs_.insert(id);
   v6Intfs_.clear();
   for (auto& [id, set] : v6)
      v6Intfs_.insert(id);
}

void NamespacePublisher::publishNeighs(const std::vector<KernelNeigh>& neighs) {
   std::set<ArpKey> arp, nd;
   for (auto& n : neighs) {
      auto it = byIndex_.find(n.ifindex);
      if (it == byIndex_.end() || n.lladdr.empty() || !neighbourUsable(n.state))
         continue;
      ArpKey key{vrfId_, n.addr, it->second};
      ArpEntry entry{macString(n.lladdr)};
      if (n.addr.isV4()) {
         arp.insert(key);
         e_.arp->arp.is(key, entry);
      } else if (n.addr.isV6()) {
         nd.insert(key);
         e_.arp->nd.is(key, entry);
      }
   }
   for (auto& k : arp_) {
      if (!arp.count(k))
         e_.arp->arp.del(k);
   }
   for (auto& k : nd_) {
      if (!nd.count(k))
         e_.arp->nd.del(k);
   }
   arp_ = std::move(arp);
   nd_ = std::move(nd);
}

void NamespacePublisher::withdraw() {
   auto old = std::move(byIndex_);
   byIndex_.clear();
   publishAddrs({});
   publishNeighs({});
   withdrawLinks(old);
}

}  // namespace Ravel
