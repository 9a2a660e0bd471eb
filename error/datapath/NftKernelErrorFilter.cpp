#include "error/datapath/NftKernelErrorFilter.h"

#include <nftables/libnftables.h>

#include <fmt/format.h>

#include <sys/stat.h>

#include <exception>
#include <utility>

#include "platform/core/Trace.h"
#include "platform/linux/SocketPam.h"

RAVEL_TRACE_CATEGORY("NftKernelErrorFilter");

namespace Ravel::ErrorResponder {

namespace {

std::string nsLabel(const std::string& nsPath) {
   return nsPath.empty() ? "own namespace" : nsPath;
}

// Identity of the namespace a path names now (0 when none): a namespace deleted and made again
// under the same name is another namespace.
ino_t namespaceId(const std::string& nsPath) {
   struct stat st {};
   return ::stat(nsPath.empty() ? "/proc/thread-self/ns/net" : nsPath.c_str(), &st) == 0 ? st.st_ino
                                                                                         : 0;
}

}  // namespace

std::string NftKernelErrorFilter::ruleset() {
   // The output hook sees every locally generated packet, the kernel's ICMP errors included
   // (those for forwarded packets too). nft adds the protocol match each type match needs; the
   // counters show how much the filter took.
   return fmt::format(
       "add table inet {0} {{ flags owner; }}\n"
       "add chain inet {0} output {{ type filter hook output priority filter; policy accept; }}\n"
       "add rule inet {0} output meta mark != {1} "
       "icmp type {{ destination-unreachable, time-exceeded }} counter drop\n"
       "add rule inet {0} output meta mark != {1} "
       "icmpv6 type {{ destination-unreachable, time-exceeded }} counter drop\n",
       kTableName, kReplyMark);
}

void NftKernelErrorFilter::CtxFree::operator()(nft_ctx* ctx) const {
   nft_ctx_free(ctx);  // closes the socket, and the kernel drops the table with it
}

NftKernelErrorFilter::NftKernelErrorFilter() = default;
NftKernelErrorFilter::~NftKernelErrorFilter() = default;

bool NftKernelErrorFilter::vrfIs(const VrfName& vrf, const std::string& nsPath) {
   auto it = vrfs_.find(vrf);
   if (it != vrfs_.end()) {
      if (it->second.nsPath == nsPath && it->second.nsId == namespaceId(nsPath))
         return true;
      // The old table goes with its socket, which also stops pinning a deleted namespace.
      vrfs_.erase(it);
   }
   Ctx ctx;
   std::string error;
   int rc = -1;
   ino_t nsId = 0;
   try {
      // The context's netlink socket stays in the namespace it was opened in. libnftables opens
      // it in nft_ctx_new, but running the first command here too keeps this right should it
      // ever open lazily.
      inNamespace(nsPath, [&] {
         nsId = namespaceId("");
         ctx.reset(nft_ctx_new(NFT_CTX_DEFAULT));
         if (!ctx)
            return;
         nft_ctx_buffer_output(ctx.get());
         nft_ctx_buffer_error(ctx.get());
         rc = nft_run_cmd_from_buffer(ctx.get(), ruleset().c_str());
         if (rc != 0) {
            error = nft_ctx_get_error_buffer(ctx.get());
            error = error.substr(0, error.find('\n'));  // the rest points into the ruleset
         }
      });
   } catch (const std::exception& e) {
      error = e.what();
   }
   if (!ctx && error.empty())
      error = "no nftables context";
   if (rc != 0) {
      // An old kernel rejects the owner flag; another owner of the table gives EPERM or EEXIST.
      TRACE(1, "VRF {}: kernel error filter not installed in {}: {}", vrf.str(), nsLabel(nsPath),
            error);
      return false;
   }
   vrfs_.emplace(vrf, Installed{nsPath, nsId, std::move(ctx)});
   TRACE(3, "VRF {}: kernel error filter installed in {}", vrf.str(), nsLabel(nsPath));
   return true;
}

void NftKernelErrorFilter::vrfDel(const VrfName& vrf) {
   if (vrfs_.erase(vrf) != 0)
      TRACE(3, "VRF {}: kernel error filter removed", vrf.str());
}

}  // namespace Ravel::ErrorResponder

namespace Ravel::ErrorResponder {

// Interim: the libnftables filter has no liveness; nothing is dropped until it is replaced.
bool NftKernelErrorFilter::liveIs(const VrfName& vrf, LiveFamilies) {
   return vrfs_.count(vrf) != 0;
}

}  // namespace Ravel::ErrorResponder
