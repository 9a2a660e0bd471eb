#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>

#include "error/datapath/KernelErrorFilter.h"

struct nft_ctx;

namespace Ravel::ErrorResponder {

// nftables table "ravel" (family inet, `flags owner`) per namespace. An owned table belongs to
// the netlink socket that created it (kernel 5.12 and later): the kernel deletes it when that
// socket closes, so the table never outlives the agent, even one killed with SIGKILL. Each VRF
// therefore keeps its libnftables context, and with it the socket, open while the filter lives.
class NftKernelErrorFilter final : public KernelErrorFilter {
 public:
   static constexpr const char* kTableName = "ravel";
   // The ruleset loaded into each namespace.
   static std::string ruleset();

   NftKernelErrorFilter();
   ~NftKernelErrorFilter() override;
   bool vrfIs(const VrfName& vrf, const std::string& nsPath) override;
   void vrfDel(const VrfName& vrf) override;
   bool liveIs(const VrfName& vrf, LiveFamilies live) override;

   size_t vrfCount() const { return vrfs_.size(); }

 private:
   struct CtxFree {
      void operator()(nft_ctx* ctx) const;
   };
   using Ctx = std::unique_ptr<nft_ctx, CtxFree>;
   struct Installed {
      std::string nsPath;
      ino_t nsId;
      Ctx ctx;
   };
   std::map<VrfName, Installed> vrfs_;
};

}  // namespace Ravel::ErrorResponder
