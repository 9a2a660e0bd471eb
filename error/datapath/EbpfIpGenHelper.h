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
   bool addToVrfMap(int32_t mapFd, NsInode nsInode) override;
   void removeFromVrfMap(int32_t mapFd, NsInode nsInode) override;
   void afterUnload() override {}
   int consume(const EbpfInitParams& params) override;
   bool kernelStats(const EbpfInitParams& params, EbpfKernelStats& out) const override;
   void kernelStatsClear(const EbpfInitParams& params) override;
};

// Stateless: a loaded program lives in the EbpfInitParams its caller keeps.
class EbpfIpv4Helper : public EbpfIpGenHelper {
 public:
   EbpfInitParams loadProgram(const Ptr<EbpfConfig>& ebpfConfig,
                              const Ptr<EbpfHandlerContext>& ebpfHandlerContext) override;
   void unloadProgram(const EbpfInitParams& params) override;
   std::string lastLoadError() const override;
};

class EbpfIpv6Helper : public EbpfIpGenHelper {
 public:
   EbpfInitParams loadProgram(const Ptr<EbpfConfig>& ebpfConfig,
                              const Ptr<EbpfHandlerContext>& ebpfHandlerContext) override;
   void unloadProgram(const EbpfInitParams& params) override;
   std::string lastLoadError() const override;
};

// Ring-buffer sample callbacks; `ctx` is the family's EbpfHandlerContext. 0: go on; 1: record
// rejected (counted), go on; -1: the context asked to yield, stop after this record.
int handle_v4event(void* ctx, void* data, size_t size);
int handle_v6event(void* ctx, void* data, size_t size);

// libbpf's text for a libbpf or errno code (either sign).
std::string libbpfErrorString(int err);

}  // namespace Ravel::ErrorResponder
