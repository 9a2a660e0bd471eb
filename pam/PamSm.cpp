#include "pam/PamSm.h"

#include <linux/icmpv6.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "platform/core/Assert.h"
#include "platform/core/Errno.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("PamSm");

namespace Ravel {

namespace {
constexpr int kTaskPriority = 3;
}

// Classic BPF: code, jt, jf, k; jumps count from the next instruction.
// Raw IPv4 sockets see the packet from the IP header on; raw ICMPv6 sockets from the ICMPv6
// header on.
const SockFilterProgram PamSm::v4ProbeFilter = {
    BPF_STMT(BPF_LD | BPF_W | BPF_IMM, 0),
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, offsetof(iphdr, protocol)),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_ICMP, 0, 6),
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, offsetof(iphdr, frag_off)),
    // A non-first fragment has no ICMP header to look at.
    BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, IP_OFFMASK, 4, 0),
    BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),  // X = IP header length
    BPF_STMT(BPF_LD | BPF_B | BPF_IND, offsetof(icmphdr, type)),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ICMP_EXT_ECHO, 0, 1),
    BPF_STMT(BPF_RET | BPF_K, 0xffff),
    BPF_STMT(BPF_RET | BPF_K, 0),
};

const SockFilterProgram PamSm::v6ProbeFilter = {
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, offsetof(icmp6hdr, icmp6_type)),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ICMPV6_EXT_ECHO_REQUEST, 0, 1),
    BPF_STMT(BPF_RET | BPF_K, 0xffff),
    BPF_STMT(BPF_RET | BPF_K, 0),
};

const SockFilterProgram PamSm::dropAllFilter = {
    BPF_STMT(BPF_RET | BPF_K, 0),
};

PamSm::PamSm(Ptr<PamConfig> errConfig, Ptr<PamConfig> probeConfig,
             Ptr<AllVrfStatusLocal> allVrfStatusLocal, Ptr<PamStatus> pamStatus,
             PamFactory& factory)
    : errConfig_(std::move(errConfig)),
      probeConfig_(std::move(probeConfig)),
      allVrfStatusLocal_(std::move(allVrfStatusLocal)),
      pamStatus_(std::move(pamStatus)),
      factory_(factory),
      vrfBacklogTask_(Scheduler::defaultScheduler(), "PamVrfBackLog", kTaskPriority,
                      [this] { handleVrfBacklogTaskRun(); }),
      vrfRetryTask_(Scheduler::defaultScheduler(), "PamVrfRetry", kTaskPriority,
                    [this] { handleVrfRetryTaskRun(); }),
      vrfRetryTaskInterval_(0.5) {
   RAVEL_ASSERT(errConfig_);
   RAVEL_ASSERT(probeConfig_);
   RAVEL_ASSERT(pamStatus_);
   handleInitialized();
   hasNotificationActiveIs(true);
}

PamSm::~PamSm() {
   hasNotificationActiveIs(false);
}

void PamSm::hasNotificationActiveIs(bool active) {
   inputSubs_.clear();
   vrfStatusSubs_.clear();
   if (!active)
      return;
   inputSubs_.push_back(errConfig_->vrf.subscribe([this](const VrfName& n) { handleVrf(n); }));
   inputSubs_.push_back(probeConfig_->vrf.subscribe([this](const VrfName& n) { handleVrf(n); }));
   if (allVrfStatusLocal_) {
      inputSubs_.push_back(allVrfStatusLocal_->vrf.subscribe([this](const VrfName& n) {
         watchVrfStatus(n);
         handleVrf(n);
      }));
      for (auto& [name, status] : allVrfStatusLocal_->vrf)
         watchVrfStatus(name);
   }
}

// A change of an entry's state, namespace validity or inode reaches handleVrf.
void PamSm::watchVrfStatus(const VrfName& n) {
   vrfStatusSubs_.erase(n);
   auto s = vrfStatusLocal(n);
   if (!s)
      return;
   auto& subs = vrfStatusSubs_[n];
   subs.push_back(s->state.subscribe([this, n] { handleVrf(n); }));
   subs.push_back(s->nsInodeValid.subscribe([this, n] { handleVrf(n); }));
   subs.push_back(s->nsInode.subscribe([this, n] { handleVrf(n); }));
}

Ptr<VrfStatusLocal> PamSm::vrfStatusLocal(const VrfName& n) const {
   return allVrfStatusLocal_ ? allVrfStatusLocal_->vrf.get(n) : nullptr;
}

void PamSm::handleInitialized() {
   TRACE(3, "");
   initialized_ = true;
   for (const VrfName& n : errConfig_->vrf)
      handleVrf(n);
   for (const VrfName& n : probeConfig_->vrf) {
      if (!errConfig_->vrfHas(n))
         handleVrf(n);
   }
}

void PamSm::handleVrf(const VrfName& vrfName) {
   TRACE(3, "vrfName: {}", vrfName);
   bool probeWanted = probeConfig_->vrfHas(vrfName);
   bool configured = errConfig_->vrfHas(vrfName) || probeWanted;
   bool isDefault = vrfName.isDefault();
   auto entry = vrfStatusLocal(vrfName);
   bool statusAvailable =
       isDefault || (entry && entry->state() == VrfState::active && entry->nsInodeValid());
   TRACE(4, "vrfConfigured {}", configured);
   TRACE(4, "vrfStatusAvailable {}", statusAvailable);

   Operation op = kNothing;
   auto pamVrfStatus = pamStatus_->vrfStatus.get(vrfName);
   if (!configured || !statusAvailable) {
      op = kRemove;
   } else if (!pamVrfStatus) {
      op = kAdd;
   } else {
      NsInode current = 0;
      if (!isDefault) {
         current = entry->nsInode();
         if (current == 0) {
            std::string msg = fmt::format("Unexpected, nsInode invalid for {}", vrfName.str());
            assertFailed("nsInode.value()", __FILE__, __LINE__, msg.c_str());
         }
      }
      if (pamVrfStatus->nsInode() != current || pamVrfStatus->probeEnabled() != probeWanted) {
         op = kRecreate;
      }
   }
   lastOperation_ = op;
   TRACE(4, "vrfName: {} oper: {}", vrfName, static_cast<int>(op));

   if (op == kRecreate || op == kRemove) {
      TRACE(4, "vrfName: {} Removing", vrfName);
      auto& pams = *pamStatus_->pamCollection();
      pams.pamDel({vrfName, AddressFamily::ipv4});
      pams.pamDel({vrfName, AddressFamily::ipv6});
      pamStatus_->vrfStatusDel(vrfName);
   }
   if (op == kAdd || op == kRecreate) {
      if (failedPamHas(vrfName)) {
         TRACE(4, "vrfName: {} already in retry set, not adding again", vrfName);
         return;
      }
      TRACE(4, "vrfName: {} Adding", vrfName);
      vrfBacklogIs(vrfName);
      vrfBacklogTask_.scheduleTask();
   }
}

void PamSm::vrfBacklogDel(const VrfName& n) {
   RAVEL_ASSERT_MSG(!vrfBacklogProcessing_, "vrfBacklog changed during a backlog run");
   vrfBacklog_.erase(n);
}

std::pair<uint64_t, uint64_t> PamSm::runBacklog() {
   uint64_t processed = 0;
   Scheduler& sched = vrfBacklogTask_.scheduler();
   bool firstOfRun = true;
   while (!vrfBacklog_.empty()) {
      std::set<VrfName> working = std::move(vrfBacklog_);
      vrfBacklog_.clear();
      vrfBacklogProcessing_ = true;
      // Resume at the bookmark and wrap around, so that names sorting before it are not lost.
      std::vector<VrfName> order;
      auto start =
          vrfBacklogBookmark_ ? working.lower_bound(*vrfBacklogBookmark_) : working.begin();
      order.insert(order.end(), start, working.end());
      order.insert(order.end(), working.begin(), start);
      for (size_t i = 0; i < order.size(); ++i) {
         if (!firstOfRun && sched.taskShouldYield()) {
            vrfBacklogBookmark_ = order[i];
            vrfBacklogProcessing_ = false;
            vrfBacklog_.insert(order.begin() + static_cast<ptrdiff_t>(i), order.end());
            return {processed, vrfBacklog_.size()};
         }
         firstOfRun = false;
         vrfBacklogProcessElem(order[i]);
         ++processed;
      }
      vrfBacklogBookmark_.reset();
      vrfBacklogProcessing_ = false;
   }
   return {processed, 0};
}

void PamSm::handleVrfBacklogTaskRun() {
   TRACE(3, "backlog {} names", vrfBacklog_.size());
   if (vrfBacklogProcessing_) {
      vrfBacklogTask_.pendingWorkIs(vrfBacklog_.size());
      if (!vrfBacklog_.empty())
         vrfBacklogTask_.scheduleTask();
      return;
   }
   auto [processed, remaining] = runBacklog();
   vrfBacklogTask_.workCountInc(processed);
   vrfBacklogTask_.pendingWorkIs(remaining);
   if (remaining)
      vrfBacklogTask_.scheduleTask();
   TRACE(4, "progress: ({}/{})", processed, remaining);
}

void PamSm::vrfBacklogProcessElem(const VrfName& vrfName) {
   TRACE(5, "vrfName: {}", vrfName);
   if (processVrf(vrfName))
      scheduleRetry(vrfName);
}

bool PamSm::processVrf(const VrfName& vrfName) {
   TRACE(3, "vrfName: {}", vrfName);
   bool errHit = errConfig_->vrfHas(vrfName);
   bool probeHit = probeConfig_->vrfHas(vrfName);
   bool configured = errHit || probeHit;
   auto entry = vrfStatusLocal(vrfName);
   NsInode inode = entry ? entry->nsInode() : 0;

   auto notCreated = [&](bool statusAvailable) {
      TRACE(4,
            "Not creating PAMs config/vrfStatusLocal removed, errorResponderConfig: {} "
            "probeResponderConifg: {} vrfStatusAvailable: {}",
            errHit, probeHit, statusAvailable);
      return false;
   };
   if (vrfName.isDefault()) {
      if (!configured)
         return notCreated(true);
   } else if (!entry) {
      return notCreated(false);
   } else if (entry->state() != VrfState::active || !entry->nsInodeValid()) {
      if (!configured)
         return notCreated(true);
      TRACE(4, "Not creating PAMs, vrf not active, state is {}, nsInode {}",
            toString(entry->state()), entry->nsInodeValid());
      return false;
   } else if (!configured) {
      return notCreated(true);
   }

   TRACE(4, "vrfName: {}, Trying to create pams", vrfName);
   auto v4 = createPam(vrfName, AddressFamily::ipv4);
   if (!v4) {
      TRACE(1, "vrfName: {} v4 pam creation failed, scheduling retry", vrfName);
      return true;
   }
   auto v6 = createPam(vrfName, AddressFamily::ipv6);
   if (!v6) {
      TRACE(1, "vrfName: {} v6 pam creation failed, scheduling retry", vrfName);
      return true;
   }
   auto& pams = *pamStatus_->pamCollection();
   pams.pamIs({vrfName, AddressFamily::ipv4}, v4);
   pams.pamIs({vrfName, AddressFamily::ipv6}, v6);
   pamStatus_->vrfStatusIs(vrfName, inode)->probeEnabledIs(probeHit);
   return false;
}

Ptr<IpPam> PamSm::createPam(const VrfName& vrfName, AddressFamily af) {
   TRACE(4, "vrfName: {} af: {}", vrfName, af);
   std::string name = fmt::format("{} vrf {}", toString(af), vrfName.str());
   std::string ns = vrfName.nsName();
   bool probe = probeConfig_->vrfHas(vrfName);
   Ptr<IpPam> pam;
   try {
      if (af == AddressFamily::ipv4) {
         pam = factory_.ipSocketPamFactory(name, 1, ns);
         pam->filterProgramIs(probe ? v4ProbeFilter : dropAllFilter);
      } else {
         RAVEL_ASSERT(af == AddressFamily::ipv6);
         pam = factory_.ip6SocketPamFactory(name, 58, ns);
         pam->filterProgramIs(probe ? v6ProbeFilter : dropAllFilter);
      }
      pam->optionsIs(kPamOptions);
      pam->enabledIs(true);
      return pam;
   } catch (const Errno& e) {
      int captured = errno;
      TRACE(1, "Pam creation for vrfName: {} af: {} threw errno exception: {} what: {} error: {}",
            vrfName, af, e.errnoValue(), e.what(), std::strerror(captured));
      if (captured == ENOENT || captured == EINVAL)
         return nullptr;
      errno = captured;
      throw Errno(e);
   }
}

void PamSm::scheduleRetry(const VrfName& vrfName) {
   TRACE(4, "vrfName: {}", vrfName);
   failedPamIs(vrfName);
   if (vrfRetryTask_.currentExpirationTime() == kNever) {
      vrfRetryTask_.scheduleTaskDelay(vrfRetryTaskInterval_);
   }
}

void PamSm::handleVrfRetryTaskRun() {
   TRACE(3, "failedPam {} names", failedPam_.size());
   if (failedPam_.empty())
      return;
   VrfName name = *failedPam_.begin();
   failedPamDel(name);
   TRACE(4, "Extracted from set {}", name);
   if (processVrf(name))
      scheduleRetry(name);
}

}  // namespace Ravel
