#include "host/common/Daemon.h"

#include <dlfcn.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
   signalFd_.reset(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
   if (!signalFd_)
      throw std::runtime_error(fmt::format("signalfd: {}", std::strerror(errno)));
   signal(SIGPIPE, SIG_IGN);

   raiseOpenFilesLimit();
   listenFd_.reset(controlListen(opts_.socketPath));
   // Configuration first: a bad file stops start-up before anything else is touched.
   config_ = std::make_unique<ConfigService>(*scheduler_, em_, opts_.configFile);
   // The kernel's state is in the store before the agent mounts it.
   linuxState_ = std::make_unique<LinuxStateProvider>(*scheduler_, em_, opts_.netnsDir);
   pamFactory_ = makeSocketPamFactory(opts_.netnsDir);
   PamFactory::instanceIs(pamFactory_.get());
   framework_ = make<CAgent>("Ravel", em_, commands_);
   commands_->callbackIs(make<ShowCallback>(*this));
   loadAgent();

   signalTask_ = std::make_unique<FdTask>(*scheduler_, "RavelSignals", 1, signalFd_.get(),
                                          [this] { handleSignal(); });
   signalTask_->taskWatchReadableIs(true);
   controlTask_ = std::make_unique<FdTask>(*scheduler_, "RavelControl", 2, listenFd_.get(),
                                           [this] { handleControl(); });
   reaper_ =
       std::make_unique<Task>(*scheduler_, "RavelControlReaper", 2, [this] { reapClients(); });
   controlTask_->taskWatchReadableIs(true);
}

// Every VRF costs descriptors (netlink sockets, raw sockets, kernel program objects): a thousand
// VRFs need more than the usual soft limit of 1024, so take all the hard limit allows.
void Daemon::raiseOpenFilesLimit() {
   rlimit lim{};
   if (::getrlimit(RLIMIT_NOFILE, &lim) != 0 || lim.rlim_cur == lim.rlim_max)
      return;
   rlim_t old = lim.rlim_cur;
   lim.rlim_cur = lim.rlim_max;
   if (::setrlimit(RLIMIT_NOFILE, &lim) != 0) {
      TRACE(0, "cannot raise the open files limit from {}: {}", old, std::strerror(errno));
      return;
   }
   std::fprintf(stderr, "ravel: open files limit raised from %llu to %llu\n",
                static_cast<unsigned long long>(old),
                static_cast<unsigned long long>(lim.rlim_cur));
   TRACE(3, "open files limit raised from {} to {}", old, lim.rlim_cur);
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
   if (listenFd_) {
      listenFd_.reset();
      ::unlink(opts_.socketPath.c_str());
   }
   signalFd_.reset();
}

// A control client: one request line in, the reply out. Nothing on the scheduler thread waits
// for a client: requests are read and replies written as the socket allows, a client that makes
// no progress for kClientTimeout is dropped, and so is one whose unsent reply passes the cap.
struct ControlClient {
   Fd fd;
   std::string request;
   std::string reply;
   size_t sent = 0;
   bool replying = false;
   bool done = false;
   std::unique_ptr<FdTask> task;
   std::unique_ptr<TimerTask> timeout;
};

namespace {
constexpr size_t kMaxRequest = 64 * 1024;
constexpr size_t kMaxReply = 64 * 1024 * 1024;

// Commands write their replies to a descriptor; this one is memory, so they never block.
std::string runCommand(AgentCommandRequestDirSm& commands, const std::string& request) {
   Fd mem(::memfd_create("ravel-reply", MFD_CLOEXEC));
   if (!mem)
      return fmt::format("error: {}\n", std::strerror(errno));
   try {
      commands.dispatch(mem.get(), request);
   } catch (const std::exception& e) {
      // A failing command must not take the daemon down.
      TRACE(0, "command \"{}\" failed: {}", request, e.what());
      return fmt::format("error: {}\n", e.what());
   }
   struct stat st {};
   ::fstat(mem.get(), &st);
   std::string out(static_cast<size_t>(st.st_size), '\0');
   ssize_t n = ::pread(mem.get(), out.data(), out.size(), 0);
   out.resize(n > 0 ? static_cast<size_t>(n) : 0);
   return out;
}
}  // namespace

void Daemon::handleControl() {
   for (;;) {
      int fd = ::accept4(listenFd_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd < 0)
         return;
      auto client = std::make_unique<ControlClient>();
      client->fd.reset(fd);
      client->task = std::make_unique<FdTask>(*scheduler_, "RavelControlClient", 2, fd,
                                              [this, fd] { handleClient(fd); });
      client->task->taskWatchReadableIs(true);
      client->timeout =
          std::make_unique<TimerTask>(*scheduler_, "RavelControlTimeout", 2, [this, fd] {
             TRACE(1, "control client {}: no progress", fd);
             finishClient(fd);
          });
      client->timeout->scheduleTaskDelay(kClientTimeout);
      clients_[fd] = std::move(client);
   }
}

void Daemon::handleClient(int fd) {
   auto it = clients_.find(fd);
   if (it == clients_.end() || it->second->done)
      return;
   ControlClient& c = *it->second;
   if (c.replying)
      writeReply(c);
   else
      readRequest(c);
}

void Daemon::readRequest(ControlClient& c) {
   char buf[4096];
   bool eof = false;
   bool tooLong = false;
   for (;;) {
      // Never past the cap: the rest of an oversized request is not read at all.
      size_t room = kMaxRequest + 1 - c.request.size();
      ssize_t n = ::recv(c.fd.get(), buf, std::min(sizeof buf, room), 0);
      if (n > 0) {
         c.request.append(buf, static_cast<size_t>(n));
         if (c.request.find('\n') != std::string::npos)
            break;
         if (c.request.size() > kMaxRequest) {
            tooLong = true;
            break;
         }
         continue;
      }
      if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
         eof = true;
      break;
   }
   auto nl = c.request.find('\n');
   if (tooLong) {
      TRACE(1, "control client {}: request longer than {} bytes", c.fd.get(), kMaxRequest);
      c.reply = fmt::format("error: request longer than {} bytes\n", kMaxRequest);
   } else if (nl != std::string::npos || eof) {
      std::string request = c.request.substr(0, nl);
      if (!request.empty() && request.back() == '\r')
         request.pop_back();
      if (!request.empty())
         c.reply = runCommand(*commands_, request);
   } else {
      c.timeout->scheduleTaskDelay(kClientTimeout);
      return;
   }
   c.request.clear();
   if (c.reply.size() > kMaxReply) {
      TRACE(1, "control client {}: reply of {} bytes over the {} byte cap; dropped", c.fd.get(),
            c.reply.size(), kMaxReply);
      finishClient(c.fd.get());
      return;
   }
   c.replying = true;
   c.task->taskWatchReadableIs(false);
   c.task->taskWatchWritableIs(true);
   writeReply(c);
}

void Daemon::writeReply(ControlClient& c) {
   while (c.sent < c.reply.size()) {
      ssize_t n =
          ::send(c.fd.get(), c.reply.data() + c.sent, c.reply.size() - c.sent, MSG_NOSIGNAL);
      if (n > 0) {
         c.sent += static_cast<size_t>(n);
         c.timeout->scheduleTaskDelay(kClientTimeout);
         continue;
      }
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
         return;
      break;  // the client went away
   }
   finishClient(c.fd.get());
}

// Tasks cannot be destroyed from their own handlers: the client is closed by the reaper.
void Daemon::finishClient(int fd) {
   auto it = clients_.find(fd);
   if (it == clients_.end() || it->second->done)
      return;
   it->second->done = true;
   it->second->task->taskWatchReadableIs(false);
   it->second->task->taskWatchWritableIs(false);
   it->second->timeout->cancel();
   reaper_->scheduleTask();
}

void Daemon::reapClients() {
   std::erase_if(clients_, [](auto& entry) { return entry.second->done; });
}

void Daemon::handleSignal() {
   signalfd_siginfo si{};
   while (::read(signalFd_.get(), &si, sizeof si) == sizeof si) {
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
