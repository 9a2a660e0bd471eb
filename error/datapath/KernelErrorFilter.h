#pragma once

// Keeps the kernel's own ICMP errors off the wire where the error responder sends extended ones:
// the kernel answers first, so a traceroute would otherwise never see the responder's reply.
// The kernel's errors are dropped only while the agent keeps saying its replacement is live: a
// stopped, stuck or dead agent stops saying so, and the kernel lets them through again by itself.

#include <chrono>
#include <cstdint>
#include <string>

#include "platform/values/Values.h"

namespace Ravel::ErrorResponder {

// Socket mark of every reply the responder sends; the filter lets errors carrying it through.
constexpr uint32_t kReplyMark = 42;

// The families whose kernel errors a VRF's filter drops.
struct LiveFamilies {
   bool ipv4 = false;
   bool ipv6 = false;
   bool operator==(const LiveFamilies&) const = default;
   bool any() const { return ipv4 || ipv6; }
};

class KernelErrorFilter {
 public:
   // How long one liveIs() holds in the kernel: the kernel's errors come back by themselves this
   // long after the agent last refreshed it.
   static constexpr std::chrono::milliseconds kLiveTimeout{1500};

   virtual ~KernelErrorFilter() = default;
   // Installs the VRF's filter in the namespace file `nsPath` (the agent's own namespace when
   // empty), dropping nothing until liveIs(). Returns false when it could not be installed
   // (traced; the caller counts): the kernel's errors then keep flowing. Calling again with the
   // same path is a no-op, unless the path now names another namespace; another path moves it.
   virtual bool vrfIs(const VrfName& vrf, const std::string& nsPath) = 0;
   // Removes the VRF's filter, if any. Also due when the VRF's namespace is deleted: the open
   // socket would keep the namespace alive.
   virtual void vrfDel(const VrfName& vrf) = 0;
   // For the next kLiveTimeout, drops in the VRF the locally generated destination-unreachable,
   // time-exceeded and (IPv4) parameter-problem errors of the families in `live` that lack kReplyMark, leave through a
   // device other than loopback and have a local source address; a family not in `live` is let
   // through at once. Returns false when the VRF has no filter or the kernel refused (traced);
   // nothing is dropped in the VRF then.
   virtual bool liveIs(const VrfName& vrf, LiveFamilies live) = 0;
};

}  // namespace Ravel::ErrorResponder
