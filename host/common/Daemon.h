#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/config/ConfigService.h"
#include "platform/agent/AgentFramework.h"
#include "platform/core/Fd.h"
#include "platform/core/Scheduler.h"
#include "platform/linux/IpPam.h"
#include "platform/linux/LinuxStateProvider.h"

namespace Ravel::host {

struct DaemonOptions {
   std::string configFile;  // empty: no configuration, everything off
   std::string socketPath;
   std::string netnsDir = "/run/netns";
   std::string agentLib;    // default: ../lib/libRavel.so next to the executable
   std::string profileDir;  // mount profiles; default: the project's config/mounts
};

// Parses argv; on a usage error throws std::invalid_argument with the message.
DaemonOptions parseDaemonOptions(int argc, char** argv);

struct ControlClient;

// Hosts the agent plug-in: state store, scheduler loop, control socket, signals.
class Daemon {
 public:
   explicit Daemon(DaemonOptions opts);
   ~Daemon();
   // Start-up in the framework's order; throws std::runtime_error with a one-line message.
   void start();
   // Runs the scheduler until SIGTERM/SIGINT; returns the exit code.
   int run();

   Scheduler& scheduler() { return *scheduler_; }
   const Ptr<EntityManager>& entityManager() const { return em_; }
   const Ptr<AgentCommandRequestDirSm>& commands() const { return commands_; }
   const DaemonOptions& options() const { return opts_; }
   double startTime() const { return startTime_; }
   ConfigService* configService() const { return config_.get(); }

 private:
   void raiseOpenFilesLimit();
   void loadAgent();
   void handleControl();
   void handleClient(int fd);
   void readRequest(ControlClient& c);
   void writeReply(ControlClient& c);
   void finishClient(int fd);
   void reapClients();
   void handleSignal();
   void stop();

   DaemonOptions opts_;
   std::unique_ptr<Scheduler> scheduler_;
   Ptr<EntityManager> em_;
   Ptr<AgentCommandRequestDirSm> commands_;
   std::unique_ptr<PamFactory> pamFactory_;
   std::unique_ptr<ConfigService> config_;
   std::unique_ptr<LinuxStateProvider> linuxState_;
   Ptr<CAgent> framework_;
   Ptr<CAgent> agent_;
   void* agentHandle_ = nullptr;
   Fd listenFd_;
   Fd signalFd_;
   std::unique_ptr<FdTask> controlTask_;
   std::unique_ptr<FdTask> signalTask_;
   static constexpr Seconds kClientTimeout = 5.0;
   std::map<int, std::unique_ptr<ControlClient>> clients_;
   std::unique_ptr<Task> reaper_;
   double startTime_ = 0;
   int exitCode_ = 0;
};

}  // namespace Ravel::host
