#pragma once

// Keeps the kernel's own ICMP errors off the wire where the error responder sends extended ones:
// the kernel answers first, so a traceroute would otherwise never see the responder's reply.

#include <cstdint>
#include <memory>
#include <string>

#include "platform/values/Values.h"

namespace Ravel::ErrorResponder {

// Socket mark of every reply the responder sends; the filter lets errors carrying it through.
constexpr uint32_t kReplyMark = 42;

class KernelErrorFilter {
 public:
   virtual ~KernelErrorFilter() = default;
   // Drops, in the namespace file `nsPath` (the agent's own namespace when empty), locally
   // generated destination-unreachable and time-exceeded errors of both families that lack
   // kReplyMark. Returns false when the filter could not be installed (traced; the caller counts):
   // the kernel's errors then keep flowing. Calling again with the same path is a no-op, unless
   // the path now names another namespace; another path moves the filter.
   virtual bool vrfIs(const VrfName& vrf, const std::string& nsPath) = 0;
   // Removes the VRF's filter, if any. Also due when the VRF's namespace is deleted: the open
   // socket would keep the namespace alive.
   virtual void vrfDel(const VrfName& vrf) = 0;
};

}  // namespace Ravel::ErrorResponder
