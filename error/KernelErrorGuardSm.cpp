#include "error/KernelErrorGuardSm.h"

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ErrorResponderKernelErrorGuard");

namespace Ravel::ErrorResponder {

namespace {
// Before the drain (3) and the counter sync (4): a refresh must not wait behind a long drain.
constexpr int kTimerPriority = 2;
constexpr AddressFamily kFamilies[] = {AddressFamily::ipv4, AddressFamily::ipv6};

const char* liveText(LiveFamilies l) {
   return l.ipv4 ? (l.ipv6 ? "ipv4 ipv6" : "ipv4") : (l.ipv6 ? "ipv6" : "none");
}
}  // namespace

KernelErrorGuardSm::KernelErrorGuardSm(KernelErrorGuardInputs inputs,
                                       std::unique_ptr<KernelErrorFilter> filter,
                                       DrainState drainState, Scheduler& scheduler)
    : in_(std::move(inputs)),
      filter_(std::move(filter)),
      drainState_(std::move(drainState)),
      scheduler_(scheduler),
      timer_(scheduler, "KernelErrorGuard", kTimerPriority, [this] { tick(); }) {
   RAVEL_ASSERT(in_.config && in_.ebpfConfig && in_.allVrfStatusLocal && in_.status);
   RAVEL_ASSERT(in_.pamCollection && in_.vrfStatus[0] && in_.vrfStatus[1]);
   RAVEL_ASSERT(filter_ && drainState_);
   entrySub_ = in_.ebpfConfig->entry.subscribe([this](const VrfName& v) { handleVrf(v); });
   suppressSub_ = in_.config->suppressKernelErrors.subscribe([this] { handleAll(); });
   pamSub_ = in_.pamCollection->pam.subscribe(
       [this](const VrfNameAndAddressFamily& k) { handleVrf(k.vrf); });
   afStatusSub_ = in_.status->afStatus.subscribe([this](const AddressFamily& af) {
      draining_[idx(af)] = drainState_(af).has_value();
      handleAll();
   });
   handleInitialized();
}

KernelErrorGuardSm::~KernelErrorGuardSm() {
   entrySub_.reset();
   suppressSub_.reset();
   pamSub_.reset();
   afStatusSub_.reset();
   timer_.cancel();
   while (!vrfs_.empty())
      remove(vrfs_.begin()->first);
}

void KernelErrorGuardSm::handleInitialized() {
   TRACE(3, "handleInitialized");
   for (AddressFamily af : kFamilies)
      draining_[idx(af)] = drainState_(af).has_value();
   handleAll();  // entries made before this machine
}

void KernelErrorGuardSm::handleAll() {
   std::vector<VrfName> names;
   for (auto& [vrf, e] : in_.ebpfConfig->entry)
      names.push_back(vrf);
   for (auto& [vrf, s] : vrfs_) {
      if (!in_.ebpfConfig->entry.has(vrf))
         names.push_back(vrf);
   }
   for (auto& vrf : names)
      handleVrf(vrf);
}

std::optional<std::string> KernelErrorGuardSm::wantedNsPath(const VrfName& vrf) const {
   if (!in_.config->suppressKernelErrors() || !in_.ebpfConfig->entry.has(vrf))
      return std::nullopt;
   if (vrf.isDefault())
      return std::string();
   auto s = in_.allVrfStatusLocal->vrf.get(vrf);
   if (!s || s->nsPath().empty())
      return std::nullopt;
   return s->nsPath();
}

bool KernelErrorGuardSm::familyLive(const VrfName& vrf, NsInode inode, AddressFamily af) const {
   Seconds now = scheduler_.now();
   auto held = heldUntil_.find({vrf, idx(af)});
   return draining_[idx(af)] && in_.vrfStatus[idx(af)]->enabledInodeHas(inode) &&
          in_.pamCollection->pamGet({vrf, af}) && now >= familyHeldUntil_[idx(af)] &&
          (held == heldUntil_.end() || now >= held->second);
}

void KernelErrorGuardSm::handleVrf(const VrfName& vrf) {
   auto nsPath = wantedNsPath(vrf);
   LiveFamilies live;
   if (nsPath) {
      NsInode inode = in_.ebpfConfig->entry.get(vrf)->nsInode;
      live = {familyLive(vrf, inode, AddressFamily::ipv4),
              familyLive(vrf, inode, AddressFamily::ipv6)};
   }
   auto it = vrfs_.find(vrf);
   // A VRF has a table only while something in it is dropped: removing the table is the one
   // step that certainly lets everything through.
   if (!live.any() || (it != vrfs_.end() && it->second.nsPath != *nsPath)) {
      remove(vrf);
      it = vrfs_.end();
      if (!nsPath) {  // gone: nothing of it to remember
         installFailedUntil_.erase(vrf);
         for (AddressFamily af : kFamilies)
            heldUntil_.erase({vrf, idx(af)});
      }
      if (!live.any()) {
         timerIs();
         return;
      }
   }
   if (it == vrfs_.end()) {
      auto failed = installFailedUntil_.find(vrf);
      if (failed != installFailedUntil_.end() && scheduler_.now() < failed->second)
         return;
      if (!filter_->vrfIs(vrf, *nsPath)) {
         // Counted once per failed run; the filter traced why. Errors keep flowing meanwhile.
         if (failed == installFailedUntil_.end())
            in_.status->kernelErrorFilterFailedInc();
         installFailedUntil_[vrf] = scheduler_.now() + kInstallRetry;
         timerIs();
         return;
      }
      installFailedUntil_.erase(vrf);
      it = vrfs_.emplace(vrf, VrfState{*nsPath, {}}).first;
      timerIs();
   }
   if (live != it->second.live)
      TRACE(4, "vrf {}: kernel errors dropped for {}", vrf, liveText(live));
   if (!filter_->liveIs(vrf, live)) {
      // The filter removed its table; install it afresh later.
      in_.status->kernelErrorFilterFailedInc();
      vrfs_.erase(it);
      publish(vrf, {});
      installFailedUntil_[vrf] = scheduler_.now() + kInstallRetry;
      return;
   }
   it->second.live = live;
   publish(vrf, live);
}

void KernelErrorGuardSm::publish(const VrfName& vrf, LiveFamilies live) {
   for (AddressFamily af : kFamilies) {
      auto a = in_.status->afStatus.get(af);
      auto v = a ? a->vrfStatus.get(vrf) : nullptr;
      if (v)
         v->kernelErrorsDropped = af == AddressFamily::ipv4 ? live.ipv4 : live.ipv6;
   }
}

void KernelErrorGuardSm::replacementLost(const VrfName& vrf, AddressFamily af) {
   heldUntil_[{vrf, idx(af)}] = scheduler_.now() + kHoldOff;
   if (live(vrf) != LiveFamilies{})
      TRACE(4, "vrf {} {}: a replacement was lost; kernel errors flow for {} s", vrf, af, kHoldOff);
   handleVrf(vrf);
}

LiveFamilies KernelErrorGuardSm::live(const VrfName& vrf) const {
   auto it = vrfs_.find(vrf);
   return it == vrfs_.end() ? LiveFamilies{} : it->second.live;
}

void KernelErrorGuardSm::remove(VrfName vrf) {
   if (vrfs_.erase(vrf) != 0) {
      filter_->vrfDel(vrf);
      publish(vrf, {});
   }
}

void KernelErrorGuardSm::timerIs() {
   // Whatever is not live now may become so by time alone (a hold-off ending).
   if (in_.config->suppressKernelErrors() && !in_.ebpfConfig->entry.empty())
      timer_.scheduleTaskDelay(kRefreshInterval);
}

void KernelErrorGuardSm::tick() {
   TRACE(8, "tick");
   Seconds now = scheduler_.now();
   for (AddressFamily af : kFamilies) {
      // A freshly loaded program and its counters start from zero.
      auto lost = drainState_(af);
      draining_[idx(af)] = lost.has_value();
      auto& last = lost_[idx(af)];
      if (lost && *lost != last.value_or(0)) {
         TRACE(4, "{}: records lost; kernel errors flow for {} s", af, kHoldOff);
         familyHeldUntil_[idx(af)] = now + kHoldOff;
      }
      last = lost;
   }
   std::erase_if(heldUntil_, [now](const auto& h) { return now >= h.second; });
   handleAll();
   timerIs();
}

void KernelErrorGuardSm::dumpState(DumpContext& ctx, int indent) const {
   RAVEL_DUMP(ctx, indent, "kernelErrorGuard vrfs=%d\n", static_cast<int>(vrfs_.size()));
   for (auto& [vrf, s] : vrfs_)
      RAVEL_DUMP(ctx, indent + 2, "%s dropped=%s\n", vrf.str().c_str(), liveText(s.live));
}

}  // namespace Ravel::ErrorResponder
