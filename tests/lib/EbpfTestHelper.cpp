// The substitute kernel-program loader the agent loads when MOCK_EBPF_HELPER is set: it records
// its calls and hands out real (but inert) descriptors, so nothing needs root or BPF.

#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "error/datapath/ErrorResponderEbpfHelper.h"
#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("EbpfTestHelper");

namespace Ravel::ErrorResponder {
namespace {

class EbpfTestHelper : public EbpfHelperBase {
 public:
   EbpfInitParams loadProgram(const Ptr<EbpfConfig>& ebpfConfig,
                              const Ptr<EbpfHandlerContext>& ctx) override {
      RAVEL_ASSERT(ebpfConfig);
      RAVEL_ASSERT(ctx);
      EbpfInitParams p;
      p.ringBufFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
      p.nsMapFd = ::memfd_create("namespace_filter_map", MFD_CLOEXEC);
      p.statsMapFd = ::memfd_create("stats_map", MFD_CLOEXEC);
      ++loads_;
      TRACE(4, "load {}: ringBufFd {} nsMapFd {} statsMapFd {}", loads_, p.ringBufFd, p.nsMapFd,
            p.statsMapFd);
      maps_[p.nsMapFd];
      return p;
   }
   void unloadProgram(const EbpfInitParams& p) override {
      ++unloads_;
      maps_.erase(p.nsMapFd);
      for (int fd : {p.ringBufFd, p.nsMapFd, p.statsMapFd}) {
         if (fd > 0)
            ::close(fd);
      }
   }
   bool addToVrfMap(int32_t mapFd, NsInode nsInode) override {
      RAVEL_ASSERT(mapFd > 0);
      maps_[mapFd].insert(nsInode);
      return true;
   }
   void removeFromVrfMap(int32_t mapFd, NsInode nsInode) override {
      RAVEL_ASSERT(mapFd > 0);
      RAVEL_ASSERT(!!nsInode);
      maps_[mapFd].erase(nsInode);
   }
   void afterUnload() override {}
   std::string lastLoadError() const override { return {}; }
   // The ring is an eventfd nobody writes: there is never a record to hand over.
   int consume(const EbpfInitParams&) override { return 0; }
   bool kernelStats(const EbpfInitParams&, EbpfKernelStats& out) const override {
      out = {};
      return true;
   }
   void kernelStatsClear(const EbpfInitParams&) override {}
   void dumpState(DumpContext& ctx, int indent) const override {
      ctx.printf("%*cEbpfTestHelper loads=%u unloads=%u\n", indent, ' ', loads_, unloads_);
      for (auto& [fd, inodes] : maps_) {
         ctx.printf("%*cnsMap fd %d entries %zu\n", indent, ' ', fd, inodes.size());
      }
   }

 private:
   unsigned loads_ = 0;
   unsigned unloads_ = 0;
   std::map<int32_t, std::set<NsInode>> maps_;  // each loaded program's namespace filter
};

}  // namespace
}  // namespace Ravel::ErrorResponder

extern "C" Ravel::Ptr<Ravel::ErrorResponder::EbpfHelperBase> ebpfTestHelperFactory() {
   return Ravel::make<Ravel::ErrorResponder::EbpfTestHelper>();
}
