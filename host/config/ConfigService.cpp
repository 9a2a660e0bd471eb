#include "host/config/ConfigService.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ConfigService");

namespace Ravel {

namespace {

template <typename T>
Ptr<T> mountAt(EntityManager& em, const std::string& path) {
   auto e = ptrCast<T>(em.mount(path, T::kTypeName));
   if (!e) {
      throw std::runtime_error(
          fmt::format("{} holds an entity of another type than {}", path, T::kTypeName));
   }
   return e;
}

void upsertAcls(AclTypeConfig& dst, const std::map<std::string, AclList>& lists) {
   for (auto& [name, acl] : lists)
      dst.acl.is(name, acl);
}

void deleteAcls(AclTypeConfig& dst, const std::map<std::string, AclList>& lists) {
   std::vector<std::string> gone;
   for (auto& [name, acl] : dst.acl) {
      if (!lists.count(name))
         gone.push_back(name);
   }
   for (auto& n : gone)
      dst.acl.del(n);
}

}  // namespace

ConfigService::ConfigService(Scheduler& sched, Ptr<EntityManager> em, std::string path)
    : sched_(sched), em_(std::move(em)), path_(std::move(path)) {
   if (!path_.empty())
      config_ = parseConfigFile(path_);
   probe_ = mountAt<ProbeResponder::Config>(*em_, "icmp/probe/config");
   errorResponder_ = mountAt<ErrorResponder::Config>(*em_, "icmp/errorResponder/config");
   ebpf_ = mountAt<ErrorResponder::EbpfConfig>(*em_, "icmp/errorResponder/ebpfConfig");
   mountAt<AclConfig>(*em_, "acl/config/cli");  // present, and empty, for the agent to read
   aclInput_ = mountAt<AclInput>(*em_, "acl/config/input");
   apply(config_);
   if (!path_.empty())
      watchFile();
}

ConfigService::~ConfigService() = default;

std::string ConfigService::renderConfig() const {
   return Ravel::renderConfig(config_);
}

bool ConfigService::reload() {
   if (path_.empty())
      return true;
   RavelConfig next;
   try {
      next = parseConfigFile(path_);
   } catch (const ConfigError& e) {
      lastError_ = e.what();
      TRACE(0, "{}", lastError_);
      return false;
   }
   lastError_.clear();
   if (next == config_)
      return true;
   config_ = std::move(next);
   apply(config_);
   TRACE(3, "configuration reloaded from {}", path_);
   return true;
}

// The order keeps readers from seeing references to what is not there yet: lists are added
// before the VRFs that may name them and removed last; a new VRF is published with its
// attributes already set. A feature being turned off is turned off before its settings change,
// one being turned on after.
void ConfigService::apply(const RavelConfig& c) {
   // The file is the lists' input source; "acl/config/cli" is the operator's own, whose lists
   // win over the file's of the same name, and nothing here writes it.
   upsertAcls(*aclInput_->ipv4, c.ipv4Acls);
   upsertAcls(*aclInput_->ipv6, c.ipv6Acls);

   const auto& e = c.errorResponder;
   ebpf_->ringBufSz.set(e.ringBufferSize);
   ebpf_->vrfMapSz.set(e.vrfMapSize);

   auto& er = *errorResponder_;
   if (e.enabled.disabled())
      er.enabled.set(e.enabled);
   std::vector<VrfName> gone;
   for (auto& [name, v] : er.vrfConfig) {
      if (!e.vrfs.count(name))
         gone.push_back(name);
   }
   for (auto& n : gone)
      er.vrfConfig.del(n);
   for (auto& [name, v] : e.vrfs) {
      auto vc = er.vrfConfig.get(name);
      bool fresh = !vc;
      if (fresh)
         vc = make<ErrorResponder::VrfConfig>(name);
      vc->enabled.set(v.enabled);
      vc->v4AclName.set(v.ipv4Acl);
      vc->v6AclName.set(v.ipv6Acl);
      vc->nodeIdConfig.set(v.nodeId);
      vc->disclosure.set(v.interfaceInfo);
      if (fresh)
         er.vrfConfig.is(name, vc);
   }
   er.addHostName.set(e.addHostName);
   er.nodeIdCodePoint.set(e.nodeIdCodePoint);
   er.suppressKernelErrors.set(e.suppressKernelErrors);
   er.enabled.set(e.enabled);

   if (!c.probe.enabled)
      probe_->enabled.set(false);
   probe_->ifname.set(c.probe.ifname);
   probe_->ifindex.set(c.probe.ifindex);
   probe_->ifaddr.set(c.probe.ifaddr);
   probe_->remote.set(c.probe.remote);
   probe_->maxQueueLength.set(c.probe.maxQueueLength);
   probe_->sources.set(c.probe.sources);
   probe_->rateLimit.set(c.probe.rateLimit);
   probe_->vrfs.set(c.probe.vrfs);
   probe_->enabled.set(c.probe.enabled);

   deleteAcls(*aclInput_->ipv4, c.ipv4Acls);
   deleteAcls(*aclInput_->ipv6, c.ipv6Acls);
}

// Editors replace files by renaming, so the directory is watched, not the file.
void ConfigService::watchFile() {
   std::filesystem::path p(path_);
   std::string dir = p.has_parent_path() ? p.parent_path().string() : ".";
   std::string name = p.filename().string();
   watch_ = std::make_unique<DirectoryWatch>(
       sched_, "ConfigWatch", 4, [this, name](std::span<const DirectoryWatch::Event> events) {
          // After an overflow our event may be among the lost ones.
          for (auto& ev : events) {
             if ((ev.mask & IN_Q_OVERFLOW) || ev.name == name) {
                reload();
                return;
             }
          }
       });
   if (!watch_->watchIs(dir, IN_CLOSE_WRITE | IN_MOVED_TO))
      TRACE(0, "watching {}: {}; reload with SIGHUP only", dir, std::strerror(errno));
}

}  // namespace Ravel
