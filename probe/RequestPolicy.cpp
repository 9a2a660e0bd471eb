#include "probe/RequestPolicy.h"

#include <netinet/in.h>

#include <exception>
#include <string_view>

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ProbeRequestPolicy");

namespace Ravel::ProbeResponder {

namespace {

// RFC 3629 well-formedness: no overlongs, surrogates or code points past U+10FFFF.
bool validUtf8(std::string_view s) {
   size_t i = 0;
   while (i < s.size()) {
      auto c = static_cast<unsigned char>(s[i]);
      size_t len;
      uint32_t cp;
      if (c < 0x80) {
         ++i;
         continue;
      } else if ((c & 0xe0) == 0xc0) {
         len = 2;
         cp = c & 0x1f;
      } else if ((c & 0xf0) == 0xe0) {
         len = 3;
         cp = c & 0x0f;
      } else if ((c & 0xf8) == 0xf0) {
         len = 4;
         cp = c & 0x07;
      } else {
         return false;
      }
      if (i + len > s.size())
         return false;
      for (size_t k = 1; k < len; ++k) {
         auto cc = static_cast<unsigned char>(s[i + k]);
         if ((cc & 0xc0) != 0x80)
            return false;
         cp = cp << 6 | (cc & 0x3f);
      }
      static constexpr uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
      if (cp < kMin[len] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff))
         return false;
      i += len;
   }
   return true;
}

}  // namespace

RequestPolicy::RequestPolicy(Ptr<Config> config, Ptr<IntfIdByIfIndex> intfIdByIfIndex,
                             Ptr<AllIntfAddrVrfTable> allIntfAddrVrfTable, Ptr<AclConfig> aclInput,
                             Ptr<AclConfig> aclCli, KniOf kniOf)
    : config_(std::move(config)),
      intfIdByIfIndex_(std::move(intfIdByIfIndex)),
      allIntfAddrVrfTable_(std::move(allIntfAddrVrfTable)),
      aclInput_(std::move(aclInput)),
      aclCli_(std::move(aclCli)),
      kniOf_(std::move(kniOf)) {
   RAVEL_ASSERT(kniOf_);
   RAVEL_ASSERT(config_);
   RAVEL_ASSERT(intfIdByIfIndex_);
   RAVEL_ASSERT(allIntfAddrVrfTable_);
   RAVEL_ASSERT(aclInput_);
   RAVEL_ASSERT(aclCli_);
}

bool RequestPolicy::sourceAuthorized(const PacketParserResult& result, const IpGenAddr& src,
                                     const IpGenAddr& dst) const {
   const SourceLists& s = config_->sources();
   const RequestedInterface& intf = result.interface;
   const std::string& name = !result.localNode()      ? s.remote
                             : intf.containsIfName()  ? s.ifname
                             : intf.containsIfIndex() ? s.ifindex
                             : intf.containsIfAddr()  ? s.ifaddr
                                                      : std::string();
   if (name.empty())
      return true;
   const AclList* list = aclCli_->list(src.af(), name);
   if (!list)
      list = aclInput_->list(src.af(), name);
   if (!list) {
      TRACE(5, "source list {} not defined: {} refused", name, src);
      return false;
   }
   uint8_t proto = src.isV6() ? uint8_t{IPPROTO_ICMPV6} : uint8_t{IPPROTO_ICMP};
   AclMatch m = matchesAcl(*list, proto, src, dst);
   return m.matched && m.action == AclAction::permit;
}

bool RequestPolicy::requestAllowed(const VrfName& vrf, const PacketParserResult& result) const {
   const VrfProbeSettings c = config_->of(vrf);
   if (!c.enabled) {
      TRACE(4, "Not enabled, why did we get a packet?");
      return false;
   }
   const RequestedInterface& intf = result.interface;
   // Remote requests without an address are refused later, with a reply.
   if (!result.localNode()) {
      if (!c.remote)
         TRACE(4, "Request specified disallowed remote L=0");
      return c.remote;
   }
   if (intf.containsIfName()) {
      if (!c.ifname)
         TRACE(4, "Request specified disallowed ifName {}", intf.ifNameValue());
      return c.ifname;
   }
   if (intf.containsIfIndex()) {
      if (!c.ifindex)
         TRACE(4, "Request specified disallowed ifIndex {}", intf.ifIndexValue());
      return c.ifindex;
   }
   if (intf.containsIfAddr()) {
      if (!c.ifaddr)
         TRACE(4, "Request specified disallowed ifAddr {}", intf.ifAddrValue());
      return c.ifaddr;
   }
   TRACE(0, "This shouldn't be reachable");
   return false;
}

IntfId RequestPolicy::determineInterface(const VrfName& requestVrf,
                                         const PacketParserResult& result) const {
   const RequestedInterface& intf = result.interface;
   if (intf.containsIfIndex()) {
      // An ifIndex means something in the request's own namespace only.
      uint32_t n = static_cast<uint32_t>(intf.ifIndexValue());
      IntfId id;
      if (requestVrf.isDefault()) {
         id = intfIdByIfIndex_->intfId.get(n);
      } else if (auto kni = kniOf_(requestVrf)) {
         if (const KniIntf* k = kni->intf.find(n))
            id = k->intfId;
      }
      TRACE(6, "ifIndex {} in vrf {} => {}", intf.ifIndexValue(), requestVrf, id);
      return id;
   }
   if (intf.containsIfName()) {
      const std::string& s = intf.ifNameValue();
      TRACE(6, "Converting ifName {}", s);
      if (!validUtf8(s)) {
         TRACE(5, "Not valid UTF8: {}", s);
         return IntfId();
      }
      try {
         // A VRF's devices carry its name ("red/eth1"): the requester names its own "eth1".
         IntfId plain(s);
         return requestVrf.isDefault() ? plain : IntfId::forDevice(requestVrf, s);
      } catch (const std::exception& e) {
         TRACE(5, "Exception converting {}: {}", s, e.what());
         return IntfId();
      }
   }
   if (intf.containsIfAddr()) {
      const IpGenAddr& a = intf.ifAddrValue();
      auto table = allIntfAddrVrfTable_->table.get(requestVrf);
      if (!table) {
         TRACE(5, "no intfAddrTable for vrf {}", requestVrf);
         return IntfId();
      }
      const IntfAddrEntry* e = table->entry.find({a, IntfId()});
      if (!e) {
         TRACE(5, "no entry in intfAddrTable for {} in vrf {}", a, requestVrf);
         return IntfId();
      }
      TRACE(6, "ifAddr {} => {}", a, e->intfId);
      return e->intfId;
   }
   return IntfId();
}

}  // namespace Ravel::ProbeResponder
