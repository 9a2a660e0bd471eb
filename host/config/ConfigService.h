#pragma once

#include <memory>
#include <string>

#include "error/ErrorResponderSchema.h"
#include "host/config/ConfigFile.h"
#include "platform/core/Scheduler.h"
#include "platform/linux/DirectoryWatch.h"
#include "platform/store/Acl.h"
#include "platform/store/EntityManager.h"
#include "probe/ProbeSchema.h"

namespace Ravel {

// Applies the configuration file to the state store and keeps it applied: on reload() (the
// daemon calls it on SIGHUP) and whenever the file is written or renamed into place. Only what
// changed is written, so only the affected reactors run. A bad file never touches the running
// configuration. The file's directory is watched, not the file: editors replace files by
// rename. A symbolic link's target is not watched; reload() covers that case.
class ConfigService {
 public:
   // Mounts (or reuses) the entities it writes. Empty path: no file, everything stays off.
   // Otherwise the first load throws ConfigError, a missing file included.
   ConfigService(Scheduler& sched, Ptr<EntityManager> em, std::string path);
   ~ConfigService();
   ConfigService(const ConfigService&) = delete;
   ConfigService& operator=(const ConfigService&) = delete;

   // Re-reads the file. On an error: traces the one-line message, keeps it in lastError(),
   // keeps the running configuration and returns false.
   bool reload();
   const RavelConfig& config() const { return config_; }
   std::string renderConfig() const;  // the configuration in effect, defaults included
   const std::string& lastError() const { return lastError_; }  // empty after a good load
   const std::string& path() const { return path_; }

 private:
   void apply(const RavelConfig& c);
   void watchFile();

   Scheduler& sched_;
   Ptr<EntityManager> em_;
   std::string path_;
   RavelConfig config_;
   std::string lastError_;
   Ptr<ProbeResponder::Config> probe_;
   Ptr<ErrorResponder::Config> errorResponder_;
   Ptr<ErrorResponder::EbpfConfig> ebpf_;
   Ptr<AclInput> aclInput_;
   std::unique_ptr<DirectoryWatch> watch_;
};

}  // namespace Ravel
