#include "host/common/Control.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "platform/core/Fd.h"

namespace Ravel::host {

namespace {

sockaddr_un unixAddr(const std::string& path) {
   sockaddr_un sa{};
   sa.sun_family = AF_UNIX;
   if (path.size() >= sizeof sa.sun_path) {
      throw std::runtime_error(fmt::format("socket path too long: {}", path));
   }
   std::memcpy(sa.sun_path, path.c_str(), path.size() + 1);
   return sa;
}

int msUntil(double deadlineMs, double nowMs) {
   return deadlineMs > nowMs ? static_cast<int>(deadlineMs - nowMs) : 0;
}

double nowMs() {
   timespec ts{};
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<double>(ts.tv_sec) * 1000.0 + static_cast<double>(ts.tv_nsec) / 1e6;
}

}  // namespace

std::string controlRequest(const std::string& socketPath, const std::string& request,
                           double timeoutSeconds) {
   Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
   if (fd.get() < 0)
      throw std::runtime_error(fmt::format("socket: {}", std::strerror(errno)));
   auto sa = unixAddr(socketPath);
   if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
      throw std::runtime_error(fmt::format("cannot reach ravel at {}: {} (is the daemon running?)",
                                           socketPath, std::strerror(errno)));
   }
   std::string line = request + "\n";
   if (::send(fd.get(), line.data(), line.size(), MSG_NOSIGNAL) !=
       static_cast<ssize_t>(line.size())) {
      throw std::runtime_error(fmt::format("sending to {}: {}", socketPath, std::strerror(errno)));
   }
   std::string reply;
   double deadline = nowMs() + timeoutSeconds * 1000.0;
   char buf[65536];
   for (;;) {
      pollfd p{fd.get(), POLLIN, 0};
      int r = ::poll(&p, 1, msUntil(deadline, nowMs()));
      if (r < 0 && errno == EINTR)
         continue;
      if (r <= 0)
         throw std::runtime_error(fmt::format("no reply from ravel at {}", socketPath));
      ssize_t n = ::read(fd.get(), buf, sizeof buf);
      if (n < 0 && errno == EINTR)
         continue;
      if (n <= 0)
         break;
      reply.append(buf, static_cast<size_t>(n));
   }
   return reply;
}

int controlListen(const std::string& socketPath) {
   auto sa = unixAddr(socketPath);
   std::error_code ec;
   std::filesystem::create_directories(std::filesystem::path(socketPath).parent_path(), ec);
   {
      // Someone answering means a live daemon; a refused connection means a stale file.
      Fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      if (::connect(probe.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) {
         throw std::runtime_error(
             fmt::format("another ravel is already running on {}", socketPath));
      }
      if (errno == ECONNREFUSED)
         ::unlink(socketPath.c_str());
   }
   Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
   if (fd.get() < 0)
      throw std::runtime_error(fmt::format("socket: {}", std::strerror(errno)));
   mode_t old = ::umask(0177);
   int rc = ::bind(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa);
   int err = errno;
   ::umask(old);
   if (rc != 0) {
      throw std::runtime_error(fmt::format("cannot bind {}: {}", socketPath, std::strerror(err)));
   }
   ::chmod(socketPath.c_str(), 0600);
   if (::listen(fd.get(), 16) != 0) {
      throw std::runtime_error(fmt::format("listen {}: {}", socketPath, std::strerror(errno)));
   }
   return fd.release();
}

}  // namespace Ravel::host
