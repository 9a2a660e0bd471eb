#pragma once

// Which VRFs the error responder runs in, and the namespace inode of each: kept in EbpfConfig
// as a two-way map that the kernel programs' filter follows.

#include <map>
#include <memory>
#include <vector>

#include "agent/MiniAgent.h"
#include "error/ErrorResponderSchema.h"
#include "platform/core/Scheduler.h"

namespace Ravel::ErrorResponder {

// Whether VRFs other than the default one are handled; read once per process.
bool toggleIcmpExtendedErrorResponderNdVrfEnabled();

class ConfigSm;

// One candidate VRF: decides whether it is enabled and keeps its EbpfConfig entry in step with
// its namespace.
class VrfConfigSm : public Node {
 public:
   VrfConfigSm(VrfName vrfName, Ptr<Config> config, Ptr<VrfConfig> vrfConfig,
               Ptr<VrfStatusLocal> vrfStatusLocal, Ptr<EbpfConfig> ebpfConfig,
               ConfigSm* owner = nullptr);
   ~VrfConfigSm() override;

   void handleInitialized();
   void handleConfig();
   void onDelete();

   static NsInode nsInode(const VrfName& vrfName, const VrfStatusLocal* status);
   static void removeVrfConfig(EbpfConfig& ebpfConfig, const VrfName& vrfName);

   const VrfName& vrfName() const { return vrfName_; }
   bool isDefaultVrf() const { return vrfName_.isDefault(); }
   bool globalDisabled() const { return config_->enabled().disabled(); }
   const Ptr<VrfConfig>& vrfConfig() const { return vrfConfig_; }
   void vrfConfigIs(const Ptr<VrfConfig>& c);
   const Ptr<VrfStatusLocal>& vrfStatusLocal() const { return vrfStatusLocal_; }
   void vrfStatusLocalIs(const Ptr<VrfStatusLocal>& s);
   // The inode this VRF was refused for because another VRF holds it; 0 when not refused.
   NsInode refusedInode() const { return refusedInode_; }
   void dumpState(DumpContext& ctx, int indent) const;

 private:
   void observeVrfConfig();
   void observeVrfStatusLocal();

   const VrfName vrfName_;
   Ptr<Config> config_;
   Ptr<VrfConfig> vrfConfig_;
   Ptr<VrfStatusLocal> vrfStatusLocal_;
   Ptr<EbpfConfig> ebpfConfig_;
   ConfigSm* owner_;
   NsInode refusedInode_ = 0;
   bool initialized_ = false;
   Subscription configEnabledSub_;
   Subscription vrfEnabledSub_;
   std::vector<Subscription> statusSubs_;
};

class ConfigSm : public Node {
 public:
   static constexpr int kRetryPriority = 3;

   // `status` receives the count of refused VRFs; it may be null.
   ConfigSm(Ptr<Config> config, Ptr<AllVrfStatusLocal> allVrfStatusLocal,
            Ptr<EbpfConfig> ebpfConfig, Ptr<Status> status = nullptr,
            bool ndVrfEnabled = toggleIcmpExtendedErrorResponderNdVrfEnabled());
   ~ConfigSm() override;

   void handleInitialized();
   void handleVrfConfig();
   void handleVrfConfig(const VrfName& vrfName);
   void handleGlobalDisabled();
   bool globalDisabled() const { return config_->enabled().disabled(); }
   const Ptr<Config>& config() const { return config_; }
   const Ptr<AllVrfStatusLocal>& allVrfStatusLocal() const { return allVrfStatusLocal_; }
   const Ptr<EbpfConfig>& ebpfConfig() const { return ebpfConfig_; }

   const std::map<VrfName, Ptr<VrfConfigSm>>& vrfConfigSm() const { return vrfConfigSm_; }
   Ptr<VrfConfigSm> vrfConfigSm(const VrfName& n) const {
      auto it = vrfConfigSm_.find(n);
      return it == vrfConfigSm_.end() ? nullptr : it->second;
   }
   void dumpState(DumpContext& ctx, int indent) const;

   // From a VrfConfigSm: it was refused its inode, or no longer is.
   void vrfRefused(const VrfName& vrf, NsInode inode);
   void vrfRefusalCleared(const VrfName& vrf);

 private:
   void handleInodeReleased(NsInode inode);
   void retryRefused();

   Ptr<Config> config_;
   Ptr<AllVrfStatusLocal> allVrfStatusLocal_;
   Ptr<EbpfConfig> ebpfConfig_;
   Ptr<Status> status_;
   const bool ndVrfEnabled_;
   std::map<VrfName, Ptr<VrfConfigSm>> vrfConfigSm_;
   std::map<VrfName, NsInode> refused_;
   bool initialized_ = false;
   std::unique_ptr<Task> retryTask_;  // gives refused VRFs their turn once an inode is free
   Subscription enabledSub_;
   Subscription vrfConfigSub_;
   Subscription vrfStatusSub_;
   Subscription inodeSub_;
};

}  // namespace Ravel::ErrorResponder
