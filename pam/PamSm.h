#pragma once

#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "pam/PamRecords.h"
#include "platform/core/Scheduler.h"
#include "platform/store/NetSchema.h"

namespace Ravel {

// Decides per VRF whether it must have PAMs, creates them outside reactor callbacks (backlog
// task), retries failed creations from a timer, and records them in PamStatus.
class PamSm : public Node {
 public:
   static const SockFilterProgram v4ProbeFilter;
   static const SockFilterProgram v6ProbeFilter;
   static const SockFilterProgram dropAllFilter;
   static constexpr unsigned kPamOptions = IpPam::kOptRxDstAddr | IpPam::kOptRxIfIndex;

   enum Operation { kNothing = 0, kAdd = 1, kRecreate = 2, kRemove = 3 };

   PamSm(Ptr<PamConfig> errConfig, Ptr<PamConfig> probeConfig,
         Ptr<AllVrfStatusLocal> allVrfStatusLocal, Ptr<PamStatus> pamStatus,
         PamFactory& factory = PamFactory::instance());
   ~PamSm() override;

   void handleInitialized();
   void handleVrf(const VrfName& vrfName);
   bool processVrf(const VrfName& vrfName);
   Ptr<IpPam> createPam(const VrfName& vrfName, AddressFamily af);
   void scheduleRetry(const VrfName& vrfName);
   void handleVrfRetryTaskRun();
   void handleVrfBacklogTaskRun();
   void vrfBacklogProcessElem(const VrfName& vrfName);
   void hasNotificationActiveIs(bool active);

   void vrfBacklogIs(const VrfName& n) { vrfBacklog_.insert(n); }
   void vrfBacklogDel(const VrfName& n);
   bool vrfBacklogHas(const VrfName& n) const { return vrfBacklog_.count(n) != 0; }
   void failedPamIs(const VrfName& n) { failedPam_.insert(n); }
   void failedPamDel(const VrfName& n) { failedPam_.erase(n); }
   bool failedPamHas(const VrfName& n) const { return failedPam_.count(n) != 0; }

   const std::set<VrfName>& vrfBacklog() const { return vrfBacklog_; }
   const std::set<VrfName>& failedPam() const { return failedPam_; }
   const std::optional<VrfName>& vrfBacklogBookmark() const { return vrfBacklogBookmark_; }
   const Task& vrfBacklogTask() const { return vrfBacklogTask_; }
   const TimerTask& vrfRetryTask() const { return vrfRetryTask_; }
   Seconds vrfRetryTaskInterval() const { return vrfRetryTaskInterval_; }
   bool initialized() const { return initialized_; }
   Operation lastOperation() const { return lastOperation_; }

 private:
   // (processed, remaining)
   std::pair<uint64_t, uint64_t> runBacklog();
   Ptr<VrfStatusLocal> vrfStatusLocal(const VrfName& n) const;
   void watchVrfStatus(const VrfName& n);

   Ptr<PamConfig> errConfig_;
   Ptr<PamConfig> probeConfig_;
   Ptr<AllVrfStatusLocal> allVrfStatusLocal_;
   Ptr<PamStatus> pamStatus_;
   PamFactory& factory_;
   Task vrfBacklogTask_;
   std::set<VrfName> vrfBacklog_;
   std::optional<VrfName> vrfBacklogBookmark_;
   bool vrfBacklogProcessing_ = false;
   TimerTask vrfRetryTask_;
   Seconds vrfRetryTaskInterval_;
   std::set<VrfName> failedPam_;
   bool initialized_ = false;
   Operation lastOperation_ = kNothing;

   std::vector<Subscription> inputSubs_;
   std::map<VrfName, std::vector<Subscription>> vrfStatusSubs_;
};

}  // namespace Ravel
