#pragma once

// Entity types of the router's network state, as the Linux providers publish them.

#include <cstdint>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>

#include "platform/store/Entity.h"
#include "platform/values/Values.h"

namespace Ravel {

enum class OperStatus : uint8_t { unknown = 0, up = 1, down = 2 };
const char* toString(OperStatus s);

class IntfStatus : public Node {
 public:
   explicit IntfStatus(IntfId id) : intfId(std::move(id)) {}
   const IntfId intfId;
   Attr<OperStatus> operStatus;
   Attr<uint32_t> mtu;
   Attr<uint32_t> snmpIndex;  // the kernel ifindex, in the interface's own namespace
   Attr<std::string> deviceName;
};

// "interface/status/all"
class AllIntfStatusDir : public Entity {
   RAVEL_ENTITY_TYPE(AllIntfStatusDir, "Interface::AllIntfStatusDir")
 public:
   Collection<IntfId, Ptr<IntfStatus>> intfStatus;
};

// "interface/status/local": the interfaces of this cell, same shape.
class AllIntfStatusLocalDir : public Entity {
   RAVEL_ENTITY_TYPE(AllIntfStatusLocalDir, "Interface::AllIntfStatusLocalDir")
 public:
   Collection<IntfId, Ptr<IntfStatus>> intfStatus;
};

// "interface/ifIndex/all": default namespace ifindex -> interface.
class IfIndexStatus : public Entity {
   RAVEL_ENTITY_TYPE(IfIndexStatus, "Interface::IfIndexStatus")
 public:
   Collection<uint32_t, IntfId> intfId;
};

class L3IntfStatus : public Node {
 public:
   explicit L3IntfStatus(IntfId id) : intfId(std::move(id)) {}
   const IntfId intfId;
   Attr<VrfName> vrf;
};

// "l3/intf/status": interface -> VRF.
class L3IntfStatusDir : public Entity {
   RAVEL_ENTITY_TYPE(L3IntfStatusDir, "L3::Intf::StatusDir")
 public:
   Collection<IntfId, Ptr<L3IntfStatus>> intfStatus;
};

struct IpPrefixAddr {
   IpGenAddr addr;
   uint8_t prefixLen = 0;
   auto operator<=>(const IpPrefixAddr&) const = default;
   bool operator==(const IpPrefixAddr&) const = default;
   std::string str() const { return addr.str() + "/" + std::to_string(prefixLen); }
};

class IpIntfStatus : public Node {
 public:
   explicit IpIntfStatus(IntfId id) : intfId(std::move(id)) {}
   const IntfId intfId;
   Attr<VrfName> vrf;
   Attr<IpPrefixAddr> primaryAddr;  // the first IPv4 address the kernel lists
   Attr<std::set<IpPrefixAddr>> secondaryAddrs;
   Attr<bool> ipv4Running;  // the interface has an IPv4 address
};

// "ip/status"
class IpStatus : public Entity {
   RAVEL_ENTITY_TYPE(IpStatus, "Ip::Status")
 public:
   Collection<IntfId, Ptr<IpIntfStatus>> ipIntfStatus;
};

class Ip6IntfStatus : public Node {
 public:
   explicit Ip6IntfStatus(IntfId id) : intfId(std::move(id)) {}
   const IntfId intfId;
   Attr<VrfName> vrf;
   Attr<std::set<IpPrefixAddr>> addrs;
   Attr<bool> ipv6Running;  // the interface has an IPv6 address
};

// "ip6/status"
class Ip6Status : public Entity {
   RAVEL_ENTITY_TYPE(Ip6Status, "Ip6::Status")
 public:
   Collection<IntfId, Ptr<Ip6IntfStatus>> ip6IntfStatus;
};

enum class VrfState : uint8_t { inactive = 0, active = 1 };
const char* toString(VrfState s);

class VrfStatusLocal : public Node {
 public:
   explicit VrfStatusLocal(VrfName n) : name(std::move(n)) {}
   const VrfName name;
   Attr<VrfState> state;
   Attr<bool> nsInodeValid;
   Attr<NsInode> nsInode;
   Attr<std::string> nsPath;  // the namespace file
};

// "ip/vrf/status/local": one entry per non-default VRF whose namespace is known.
class AllVrfStatusLocal : public Entity {
   RAVEL_ENTITY_TYPE(AllVrfStatusLocal, "Ip::VrfStatusLocalDir")
 public:
   Collection<VrfName, Ptr<VrfStatusLocal>> vrf;
};

using VrfId = uint32_t;

struct ArpKey {
   VrfId vrfId = 0;
   IpGenAddr addr;
   IntfId intfId;
   auto operator<=>(const ArpKey&) const = default;
   bool operator==(const ArpKey&) const = default;
};

struct ArpEntry {
   std::string mac;  // "aa:bb:cc:dd:ee:ff"
   bool operator==(const ArpEntry&) const = default;
};

// Thrown while walking a shared table whose contents are inconsistent.
struct SharedTableCorruption : std::runtime_error {
   using std::runtime_error::runtime_error;
};

// "arp/status": resolved ARP (IPv4) and ND (IPv6) entries; incomplete and failed ones excluded.
class ArpTableStatus : public Entity {
   RAVEL_ENTITY_TYPE(ArpTableStatus, "Arp::Table::Status")
 public:
   Collection<ArpKey, ArpEntry> arp;
   Collection<ArpKey, ArpEntry> nd;
   // Called with the message of a corruption found while walking.
   std::function<void(const std::string&)> corruptionHandler;
};

// "vrf/vrfIdMapStatus": stable VRF ids; the default VRF is 0.
class VrfIdMapStatus : public Entity {
   RAVEL_ENTITY_TYPE(VrfIdMapStatus, "Vrf::VrfIdMap::Status")
 public:
   Collection<VrfId, VrfName> vrfName;
};

struct KniIntf {
   std::string deviceName;
   IntfId intfId;
   bool operator==(const KniIntf&) const = default;
};

// "kni/ns/<ns>/status": the kernel's interfaces of one namespace by kernel ifindex.
class KniNsStatus : public Entity {
   RAVEL_ENTITY_TYPE(KniNsStatus, "Kni::NsStatus")
 public:
   Collection<uint32_t, KniIntf> intf;
};

}  // namespace Ravel
