#pragma once

// Decides, per VRF and family, when the kernel's own ICMP errors may be dropped: only while the
// agent's replacement is certain. A family is live in a VRF while its program is attached and
// drained, the VRF's namespace is in the program's filter map, the VRF's PAM of that family is
// open, and no replacement was lost lately (a full ring, a rejected record, a failed send). The
// filter is refreshed from a timer: an agent that stops running stops refreshing, and the kernel
// lets its errors through again by itself.

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "error/ErrorResponderSchema.h"
#include "error/ErrorResponderTypes.h"
#include "error/datapath/KernelErrorFilter.h"
#include "pam/PamRecords.h"
#include "platform/core/Scheduler.h"
#include "platform/store/NetSchema.h"

namespace Ravel::ErrorResponder {

struct KernelErrorGuardInputs {
   Ptr<Config> config;
   Ptr<EbpfConfig> ebpfConfig;
   Ptr<AllVrfStatusLocal> allVrfStatusLocal;
   Ptr<Status> status;
   Ptr<PamCollection> pamCollection;
   std::array<Ptr<EbpfVrfStatus>, 2> vrfStatus;  // IPv4's, IPv6's
};

class KernelErrorGuardSm : public Node {
 public:
   // While the agent drains a family's ring: how many of its records were lost so far (the
   // kernel's ring drops and the records the loader rejected). nullopt: nothing drains it.
   using DrainState = std::function<std::optional<uint64_t>(AddressFamily)>;

   // Within kLiveTimeout, so that one late turn of a busy scheduler does not let errors through.
   static constexpr Seconds kRefreshInterval = 0.5;
   // How long a lost replacement leaves the kernel's errors flowing.
   static constexpr Seconds kHoldOff = 2.0;
   // A filter that could not be installed is tried again this much later.
   static constexpr Seconds kInstallRetry = 10.0;

   KernelErrorGuardSm(KernelErrorGuardInputs inputs, std::unique_ptr<KernelErrorFilter> filter,
                      DrainState drainState, Scheduler& scheduler);
   ~KernelErrorGuardSm() override;

   void handleInitialized();
   // Re-evaluates one VRF now: installs, refreshes or removes its filter.
   void handleVrf(const VrfName& vrf);
   void handleAll();
   // A record of the VRF got no replacement: its kernel errors of that family flow again at
   // once, for kHoldOff.
   void replacementLost(const VrfName& vrf, AddressFamily af);

   // What the kernel was last told for the VRF (nothing when it has no filter).
   LiveFamilies live(const VrfName& vrf) const;
   bool installed(const VrfName& vrf) const { return vrfs_.count(vrf) != 0; }
   void dumpState(DumpContext& ctx, int indent) const;

 private:
   struct VrfState {
      std::string nsPath;
      LiveFamilies live;
   };
   static size_t idx(AddressFamily af) { return af == AddressFamily::ipv6 ? 1 : 0; }
   void tick();
   // The namespace file the VRF's filter goes into; nullopt: none wanted.
   std::optional<std::string> wantedNsPath(const VrfName& vrf) const;
   bool familyLive(const VrfName& vrf, NsInode inode, AddressFamily af) const;
   void remove(VrfName vrf);  // a copy: the caller may hold a key of vrfs_
   void publish(const VrfName& vrf, LiveFamilies live);
   void timerIs();

   KernelErrorGuardInputs in_;
   std::unique_ptr<KernelErrorFilter> filter_;
   DrainState drainState_;
   Scheduler& scheduler_;
   TimerTask timer_;
   std::map<VrfName, VrfState> vrfs_;
   std::map<VrfName, Seconds> installFailedUntil_;
   std::map<std::pair<VrfName, size_t>, Seconds> heldUntil_;
   std::array<Seconds, 2> familyHeldUntil_{};
   std::array<std::optional<uint64_t>, 2> lost_;
   std::array<bool, 2> draining_{};  // as drainState_ said at the last look
   Subscription entrySub_;
   Subscription suppressSub_;
   Subscription pamSub_;
   Subscription afStatusSub_;
};

}  // namespace Ravel::ErrorResponder
