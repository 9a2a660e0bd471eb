#pragma once

#include <memory>
#include <string>

#include "platform/ConfigFile.h"
#include "platform/EntityManager.h"
#include "platform/Scheduler.h"

namespace Ravel {

// Applies the configuration file to the state store and keeps it applied: on reload() (the
// daemon calls it on SIGHUP) and whenever the file is written or replaced. Only what changed
// is written, so only the affected reactors run. A bad file never touches the running
// configuration.
class ConfigService {
 public:
   // Empty path: no file, everything stays off. Otherwise the first load throws ConfigError.
   ConfigService(Scheduler& sched, Ptr<EntityManager> em, std::string path);
   ~ConfigService();

   // Re-reads the file; returns false (and keeps the old configuration) on an error.
   bool reload();
   const RavelConfig& config() const { return config_; }
   const std::string& lastError() const { return lastError_; }
   const std::string& path() const { return path_; }

   // Writes `c` into the entities, changing only what differs.
   void apply(const RavelConfig& c);

 private:
   void watchFile();
   void handleFileEvent();

   Scheduler& sched_;
   Ptr<EntityManager> em_;
   std::string path_;
   RavelConfig config_;
   std::string lastError_;
   int inotifyFd_ = -1;
   std::unique_ptr<FdTask> watchTask_;
};

}  // namespace Ravel
