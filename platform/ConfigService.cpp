#include "platform/ConfigService.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <filesystem>

#include "platform/Acl.h"
#include "platform/ErrorResponderSchema.h"
#include "platform/ProbeSchema.h"
#include "platform/Trace.h"

RAVEL_TRACE_CATEGORY("ConfigService");

namespace Ravel {

namespace {

template <typename T>
Ptr<T> entityAt(EntityManager& em, const std::string& path) {
   return ptrCast<T>(em.mount(path, T::kTypeName));
}

void applyAcls(AclTypeConfig& dst, const std::map<std::string, AclList>& lists) {
   std::vector<std::string> gone;
   for (auto& [name, acl] : dst.acl) {
      if (!lists.count(name))
         gone.push_back(name);
   }
   for (auto& n : gone)
      dst.acl.del(n);
   for (auto& [name, acl] : lists)
      dst.acl.is(name, acl);
}

}  // namespace

ConfigService::ConfigService(Scheduler& sched, Ptr<EntityManager> em, std::string path)
    : sched_(sched), em_(std::move(em)), path_(std::move(path)) {
   if (!path_.empty())
      config_ = parseConfigFile(path_);
   apply(config_);
   if (!path_.empty())
      watchFile();
}

ConfigService::~ConfigService() {
   watchTask_.reset();
   if (inotifyFd_ >= 0)
      ::close(inotifyFd_);
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

void ConfigService::apply(const RavelConfig& c) {
   auto probe = entityAt<ProbeResponder::Config>(*em_, "icmp/probe/config");
   if (probe) {
      probe->enabled.set(c.probe.enabled);
      probe->ifname.set(c.probe.ifname);
      probe->ifindex.set(c.probe.ifindex);
      probe->ifaddr.set(c.probe.ifaddr);
      probe->remote.set(c.probe.remote);
      probe->maxQueueLength.set(c.probe.maxQueueLength);
   }
   auto er = entityAt<ErrorResponder::Config>(*em_, "icmp/errorResponder/config");
   if (er) {
      const auto& e = c.errorResponder;
      std::vector<VrfName> gone;
      for (auto& [name, v] : er->vrfConfig) {
         if (!e.vrfs.count(name))
            gone.push_back(name);
      }
      for (auto& n : gone)
         er->vrfConfig.del(n);
      for (auto& [name, v] : e.vrfs) {
         auto vc = er->vrfConfig.get(name);
         bool fresh = !vc;
         if (fresh)
            vc = make<ErrorResponder::VrfConfig>(name);
         vc->enabled.set(v.enabled);
         vc->v4AclName.set(v.ipv4Acl);
         vc->v6AclName.set(v.ipv6Acl);
         vc->nodeIdConfig.set(v.nodeId);
         // Published complete: reactors see a new VRF with its attributes already set.
         if (fresh)
            er->vrfConfig.is(name, vc);
      }
      er->addHostName.set(e.addHostName);
      er->nodeIdCodePoint.set(e.nodeIdCodePoint);
      er->enabled.set(e.enabled);
   }
   if (auto ebpf = entityAt<ErrorResponder::EbpfConfig>(*em_, "icmp/errorResponder/ebpfConfig")) {
      ebpf->ringBufSz.set(c.errorResponder.ringBufferSize);
      ebpf->vrfMapSz.set(c.errorResponder.vrfMapSize);
   }
   for (auto* acls :
        {entityAt<AclConfig>(*em_, "acl/config/cli").get(),
         static_cast<AclConfig*>(entityAt<AclInput>(*em_, "acl/config/input").get())}) {
      if (!acls)
         continue;
      applyAcls(*acls->ipv4, c.ipv4Acls);
      applyAcls(*acls->ipv6, c.ipv6Acls);
   }
}

// Editors replace files by renaming, so watch the directory for the file's name.
void ConfigService::watchFile() {
   inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
   if (inotifyFd_ < 0) {
      TRACE(0, "inotify: {}; reload with SIGHUP only", std::strerror(errno));
      return;
   }
   std::filesystem::path p(path_);
   std::string dir = p.has_parent_path() ? p.parent_path().string() : ".";
   if (::inotify_add_watch(inotifyFd_, dir.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE) < 0) {
      TRACE(0, "watching {}: {}; reload with SIGHUP only", dir, std::strerror(errno));
      return;
   }
   watchTask_ = std::make_unique<FdTask>(sched_, "ConfigWatch", 4, inotifyFd_,
                                         [this] { handleFileEvent(); });
   watchTask_->taskWatchReadableIs(true);
}

void ConfigService::handleFileEvent() {
   std::string name = std::filesystem::path(path_).filename().string();
   alignas(inotify_event) char buf[4096];
   bool ours = false;
   for (;;) {
      ssize_t n = ::read(inotifyFd_, buf, sizeof buf);
      if (n <= 0)
         break;
      for (char* p = buf; p < buf + n;) {
         auto* ev = reinterpret_cast<inotify_event*>(p);
         if (ev->len && name == ev->name && !(ev->mask & IN_CREATE))
            ours = true;
         p += sizeof(inotify_event) + ev->len;
      }
   }
   if (ours)
      reload();
}

}  // namespace Ravel
