#include "error/ErrorResponderConfigSm.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "platform/config/FeatureToggle.h"
#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ErrorResponderConfigSm");

namespace Ravel::ErrorResponder {

bool toggleIcmpExtendedErrorResponderNdVrfEnabled() {
   static const bool enabled =
       featureToggleEnabled("Ravel.json", "IcmpExtendedErrorResponderNdVrf", true);
   return enabled;
}

VrfConfigSm::VrfConfigSm(VrfName vrfName, Ptr<Config> config, Ptr<VrfConfig> vrfConfig,
                         Ptr<VrfStatusLocal> vrfStatusLocal, Ptr<EbpfConfig> ebpfConfig,
                         ConfigSm* owner)
    : vrfName_(std::move(vrfName)),
      config_(std::move(config)),
      vrfConfig_(std::move(vrfConfig)),
      vrfStatusLocal_(std::move(vrfStatusLocal)),
      ebpfConfig_(std::move(ebpfConfig)),
      owner_(owner) {
   configEnabledSub_ = config_->enabled.subscribe([this] { handleConfig(); });
   observeVrfConfig();
   observeVrfStatusLocal();
   handleInitialized();
}

VrfConfigSm::~VrfConfigSm() {
   configEnabledSub_.reset();
   vrfEnabledSub_.reset();
   statusSubs_.clear();
   onDelete();
}

void VrfConfigSm::observeVrfConfig() {
   vrfEnabledSub_.reset();
   if (vrfConfig_)
      vrfEnabledSub_ = vrfConfig_->enabled.subscribe([this] { handleConfig(); });
}

void VrfConfigSm::observeVrfStatusLocal() {
   statusSubs_.clear();
   if (!vrfStatusLocal_)
      return;
   statusSubs_.push_back(vrfStatusLocal_->state.subscribe([this] { handleConfig(); }));
   statusSubs_.push_back(vrfStatusLocal_->nsInode.subscribe([this] { handleConfig(); }));
   statusSubs_.push_back(vrfStatusLocal_->nsInodeValid.subscribe([this] { handleConfig(); }));
}

void VrfConfigSm::handleInitialized() {
   TRACE(3, "handleInitialized");
   RAVEL_ASSERT(!(isDefaultVrf() && vrfStatusLocal()));
   RAVEL_ASSERT(vrfConfig() || isDefaultVrf() || vrfStatusLocal());
   handleConfig();
   initialized_ = true;
}

void VrfConfigSm::vrfConfigIs(const Ptr<VrfConfig>& c) {
   if (c == vrfConfig_)
      return;
   vrfConfig_ = c;
   observeVrfConfig();
   handleConfig();
}

void VrfConfigSm::vrfStatusLocalIs(const Ptr<VrfStatusLocal>& s) {
   if (s == vrfStatusLocal_)
      return;
   vrfStatusLocal_ = s;
   observeVrfStatusLocal();
   handleConfig();
}

NsInode VrfConfigSm::nsInode(const VrfName& vrfName, const VrfStatusLocal* status) {
   if (vrfName.isDefault()) {
      static const char* kPath = "/proc/self/ns/net";
      struct stat st {};
      if (::stat(kPath, &st) != 0) {
         RAVEL_ASSERT_MSG(
             false, fmt::format("stat failed for {}: {}", kPath, std::strerror(errno)).c_str());
      }
      return static_cast<NsInode>(st.st_ino);
   }
   if (status && status->state() == VrfState::active && status->nsInodeValid())
      return status->nsInode();
   return 0;
}

void VrfConfigSm::handleConfig() {
   TriState global = config_->enabled();
   TriState onVrf = vrfConfig_ ? vrfConfig_->enabled() : TriState::unset();
   bool enabled = global.disabled() ? false : onVrf.isSet ? onVrf.value : global.value;
   TRACE(4, "globalEnabledState: {} enabledStateOnVrf: {} enabled: {}", global, onVrf, enabled);
   auto& ec = *ebpfConfig_;
   if (!enabled) {
      if (refusedInode_ && owner_)
         owner_->vrfRefusalCleared(vrfName_);
      refusedInode_ = 0;
      removeVrfConfig(ec, vrfName_);
      return;
   }
   auto oldEntry = ec.entry.get(vrfName_);
   NsInode inode = nsInode(vrfName_, vrfStatusLocal_.get());
   TRACE(4, "inside enabled: vrfNsInode: {} oldEntryPresent: {} oldEntryInode: {}", inode,
         bool(oldEntry), oldEntry ? oldEntry->nsInode : 0);
   if (oldEntry && oldEntry->nsInode != inode) {
      TRACE(4, "Remove existing entry for vrf {} with inode {}", vrfName_, oldEntry->nsInode);
      ec.entryByInodeDel(oldEntry->nsInode);
      ec.entryDel(vrfName_);
      oldEntry.reset();
   }
   if (inode != 0 && !oldEntry) {
      // Two names for one namespace: the kernel filter maps an inode to one VRF, so the first
      // keeps it and this one waits until it is released.
      auto holder = ec.entryByInode.get(inode);
      if (holder && holder->vrfName != vrfName_) {
         if (refusedInode_ != inode) {
            TRACE(1, "vrf {} refused: namespace inode {} already belongs to vrf {}", vrfName_,
                  inode, holder->vrfName);
            refusedInode_ = inode;
            if (owner_)
               owner_->vrfRefused(vrfName_, inode);
         }
         return;
      }
      TRACE(4, "Adding new entry for vrf {} with inode {}", vrfName_, inode);
      auto e = ec.entryIs(vrfName_, inode);
      ec.entryByInodeIs(inode, e);
   }
   if (refusedInode_ && owner_)
      owner_->vrfRefusalCleared(vrfName_);
   refusedInode_ = 0;
}

void VrfConfigSm::removeVrfConfig(EbpfConfig& ebpfConfig, const VrfName& vrfName) {
   TRACE(4, "removeVrfConfig");
   auto entry = ebpfConfig.entry.get(vrfName);
   if (!entry)
      return;
   auto reverseMapEntry = ebpfConfig.entryByInode.get(entry->nsInode);
   RAVEL_ASSERT_MSG(reverseMapEntry,
                    fmt::format("Missing reverse map entry for inode {} mapped to vrf {}",
                                entry->nsInode, vrfName)
                        .c_str());
   RAVEL_ASSERT_MSG(
       reverseMapEntry == entry,
       fmt::format("Inconsistent forwad map entry ({}->{}) and reverse map entry ({}->{})", vrfName,
                   entry->nsInode, reverseMapEntry->nsInode, reverseMapEntry->vrfName)
           .c_str());
   TRACE(4, "Remove entry for vrf {} with inode {}", vrfName, entry->nsInode);
   ebpfConfig.entryByInodeDel(entry->nsInode);
   ebpfConfig.entryDel(vrfName);
}

void VrfConfigSm::onDelete() {
   TRACE(3, "onDelete");
   if (refusedInode_ && owner_)
      owner_->vrfRefusalCleared(vrfName_);
   refusedInode_ = 0;
   removeVrfConfig(*ebpfConfig_, vrfName_);
}

void VrfConfigSm::dumpState(DumpContext& ctx, int indent) const {
   RAVEL_DUMP(ctx, indent, "%s\n", vrfName_.str().c_str());
   RAVEL_DUMP(
       ctx, indent + 2, "vrfConfig=%s\n",
       vrfConfig_ ? fmt::format("{}", static_cast<void*>(vrfConfig_.get())).c_str() : "null");
   RAVEL_DUMP(ctx, indent + 2, "vrfStatusLocal %s\n",
              vrfStatusLocal_ ? fmt::format("{}", static_cast<void*>(vrfStatusLocal_.get())).c_str()
                              : "null");
   if (vrfStatusLocal_) {
      RAVEL_DUMP(ctx, indent + 4, "state=%s\n", toString(vrfStatusLocal_->state()));
      RAVEL_DUMP(ctx, indent + 4, "nsInode=%llu\n",
                 static_cast<unsigned long long>(vrfStatusLocal_->nsInode()));
      RAVEL_DUMP(ctx, indent + 4, "nsInodeValid=%d\n", vrfStatusLocal_->nsInodeValid() ? 1 : 0);
   }
   if (refusedInode_) {
      RAVEL_DUMP(ctx, indent + 2, "refusedInode=%llu\n",
                 static_cast<unsigned long long>(refusedInode_));
   }
}

ConfigSm::ConfigSm(Ptr<Config> config, Ptr<AllVrfStatusLocal> allVrfStatusLocal,
                   Ptr<EbpfConfig> ebpfConfig, Ptr<Status> status, bool ndVrfEnabled)
    : config_(std::move(config)),
      allVrfStatusLocal_(std::move(allVrfStatusLocal)),
      ebpfConfig_(std::move(ebpfConfig)),
      status_(std::move(status)),
      ndVrfEnabled_(ndVrfEnabled) {
   RAVEL_ASSERT(this->config());
   RAVEL_ASSERT(this->allVrfStatusLocal());
   RAVEL_ASSERT(this->ebpfConfig());
   enabledSub_ = config_->enabled.subscribe([this] { handleGlobalDisabled(); });
   vrfConfigSub_ = config_->vrfConfig.subscribe([this](const VrfName& n) { handleVrfConfig(n); });
   vrfStatusSub_ =
       allVrfStatusLocal_->vrf.subscribe([this](const VrfName& n) { handleVrfConfig(n); });
   inodeSub_ = ebpfConfig_->entryByInode.subscribe([this](const NsInode& inode) {
      if (!ebpfConfig_->entryByInode.has(inode))
         handleInodeReleased(inode);
   });
   handleInitialized();
}

ConfigSm::~ConfigSm() {
   enabledSub_.reset();
   vrfConfigSub_.reset();
   vrfStatusSub_.reset();
   inodeSub_.reset();
   retryTask_.reset();
   auto sms = std::move(vrfConfigSm_);
   vrfConfigSm_.clear();
   sms.clear();  // each removes its VRF's entry
}

void ConfigSm::handleInitialized() {
   retryTask_ = std::make_unique<Task>(Scheduler::defaultScheduler(), "ErrorResponderRefusedVrf",
                                       kRetryPriority, [this] { retryRefused(); });
   handleVrfConfig();
   initialized_ = true;
}

void ConfigSm::handleVrfConfig() {
   std::vector<VrfName> names;
   for (auto& [name, e] : ebpfConfig_->entry)
      names.push_back(name);
   for (auto& n : names)
      handleVrfConfig(n);
   names.clear();
   for (auto& [name, c] : config_->vrfConfig) {
      if (!vrfConfigSm_.count(name))
         names.push_back(name);
   }
   for (auto& n : names)
      handleVrfConfig(n);
   names.clear();
   for (auto& [name, s] : allVrfStatusLocal_->vrf) {
      if (!vrfConfigSm_.count(name))
         names.push_back(name);
   }
   for (auto& n : names)
      handleVrfConfig(n);
   if (!vrfConfigSm_.count(VrfName::defaultVrf()))
      handleVrfConfig(VrfName::defaultVrf());
}

void ConfigSm::handleVrfConfig(const VrfName& vrfName) {
   TRACE(4, "vrfName {}", vrfName);
   if (!vrfName.isDefault() && !ndVrfEnabled_)
      return;
   auto status = vrfName.isDefault() ? nullptr : allVrfStatusLocal_->vrf.get(vrfName);
   auto vrfConfig = config_->vrfConfig.get(vrfName);
   bool statusAvailable = vrfName.isDefault() || status;
   bool shouldVrfSmBePresent = !globalDisabled() && (statusAvailable || vrfConfig);
   TRACE(4,
         "globalDisabled: {} vrfStatusLocalPresent: {} vrfStatusAvailable: {} "
         "vrfConfigAvailable: {} shouldVrfSmBePresent{}",
         globalDisabled(), bool(status), statusAvailable, bool(vrfConfig), shouldVrfSmBePresent);
   auto it = vrfConfigSm_.find(vrfName);
   if (shouldVrfSmBePresent) {
      if (it != vrfConfigSm_.end()) {
         Ptr<VrfConfigSm> sm = it->second;
         sm->vrfConfigIs(vrfConfig);
         sm->vrfStatusLocalIs(status);
      } else {
         TRACE(4, "Creating vrfConfigSm for vrfName {}", vrfName);
         // Inserted before it runs, so that a refusal finds it.
         auto& slot = vrfConfigSm_[vrfName];
         slot = make<VrfConfigSm>(vrfName, config_, vrfConfig, status, ebpfConfig_, this);
      }
   } else if (it != vrfConfigSm_.end()) {
      TRACE(4, "Deleting vrfConfigSm for vrfName {}", vrfName);
      Ptr<VrfConfigSm> sm = std::move(it->second);
      vrfConfigSm_.erase(it);
      sm.reset();  // its onDelete removes the entry
   } else {
      VrfConfigSm::removeVrfConfig(*ebpfConfig_, vrfName);
   }
}

void ConfigSm::handleGlobalDisabled() {
   TRACE(4, "enabled: {} globalDisabled: {}", config_->enabled(), globalDisabled());
   if (globalDisabled()) {
      TRACE(4, "Globally disabled, clean up vrfConfigSms");
      std::vector<VrfName> names;
      for (auto& [name, sm] : vrfConfigSm_)
         names.push_back(name);
      for (auto& n : names)
         handleVrfConfig(n);
   } else if (vrfConfigSm_.empty()) {
      TRACE(4, "No longer globally disabled, create vrfConfigSms");
      handleVrfConfig();
   }
}

void ConfigSm::vrfRefused(const VrfName& vrf, NsInode inode) {
   refused_[vrf] = inode;
   if (status_)
      status_->nsInodeConflictInc();
}

void ConfigSm::vrfRefusalCleared(const VrfName& vrf) {
   refused_.erase(vrf);
}

void ConfigSm::handleInodeReleased(NsInode inode) {
   for (auto& [vrf, i] : refused_) {
      if (i == inode) {
         // Not now: the releasing VRF is still half-way through its removal.
         retryTask_->scheduleTask();
         return;
      }
   }
}

void ConfigSm::retryRefused() {
   std::vector<VrfName> names;
   for (auto& [vrf, inode] : refused_) {
      if (!ebpfConfig_->entryByInode.has(inode))
         names.push_back(vrf);
   }
   for (auto& n : names) {
      if (auto sm = vrfConfigSm(n))
         sm->handleConfig();
   }
}

void ConfigSm::dumpState(DumpContext& ctx, int indent) const {
   RAVEL_DUMP(ctx, indent, "vrfConfigSm[] %d\n", static_cast<int>(vrfConfigSm_.size()));
   for (auto& [name, sm] : vrfConfigSm_)
      sm->dumpState(ctx, indent + 2);
}

}  // namespace Ravel::ErrorResponder
