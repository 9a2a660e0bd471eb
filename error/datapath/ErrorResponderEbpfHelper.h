#pragma once

// The loader of the error responder's kernel probe programs, as the control state machines see
// it. Only implementations of this interface touch libbpf.

#include <cstdint>
#include <string>

#include "error/ErrorResponderTypes.h"

namespace Ravel::ErrorResponder {

// One record taken out of a ring buffer, valid only while the callback that made it runs.
class EBPFIcmpPacketInfoBase : public Node {
 public:
   virtual uint32_t ifIndex() const = 0;
   virtual const void* data() const = 0;
};

// The kernel program's own counts (its stats_map).
struct EbpfKernelStats {
   uint64_t queued = 0;
   uint64_t dropped = 0;
};

class EbpfHelperBase : public Node {
 public:
   // Empty parameters when the program could not be loaded; the loader has reported why.
   virtual EbpfInitParams loadProgram(const Ptr<EbpfConfig>& ebpfConfig,
                                      const Ptr<EbpfHandlerContext>& ctx) = 0;
   virtual void unloadProgram(const EbpfInitParams& params) = 0;
   // False when the namespace could not be added (traced): typically a full map.
   virtual bool addToVrfMap(int32_t mapFd, NsInode nsInode) = 0;
   virtual void removeFromVrfMap(int32_t mapFd, NsInode nsInode) = 0;
   virtual void afterUnload() = 0;
   // Why the last loadProgram failed, in words.
   virtual std::string lastLoadError() const = 0;
   // Draining a loaded program: hands every record its ring holds now to the ring's callback
   // (which may ask to stop early); the kernel program's own counts, read and cleared.
   // Records handed over, or a negative errno (-1 also when a callback asked to stop).
   virtual int consume(const EbpfInitParams& params) = 0;
   virtual bool kernelStats(const EbpfInitParams& params, EbpfKernelStats& out) const = 0;
   virtual void kernelStatsClear(const EbpfInitParams& params) = 0;
   virtual void dumpState(DumpContext&, int) const {}
};

// The kernel loaders of each family.
Ptr<EbpfHelperBase> ebpfIpv4HelperFactory();
Ptr<EbpfHelperBase> ebpfIpv6HelperFactory();

// Signature of the substitute loader's factory ("ebpfTestHelperFactory").
using EbpfTestHelperFactoryFn = Ptr<EbpfHelperBase> (*)();

}  // namespace Ravel::ErrorResponder
