#pragma once

// Configuration and counters of the RFC 8335 probe responder.

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "platform/store/Entity.h"
#include "platform/values/Values.h"

namespace Ravel::ProbeResponder {

// Per request type, the name of the ACL its sources must be permitted by (RFC 8335 section 4);
// empty: every source.
struct SourceLists {
   std::string ifname;
   std::string ifindex;
   std::string ifaddr;
   std::string remote;
   bool operator==(const SourceLists&) const = default;
};

// Requests a second and burst, for all sources together and for each source prefix (RFC 8335
// section 8); a rate of 0 sets no limit.
struct RateLimitSettings {
   uint32_t rate = 0;
   uint32_t burst = 0;
   uint32_t perSourceRate = 0;
   uint32_t perSourceBurst = 0;
   uint8_t ipv4PrefixLength = 24;
   uint8_t ipv6PrefixLength = 64;
   bool operator==(const RateLimitSettings&) const = default;
};

// One VRF's departures from the global settings; unset members follow them.
struct VrfOverrides {
   std::optional<bool> enabled;
   std::optional<bool> ifname;
   std::optional<bool> ifindex;
   std::optional<bool> ifaddr;
   std::optional<bool> remote;
   bool operator==(const VrfOverrides&) const = default;
};

// What a VRF answers: the global settings for the default VRF and for each VRF listed with its
// overrides; nothing for a VRF not listed.
struct VrfProbeSettings {
   bool enabled = false;
   bool ifname = false;
   bool ifindex = false;
   bool ifaddr = false;
   bool remote = false;
};

// "icmp/probe/config". Off unless configured (RFC 8335 section 6).
class Config : public Entity {
   RAVEL_ENTITY_TYPE(Config, "Icmp::Probe::Config")
 public:
   Attr<bool> enabled;
   Attr<bool> ifname;
   Attr<bool> ifindex;
   Attr<bool> ifaddr;
   Attr<bool> remote;
   Attr<uint32_t> maxQueueLength{1024};
   Attr<SourceLists> sources;
   Attr<RateLimitSettings> rateLimit;
   Attr<std::map<VrfName, VrfOverrides>> vrfs;  // the VRFs besides the default that answer

   VrfProbeSettings of(const VrfName& vrf) const {
      VrfProbeSettings s{enabled(), ifname(), ifindex(), ifaddr(), remote()};
      if (vrf.isDefault())
         return s;
      auto it = vrfs().find(vrf);
      if (it == vrfs().end())
         return {};
      const VrfOverrides& o = it->second;
      return {o.enabled.value_or(s.enabled), o.ifname.value_or(s.ifname),
              o.ifindex.value_or(s.ifindex), o.ifaddr.value_or(s.ifaddr),
              o.remote.value_or(s.remote)};
   }
};

// clang-format off
#define RAVEL_PROBE_COUNTERS(X) \
   X(requestsReceived) \
   X(queueTooLong) \
   X(rateLimited) \
   X(notUnicast) \
   X(sourceNotAuthorized) \
   X(pktTooShort) \
   X(unknownAf) \
   X(incorrectIcmpType) \
   X(incorrectIcmpChecksum) \
   X(badExtensionHeader) \
   X(incorrectExtensionChecksum) \
   X(badExtensionObject) \
   X(requestTypeNotAllowed) \
   X(remoteRequestMalformed) \
   X(interfaceLookupFailed) \
   X(wrongVrfRequested) \
   X(responsesSent) \
   X(noTxPam) \
   X(txErrors)
// clang-format on

// "icmp/probe/status". Plain counters: nobody reacts to them, readers poll.
class Status : public Entity {
   RAVEL_ENTITY_TYPE(Status, "Icmp::Probe::Status")
 public:
   // clang-format off
#define RAVEL_PROBE_COUNTER_FIELD(name) \
   uint64_t name = 0; \
   void name##Inc(uint64_t n) { name += n; }
   RAVEL_PROBE_COUNTERS(RAVEL_PROBE_COUNTER_FIELD)
#undef RAVEL_PROBE_COUNTER_FIELD
   // clang-format on

   std::map<uint8_t, uint64_t> codeCount;
   void codeCountInc(uint8_t code, uint64_t n) {
      codeCount[code] += n;
   }
   int32_t lastTxErrno = 0;
   void lastTxErrnoIs(int32_t e) {
      lastTxErrno = e;
   }

   void clear() {
#define RAVEL_PROBE_COUNTER_CLEAR(name) name = 0;
      RAVEL_PROBE_COUNTERS(RAVEL_PROBE_COUNTER_CLEAR)
#undef RAVEL_PROBE_COUNTER_CLEAR
      codeCount.clear();
      lastTxErrno = 0;
   }
};

}  // namespace Ravel::ProbeResponder
