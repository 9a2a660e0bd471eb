#pragma once

// The libbpf loader of the two ICMP probe programs. This header stays free of libbpf: the agent
// sees the consumer as an opaque ring_buffer and the maps as descriptors.

#include <cstddef>
#include <cstdint>
#include <string>

#include "error/datapath/ErrorResponderEbpfHelper.h"

namespace Ravel::ErrorResponder {

// What both families do alike: the namespace filter map.
class EbpfIpGenHelper : public EbpfHelperBase {
 public:
   void addToVrfMap(int32_t mapFd, NsInode nsInode) override;
   void removeFromVrfMap(int32_t mapFd, NsInode nsInode) override;
   void afterUnload() override {}
};

// Stateless: a loaded program lives in the EbpfInitParams its caller keeps.
class EbpfIpv4Helper : public EbpfIpGenHelper {
 public:
   EbpfInitParams loadProgram(const Ptr<EbpfConfig>& ebpfConfig,
                              const Ptr<EbpfHandlerContext>& ebpfHandlerContext) override;
   void unloadProgram(const EbpfInitParams& params) override;
};

class EbpfIpv6Helper : public EbpfIpGenHelper {
 public:
   EbpfInitParams loadProgram(const Ptr<EbpfConfig>& ebpfConfig,
                              const Ptr<EbpfHandlerContext>& ebpfHandlerContext) override;
   void unloadProgram(const EbpfInitParams& params) override;
};

// Ring-buffer sample callbacks; `ctx` is the family's EbpfHandlerContext. 0: go on; 1: record
// rejected (counted), go on; -1: the context asked to yield, stop after this record.
int handle_v4event(void* ctx, void* data, size_t size);
int handle_v6event(void* ctx, void* data, size_t size);

// Hands every record the ring holds now to its callback: the number consumed, or a negative
// errno (-1 also when a callback asked to yield).
int ringBufferConsume(ring_buffer* ringBuf);

// The kernel program's own counts (stats_map).
struct EbpfKernelStats {
   uint64_t queued = 0;
   uint64_t dropped = 0;
};
bool readEbpfKernelStats(int32_t statsMapFd, EbpfKernelStats& out);
bool clearEbpfKernelStats(int32_t statsMapFd);

// libbpf's text for a libbpf or errno code (either sign).
std::string libbpfErrorString(int err);

}  // namespace Ravel::ErrorResponder
