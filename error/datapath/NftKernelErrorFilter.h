#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "error/datapath/KernelErrorFilter.h"
#include "platform/core/Fd.h"
#include "platform/core/Scheduler.h"

namespace Ravel::ErrorResponder {

// nftables table "ravel" (family inet, `flags owner`) per namespace, built and refreshed over a
// netfilter netlink socket of its own (libnftnl messages; no libnftables, whose select() aborts
// past descriptor 1023 and which exits the process when nf_tables is missing). An owned table
// belongs to the socket that created it (kernel 5.12 and later): the kernel deletes it when that
// socket closes, so the table never outlives the agent, even one killed with SIGKILL. Each VRF
// therefore keeps its socket open while the filter lives.
class NftKernelErrorFilter final : public KernelErrorFilter {
 public:
   static constexpr const char* kTableName = "ravel";
   static constexpr const char* kLiveSet = "live";
   // Opens a netfilter netlink socket in the calling thread's namespace; -1 and errno on failure.
   // Tests hand in one that fails as a kernel without nf_tables does.
   using SocketOpener = std::function<int()>;

   explicit NftKernelErrorFilter(SocketOpener opener = nullptr,
                                 Scheduler& scheduler = Scheduler::defaultScheduler());
   ~NftKernelErrorFilter() override;
   bool vrfIs(const VrfName& vrf, const std::string& nsPath) override;
   void vrfDel(const VrfName& vrf) override;
   bool liveIs(const VrfName& vrf, LiveFamilies live) override;

   size_t vrfCount() const { return vrfs_.size(); }
   // Closes the sockets of removed VRFs, as the task would.
   void closeReleased() { released_.clear(); }

 private:
   struct Installed {
      std::string nsPath;
      ino_t nsId = 0;
      Fd sock;  // owns the table
   };
   SocketOpener opener_;
   std::map<VrfName, Installed> vrfs_;
   // Sockets of deleted tables, closed together: each close waits for the kernel to free the
   // tables deleted before it, so a thousand closes one by one take seconds, together one wait.
   std::vector<Fd> released_;
   Task closeTask_;
   uint32_t seq_ = 0;
};

}  // namespace Ravel::ErrorResponder
