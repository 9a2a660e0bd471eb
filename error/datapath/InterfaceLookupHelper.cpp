#include "error/datapath/InterfaceLookupHelper.h"

#include <algorithm>

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("InterfaceLookupHelper");

namespace Ravel::ErrorResponder {

namespace {

std::string kniPath(const std::string& nsName) {
   return "kni/ns/" + nsName + "/status";
}

// RFC 4291 section 2.4: global unicast is every address that is not unspecified, loopback,
// multicast or link-local; unique local addresses (fc00::/7) included.
bool isGlobalUnicast(const IpGenAddr& a) {
   if (!a.isV6())
      return false;
   auto b = a.bytes();
   bool linkLocal = b[0] == 0xfe && (b[1] & 0xc0) == 0x80;
   bool unspecifiedOrLoopback =
       std::all_of(b.begin(), b.end() - 1, [](uint8_t x) { return !x; }) && b[15] <= 1;
   return !linkLocal && !unspecifiedOrLoopback && b[0] != 0xff;
}

bool isLinkLocal(const IpGenAddr& a) {
   auto b = a.bytes();
   if (a.isV4())
      return b[0] == 169 && b[1] == 254;
   return a.isV6() && b[0] == 0xfe && (b[1] & 0xc0) == 0x80;
}

}  // namespace

std::string IcmpIntfInfo::str() const {
   return fmt::format(
       "kernelIfIndex={} nosIfIndex={} intfAddr={} intfId={} kernelDeviceName={} intfMtu={} "
       "isValid={}",
       kernelIfIndex, nosIfIndex, intfAddr, intfId, kernelDeviceName, intfMtu, isValid);
}

std::string IcmpIntfInfo::qualifiedIntfName(const std::string& hostName) const {
   return fmt::format("{}@{}", intfId.str(), hostName);
}

bool SourceAddressSelector::compareIp6Addr(const IpGenAddr& a, const IpGenAddr& b) {
   bool ga = isGlobalUnicast(a), gb = isGlobalUnicast(b);
   if (ga != gb)
      return ga;
   return b < a;
}

IpGenAddr SourceAddressSelector::select(const std::set<IpPrefixAddr>& addrs) const {
   IpGenAddr best;
   for (auto& p : addrs) {
      if (!p.addr.isV6() || !validIp6Addr(p.addr))
         continue;
      if (best.af() == AddressFamily::ipunknown || compareIp6Addr(p.addr, best))
         best = p.addr;
   }
   return best.isV6() ? best : unspecifiedAddr(AddressFamily::ipv6);
}

IpGenAddr unspecifiedAddr(AddressFamily af) {
   if (af == AddressFamily::ipv6)
      return IpGenAddr(in6addr_any);
   if (af == AddressFamily::ipv4)
      return IpGenAddr::v4(0);
   return {};
}

IntfLookupHelper::IntfLookupHelper(IntfLookupInputs inputs) : in_(std::move(inputs)) {
   RAVEL_ASSERT(in_.kniStatus);
   RAVEL_ASSERT(in_.allIntfStatusDir);
   RAVEL_ASSERT(in_.ebpfConfig);
   handleInitialized();
}

IntfLookupHelper::~IntfLookupHelper() = default;

std::string IntfLookupHelper::nsNameOf(const VrfName& vrfName) {
   return vrfName.isDefault() ? "default" : vrfName.nsName();
}

void IntfLookupHelper::handleInitialized() {
   deviceIntfStatusDir_[nsNameOf(VrfName::defaultVrf())] = in_.kniStatus;
   ebpfEntrySub_ =
       in_.ebpfConfig->entry.subscribe([this](const VrfName& n) { handleIntfVrfConfig(n); });
   for (auto& [name, entry] : in_.ebpfConfig->entry)
      handleIntfVrfConfig(name);
}

void IntfLookupHelper::handleIntfVrfConfig(const VrfName& vrfName) {
   if (vrfName.isDefault())
      return;
   std::string ns = nsNameOf(vrfName);
   if (in_.ebpfConfig->entry.has(vrfName)) {
      if (deviceIntfStatusDir_.count(ns))
         return;
      Ptr<KniNsStatus> kni;
      if (in_.em)
         kni = ptrCast<KniNsStatus>(in_.em->mount(kniPath(ns), KniNsStatus::kTypeName));
      if (!kni) {
         TRACE(0, "cannot mount {} for vrfName {}", kniPath(ns), vrfName);
         return;
      }
      deviceIntfStatusDir_[ns] = kni;
      TRACE(4, "Added config vrfName {}", vrfName);
   } else {
      // Only our reference goes: the state provider keeps publishing into the table for as
      // long as the namespace exists, and may be read by others.
      if (deviceIntfStatusDir_.erase(ns))
         TRACE(4, "Deleted config vrfName, unmounting {}", kniPath(ns));
   }
}

Ptr<IntfStatus> IntfLookupHelper::intfStatusOf(const IntfId& id) const {
   if (auto s = in_.allIntfStatusDir->intfStatus.get(id))
      return s;
   return in_.allIntfStatusLocalDir ? in_.allIntfStatusLocalDir->intfStatus.get(id) : nullptr;
}

IcmpIntfInfo IntfLookupHelper::icmpIntfInfo(AddressFamily af, uint32_t kernelIfIndex,
                                            const VrfName& vrfName) const {
   TRACE(7, "AF: {} Index: {}", af, kernelIfIndex);
   IcmpIntfInfo info;
   info.kernelIfIndex = kernelIfIndex;
   info.intfAddr = unspecifiedAddr(af);

   auto dir = deviceIntfStatusDir_.find(nsNameOf(vrfName));
   const KniIntf* kni =
       dir == deviceIntfStatusDir_.end() ? nullptr : dir->second->intf.find(kernelIfIndex);
   if (!kni) {
      TRACE(0, "Failed to retrieve interface with index {}", kernelIfIndex);
      return info;
   }
   auto status = intfStatusOf(kni->intfId);
   if (!status) {
      TRACE(0, "could not find intfStatus for ifIndex {}", kernelIfIndex);
      return info;
   }
   info.nosIfIndex = status->snmpIndex();
   info.kernelDeviceName = kni->deviceName;
   info.intfId = status->intfId;
   info.intfMtu = status->mtu();
   TRACE(7, "devName: {}   snmpIdx: {}  intfId : {}  Mtu : {}", info.kernelDeviceName,
         info.nosIfIndex, info.intfId, info.intfMtu);
   info.intfAddr = intfIPAddr(af, info.intfId, vrfName);
   info.isValid = true;
   return info;
}

IpGenAddr IntfLookupHelper::intfIPAddr(AddressFamily af, const IntfId& intfId,
                                       const VrfName& vrfName) const {
   IpGenAddr addr = unspecifiedAddr(af);
   if (af == AddressFamily::ipv4 && in_.ipStatus) {
      auto s = in_.ipStatus->ipIntfStatus.get(intfId);
      if (s && s->primaryAddr().addr.isV4())
         addr = s->primaryAddr().addr;
   } else if (af == AddressFamily::ipv6 && in_.ip6Status) {
      if (auto s = in_.ip6Status->ip6IntfStatus.get(intfId))
         addr = SourceAddressSelector{}.select(s->addrs());
   }
   TRACE(7, "{} address on intf: {} (vrf {})", addr, intfId, vrfName);
   return addr;
}

Ptr<IntfLookupHelper> intfLookupHelperFactory(IntfLookupInputs inputs) {
   return make<IntfLookupHelper>(std::move(inputs));
}

bool isLinkLocalAddr(const IpGenAddr& a) {
   return isLinkLocal(a);
}

}  // namespace Ravel::ErrorResponder
