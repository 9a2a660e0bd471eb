// Stands in for the libbpf loader until it is built: every load reports that loading is
// unavailable and leaves the family unloaded, so the agent runs without its data path.

#include <cstdio>

#include "error/datapath/ErrorResponderEbpfHelper.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ErrorResponderEbpfHelper");

namespace Ravel::ErrorResponder {

namespace {

class EbpfHelperUnavailable : public EbpfHelperBase {
 public:
   explicit EbpfHelperUnavailable(AddressFamily af) : af_(af) {}
   EbpfInitParams loadProgram(const Ptr<EbpfConfig>&, const Ptr<EbpfHandlerContext>&) override {
      TRACE(1, "{}: loading kernel programs is unavailable in this build", af_);
      std::fprintf(stderr, "IcmpErrResponder: %s: loading kernel programs is unavailable\n",
                   toString(af_));
      return {};
   }
   void unloadProgram(const EbpfInitParams&) override {}
   void addToVrfMap(int32_t, NsInode) override {}
   void removeFromVrfMap(int32_t, NsInode) override {}
   void afterUnload() override {}

 private:
   AddressFamily af_;
};

}  // namespace

Ptr<EbpfHelperBase> ebpfIpv4HelperFactory() {
   return make<EbpfHelperUnavailable>(AddressFamily::ipv4);
}

Ptr<EbpfHelperBase> ebpfIpv6HelperFactory() {
   return make<EbpfHelperUnavailable>(AddressFamily::ipv6);
}

}  // namespace Ravel::ErrorResponder
