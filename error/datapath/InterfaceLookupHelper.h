#pragma once

// Resolves the kernel interface index of an ICMP error record (meaningful only inside the
// offending packet's namespace) to what RFC 5837's interface information object reports: the
// NOS ifIndex, name, MTU and one address of the interface.

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "error/ErrorResponderSchema.h"
#include "platform/store/EntityManager.h"
#include "platform/store/NetSchema.h"

namespace Ravel::ErrorResponder {

struct IcmpIntfInfo {
   uint32_t kernelIfIndex = 0;
   uint32_t nosIfIndex = 0;  // the interface's SNMP index
   IpGenAddr intfAddr;
   IntfId intfId;
   std::string kernelDeviceName;
   uint32_t intfMtu = 0;
   bool isValid = false;

   bool operator==(const IcmpIntfInfo&) const = default;
   explicit operator bool() const { return *this != IcmpIntfInfo{}; }
   std::string str() const;
   // "<intfId>@<hostName>": the interface name qualified with the node's host name.
   std::string qualifiedIntfName(const std::string& hostName) const;
};

// Deterministic IPv6 source choice, so that the address an error reports does not depend on
// the order in which addresses were configured.
class SourceAddressSelector {
 public:
   bool deterministicSourceAddress = true;
   // True when `a` ranks before `b`: a global unicast address before any other, then the
   // numerically greater address first.
   static bool compareIp6Addr(const IpGenAddr& a, const IpGenAddr& b);
   static bool validIp6Addr(const IpGenAddr&) { return true; }
   // The first-ranked of `addrs` (IPv6 ones only), or the unspecified address.
   IpGenAddr select(const std::set<IpPrefixAddr>& addrs) const;
};

// The unspecified address of `af` (0.0.0.0 or ::).
IpGenAddr unspecifiedAddr(AddressFamily af);
// 169.254/16 or fe80::/10.
bool isLinkLocalAddr(const IpGenAddr& a);

struct IntfLookupInputs {
   Ptr<AllIntfStatusDir> allIntfStatusDir;
   Ptr<AllIntfStatusLocalDir> allIntfStatusLocalDir;  // may be null
   Ptr<KniNsStatus> kniStatus;                        // the default namespace's
   Ptr<IpStatus> ipStatus;
   Ptr<Ip6Status> ip6Status;
   Ptr<EbpfConfig> ebpfConfig;
   Ptr<EntityManager> em;  // mounts the other namespaces' kernel interface tables
};

// Keeps, for the default namespace and the namespace of every VRF in EbpfConfig, the kernel's
// table of interfaces by kernel index ("kni/ns/<ns>/status").
class IntfLookupHelper : public Node {
 public:
   explicit IntfLookupHelper(IntfLookupInputs inputs);
   ~IntfLookupHelper() override;

   void handleInitialized();
   // Mounts or releases the VRF's namespace table as its EbpfConfig entry comes and goes.
   void handleIntfVrfConfig(const VrfName& vrfName);

   IcmpIntfInfo icmpIntfInfo(AddressFamily af, uint32_t kernelIfIndex,
                             const VrfName& vrfName) const;
   // The interface's address of `af`: IPv4 primary, or the IPv6 address the selector ranks
   // first; the unspecified address of `af` when it has none.
   IpGenAddr intfIPAddr(AddressFamily af, const IntfId& intfId, const VrfName& vrfName) const;

   // Name of the namespace table of a VRF: "default" or "ns-<vrf>".
   static std::string nsNameOf(const VrfName& vrfName);
   bool deviceIntfStatusDirHas(const std::string& nsName) const {
      return deviceIntfStatusDir_.count(nsName) != 0;
   }

 private:
   Ptr<IntfStatus> intfStatusOf(const IntfId& id) const;

   IntfLookupInputs in_;
   std::map<std::string, Ptr<KniNsStatus>> deviceIntfStatusDir_;
   Subscription ebpfEntrySub_;
};

Ptr<IntfLookupHelper> intfLookupHelperFactory(IntfLookupInputs inputs);

}  // namespace Ravel::ErrorResponder

RAVEL_STR_FORMATTER(Ravel::ErrorResponder::IcmpIntfInfo);
