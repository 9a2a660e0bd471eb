#pragma once

// One network namespace's links, addresses and neighbours as the kernel lists them, and the
// publisher that turns them into the shared network-state entities. Pure: no kernel access.

#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/store/NetSchema.h"

namespace Ravel {

struct KernelLink {
   uint32_t ifindex = 0;
   std::string name;
   uint32_t mtu = 0;
   uint32_t flags = 0;  // IFF_*
};

struct KernelAddr {
   uint32_t ifindex = 0;
   IpPrefixAddr addr;
   uint8_t scope = 0;   // RT_SCOPE_*
   uint32_t flags = 0;  // IFA_F_*
};

struct KernelNeigh {
   uint32_t ifindex = 0;
   IpGenAddr addr;
   uint16_t state = 0;  // NUD_*
   std::vector<uint8_t> lladdr;
};

// Each part in the order the kernel listed it (later additions last).
struct KernelState {
   std::vector<KernelLink> links;
   std::vector<KernelAddr> addrs;
   std::vector<KernelNeigh> neighs;
};

// Parts of a KernelState, as a bit mask.
enum KernelPart : unsigned { kLinkPart = 1, kAddrPart = 2, kNeighPart = 4, kAllParts = 7 };

// The entities shared by all namespaces' publishers.
struct NetStateEntities {
   Ptr<AllIntfStatusDir> intfs;
   Ptr<IfIndexStatus> ifIndex;
   Ptr<L3IntfStatusDir> l3;
   Ptr<IpStatus> ip;
   Ptr<Ip6Status> ip6;
   Ptr<ArpTableStatus> arp;
};

// Publishes one namespace (VRF) and, on every update, withdraws what the kernel no longer lists.
// Only changed values are written, so observers hear of real changes only.
class NamespacePublisher {
 public:
   // `kni` may be null (not published).
   NamespacePublisher(NetStateEntities entities, VrfName vrf, VrfId vrfId, Ptr<KniNsStatus> kni);

   // `parts` says which parts of `state` are current. Interface identities come from the links,
   // so a links update republishes everything: it must come with all three parts.
   void update(const KernelState& state, unsigned parts);
   // Removes everything this publisher published.
   void withdraw();

   // Resolved neighbours only: not incomplete, failed, none or no-ARP.
   static bool neighbourUsable(uint16_t nudState);
   // Usable IPv6 addresses: DAD done (or optimistic) and not failed.
   static bool ip6AddrUsable(uint32_t ifaFlags);
   // "aa:bb:cc:dd:ee:ff"; any length.
   static std::string macString(std::span<const uint8_t> lladdr);

 private:
   void publishLinks(const std::vector<KernelLink>& links);
   void publishAddrs(const std::vector<KernelAddr>& addrs);
   void publishNeighs(const std::vector<KernelNeigh>& neighs);
   void withdrawLinks(const std::map<uint32_t, IntfId>& old);

   NetStateEntities e_;
   VrfName vrf_;
   VrfId vrfId_;
   Ptr<KniNsStatus> kni_;
   std::map<uint32_t, IntfId> byIndex_;
   std::set<IntfId> v4Intfs_;
   std::set<IntfId> v6Intfs_;
   std::set<ArpKey> arp_;
   std::set<ArpKey> nd_;
   // When each IPv4 address was first listed: the kernel keeps addresses in insertion order,
   // but a re-announced address (a lifetime update) is listed last by the netlink caches.
   std::map<std::pair<uint32_t, IpPrefixAddr>, uint64_t> v4Seen_;
   uint64_t nextSeen_ = 0;
};

}  // namespace Ravel
