#pragma once

// Derived lookup tables that reactors keep live from the network state entities.

#include <map>
#include <set>
#include <vector>

#include "platform/core/Scheduler.h"
#include "platform/store/NetSchema.h"

namespace Ravel {

// ifIndex -> interface, mirrored from "interface/ifIndex/all".
class IntfIdByIfIndex : public Node {
 public:
   Collection<uint32_t, IntfId> intfId;
};

class IntfIdByIfIndexSm : public Node {
 public:
   IntfIdByIfIndexSm(Ptr<IfIndexStatus> status, Ptr<IntfIdByIfIndex> table);
   void handleInitialized();
   void handleIfIndex(uint32_t ifIndex);

 private:
   Ptr<IfIndexStatus> status_;
   Ptr<IntfIdByIfIndex> table_;
   Subscription sub_;
};

// An address key of the per-VRF address table; the interface part is empty in lookups.
struct IntfAddrEntryKey {
   IpGenAddr addr;
   IntfId intfId;
   auto operator<=>(const IntfAddrEntryKey&) const = default;
   bool operator==(const IntfAddrEntryKey&) const = default;
};

struct IntfAddrEntry {
   IntfId intfId;
   bool operator==(const IntfAddrEntry&) const = default;
};

// Which interface holds each address of one VRF.
class IntfAddrVrfTable : public Node {
 public:
   Collection<IntfAddrEntryKey, IntfAddrEntry> entry;
};

class AllIntfAddrVrfTable : public Node {
 public:
   Collection<VrfName, Ptr<IntfAddrVrfTable>> table;
};

struct IntfAddrVrfTableSmConfig {
   // IPv4 addresses are always tabled; IPv6 ones only with this flag.
   bool ipv6Enabled = false;
   // Include the virtual-address entities' addresses.
   bool virtualEnabled = true;
};

// Virtual (anycast, VRRP) addresses; none are published on Linux, the entities stay empty.
class VirtualIpStatus : public Node {
 public:
   Collection<IntfId, std::set<IpGenAddr>> addrs;
};

// Keeps one VRF's IntfAddrVrfTable equal to the addresses of its interfaces.
class IntfAddrVrfTableSm : public Node {
 public:
   IntfAddrVrfTableSm(VrfName vrf, std::string netNs, Scheduler& sched, Ptr<IpStatus> ipStatus,
                      Ptr<Ip6Status> ip6Status, Ptr<VirtualIpStatus> virtualIpStatus,
                      Ptr<VirtualIpStatus> virtualIp6Status, Ptr<AllIntfStatusDir> devIntfStatus,
                      Ptr<IntfAddrVrfTable> table, IntfAddrVrfTableSmConfig config);
   void handleInitialized();
   void handleIntf(const IntfId& intf);

 private:
   void watch(const IntfId& intf);
   std::set<IpGenAddr> addressesOf(const IntfId& intf) const;

   VrfName vrf_;
   std::string netNs_;
   Ptr<IpStatus> ipStatus_;
   Ptr<Ip6Status> ip6Status_;
   Ptr<VirtualIpStatus> virtualIpStatus_;
   Ptr<VirtualIpStatus> virtualIp6Status_;
   Ptr<IntfAddrVrfTable> table_;
   IntfAddrVrfTableSmConfig config_;
   std::map<IntfId, std::set<IpGenAddr>> tabled_;
   std::vector<Subscription> subs_;
   std::map<IntfId, std::vector<Subscription>> intfSubs_;
};

// VRF name -> id, the reverse of "vrf/vrfIdMapStatus".
class NameToIdMap : public Node {
 public:
   Collection<VrfName, VrfId> id;
};

class ReverseMapper : public Node {
 public:
   ReverseMapper(Ptr<VrfIdMapStatus> forward, Ptr<NameToIdMap> reverse);
   void handleInitialized();
   void handleId(VrfId id);

 private:
   Ptr<VrfIdMapStatus> forward_;
   Ptr<NameToIdMap> reverse_;
   std::map<VrfId, VrfName> mirrored_;
   Subscription sub_;
};

}  // namespace Ravel
