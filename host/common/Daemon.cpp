#include "host/common/Daemon.h"

#include <dlfcn.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>

#include "host/common/Control.h"
#include "host/common/HostCommands.h"
#include "platform/core/Trace.h"
#include "platform/linux/SocketPam.h"

RAVEL_TRACE_CATEGORY("RavelDaemon");

#ifndef RAVEL_DATA_DIR
#define RAVEL_DATA_DIR "/usr/share/ravel"
#endif

namespace Ravel::host {

namespace {

std::string exeDir() {
   std::error_code ec;
   auto p = std::filesystem::read_symlink("/proc/self/exe", ec);
   return ec ? "." : p.parent_path().string();
}

}  // namespace

DaemonOptions parseDaemonOptions(int argc, char** argv) {
   DaemonOptions o;
   o.socketPath = kDefaultSocket;
   for (int i = 1; i < argc; ++i) {
      std::string a = argv[i];
      auto value = [&]() -> std::string {
         if (i + 1 >= argc)
            throw std::invalid_argument(fmt::format("{} needs a value", a));
         return argv[++i];
      };
      if (a == "--config") {
         o.configFile = value();
      } else if (a == "--socket") {
         o.socketPath = value();
      } else if (a == "--netns-dir") {
         o.netnsDir = value();
      } else if (a == "--agent") {
         o.agentLib = value();
      } else if (a == "--profile-dir") {
         o.profileDir = value();
      } else {
         throw std::invalid_argument(fmt::format("unknown argument {}", a));
      }
   }
   if (o.agentLib.empty())
      o.agentLib = exeDir() + "/../lib/libRavel.so";
   if (o.profileDir.empty())
      o.profileDir = std::string(RAVEL_DATA_DIR) + "/mounts";
   return o;
}

Daemon::Daemon(DaemonOptions opts)
    : opts_(std::move(opts)),
      scheduler_(std::make_unique<Scheduler>()),
      em_(make<EntityManager>()),
      commands_(make<AgentCommandRequestDirSm>()) {
   Scheduler::defaultIs(scheduler_.get());
   startTime_ = scheduler_->now();
}

Daemon::~Daemon() {
   stop();
   Scheduler::defaultIs(nullptr);
}

void Daemon::start() {
   // Signals first, so that a TERM during start-up is not lost.
   sigset_t set;
   sigemptyset(&set);
   sigaddset(&set, SIGTERM);
   sigaddset(&set, SIGINT);
   sigaddset(&set, SIGHUP);
   sigprocmask(SIG_BLOCK, &set, nullptr);
   signalFd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
   if (signalFd_ < 0)
      throw std::runtime_error(fmt::format("signalfd: {}", std::strerror(errno)));
   signal(SIGPIPE, SIG_IGN);

   listenFd_ = controlListen(opts_.socketPath);
   // Configuration first: a bad file stops start-up before anything else is touched.
   config_ = std::make_unique<ConfigService>(*scheduler_, em_, opts_.configFile);
   // The kernel's state is in the store before the agent mounts it.
   linuxState_ = std::make_unique<LinuxStateProvider>(*scheduler_, em_, opts_.netnsDir);
   pamFactory_ = makeSocketPamFactory(opts_.netnsDir);
   PamFactory::instanceIs(pamFactory_.get());
   framework_ = make<CAgent>("Ravel", em_, commands_);
   commands_->callbackIs(make<ShowCallback>(*this));
   loadAgent();

   signalTask_ = std::make_unique<FdTask>(*scheduler_, "RavelSignals", 1, signalFd_,
                                          [this] { handleSignal(); });
   signalTask_->taskWatchReadableIs(true);
   controlTask_ = std::make_unique<FdTask>(*scheduler_, "RavelControl", 2, listenFd_,
                                           [this] { handleControl(); });
   reaper_ =
       std::make_unique<Task>(*scheduler_, "RavelControlReaper", 2, [this] { reapClients(); });
   controlTask_->taskWatchReadableIs(true);
}

void Daemon::loadAgent() {
   agentHandle_ = dlopen(opts_.agentLib.c_str(), RTLD_NOW | RTLD_LOCAL);
   if (!agentHandle_)
      throw std::runtime_error(fmt::format("cannot load agent: {}", dlerror()));
   auto factory = reinterpret_cast<AgentFactoryFn>(dlsym(agentHandle_, kAgentFactorySymbol));
   if (!factory) {
      throw std::runtime_error(
          fmt::format("{} has no {} symbol", opts_.agentLib, kAgentFactorySymbol));
   }
   agent_ = factory(framework_.get());
   if (!agent_)
      throw std::runtime_error("agent factory returned no agent");
   TRACE(3, "agent created from {}", opts_.agentLib);
   agent_->doInit();
   MountStatus status = em_->performMounts(opts_.profileDir);
   TRACE(3, "mounts performed: {}", toString(status));
   agent_->doMountsComplete(status, em_);
}

int Daemon::run() {
   std::fprintf(stderr, "ravel: ready (pid %d, socket %s)\n", static_cast<int>(getpid()),
                opts_.socketPath.c_str());
   std::fflush(stderr);
   scheduler_->run();
   stop();
   return exitCode_;
}

void Daemon::stop() {
   controlTask_.reset();
   signalTask_.reset();
   for (auto& [fd, c] : clients_)
      ::close(fd);
   clients_.clear();
   reaper_.reset();
   // The agent tears itself down in its destructor; it must go before the store and tasks.
   agent_.reset();
   framework_.reset();
   config_.reset();
   linuxState_.reset();
   if (pamFactory_) {
      PamFactory::instanceIs(nullptr);
      pamFactory_.reset();
   }
   commands_ = make<AgentCommandRequestDirSm>();
   if (agentHandle_) {
      // Keep the library mapped: objects it created may still be referenced from the store.
      agentHandle_ = nullptr;
   }
   if (listenFd_ >= 0) {
      ::close(listenFd_);
      ::unlink(opts_.socketPath.c_str());
      listenFd_ = -1;
   }
   if (signalFd_ >= 0) {
      ::close(signalFd_);
      signalFd_ = -1;
   }
}

// Each client is read without blocking, so one that connects and says nothing holds up no
// one; a client silent for kClientTimeout is dropped. Replies are written on the scheduler
// thread: a client that stops reading may stall the daemon for at most SO_SNDTIMEO.
void Daemon::handleControl() {
   for (;;) {
      int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0)
         return;
      timeval tv{2, 0};
      ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
      auto client = std::make_unique<ControlClient>();
      client->fd = fd;
      client->task = std::make_unique<FdTask>(*scheduler_, "RavelControlClient", 2, fd,
                                              [this, fd] { handleClient(fd); });
      client->task->taskWatchReadableIs(true);
      client->timeout = std::make_unique<TimerTask>(*scheduler_, "RavelControlTimeout", 2,
                                                    [this, fd] { finishClient(fd); });
      client->timeout->scheduleTaskDelay(kClientTimeout);
      clients_[fd] = std::move(client);
   }
}

void Daemon::handleClient(int fd) {
   auto it = clients_.find(fd);
   if (it == clients_.end() || it->second->done)
      return;
   ControlClient& c = *it->second;
   char buf[4096];
   bool eof = false;
   for (;;) {
      ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
      if (n > 0) {
         c.request.append(buf, static_cast<size_t>(n));
         if (c.request.size() > 65536)
            eof = true;
         continue;
      }
      if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
         eof = true;
      break;
   }
   auto nl = c.request.find('\n');
   if (nl == std::string::npos && !eof)
      return;
   std::string request = c.request.substr(0, nl);
   if (!request.empty() && request.back() == '\r')
      request.pop_back();
   if (!request.empty()) {
      try {
         commands_->dispatch(fd, request);
      } catch (const std::exception& e) {
         // A failing command must not take the daemon down.
         writeAll(fd, fmt::format("error: {}\n", e.what()));
         TRACE(0, "command \"{}\" failed: {}", request, e.what());
      }
   }
   finishClient(fd);
}

// Tasks cannot be destroyed from their own handlers: the client is closed by the reaper.
void Daemon::finishClient(int fd) {
   auto it = clients_.find(fd);
   if (it == clients_.end() || it->second->done)
      return;
   it->second->done = true;
   it->second->task->taskWatchReadableIs(false);
   reaper_->scheduleTask();
}

void Daemon::reapClients() {
   for (auto it = clients_.begin(); it != clients_.end();) {
      if (it->second->done) {
         ::close(it->first);
         it = clients_.erase(it);
      } else {
         ++it;
      }
   }
}

void Daemon::handleSignal() {
   signalfd_siginfo si{};
   while (::read(signalFd_, &si, sizeof si) == sizeof si) {
      if (si.ssi_signo == SIGHUP) {
         TRACE(3, "SIGHUP: reloading");
         if (config_)
            config_->reload();
      } else {
         TRACE(3, "signal {}: stopping", si.ssi_signo);
         scheduler_->stop();
      }
   }
}

}  // namespace Ravel::host
