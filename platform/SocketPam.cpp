#include "platform/SocketPam.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/Errno.h"
#include "platform/Trace.h"

RAVEL_TRACE_CATEGORY("SocketPam");

namespace Ravel {

namespace {

constexpr int kTaskPriority = 3;
constexpr size_t kMaxPacket = 65535;

class ScopedFd {
 public:
   explicit ScopedFd(int fd) : fd_(fd) {}
   ~ScopedFd() {
      if (fd_ >= 0)
         ::close(fd_);
   }
   ScopedFd(const ScopedFd&) = delete;
   ScopedFd& operator=(const ScopedFd&) = delete;
   int get() const { return fd_; }

 private:
   int fd_;
};

const SockFilterProgram kDropAll = {{0x0006, 0, 0, 0}};

void attachFilter(int fd, const SockFilterProgram& prog) {
   sock_fprog fprog{static_cast<unsigned short>(prog.size()),
                    const_cast<sock_filter*>(prog.data())};
   if (::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog) != 0) {
      throwErrno("SO_ATTACH_FILTER");
   }
}

}  // namespace

void inNamespace(const std::string& nsPath, const std::function<void()>& fn) {
   if (nsPath.empty()) {
      fn();
      return;
   }
   ScopedFd target(::open(nsPath.c_str(), O_RDONLY | O_CLOEXEC));
   if (target.get() < 0)
      throwErrno("open " + nsPath);
   ScopedFd home(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
   if (home.get() < 0)
      throwErrno("open own namespace");
   if (::setns(target.get(), CLONE_NEWNET) != 0)
      throwErrno("setns " + nsPath);
   struct Return {
      int fd;
      ~Return() {
         // Staying in the wrong namespace would silently break every later socket.
         if (::setns(fd, CLONE_NEWNET) != 0)
            std::abort();
      }
   } back{home.get()};
   fn();
}

SocketPam::SocketPam(std::string name, AddressFamily af, int protocol, std::string namespaceName,
                     const std::string& netnsDir)
    : IpPam(std::move(name), af, protocol, namespaceName) {
   std::string path = namespaceName.empty() ? "" : netnsDir + "/" + namespaceName;
   int domain = af == AddressFamily::ipv4 ? AF_INET : AF_INET6;
   inNamespace(path, [&] {
      fd_ = ::socket(domain, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol);
      if (fd_ < 0)
         throwErrno("socket for " + name_);
   });
   // Nothing is received until the owner chooses a filter.
   try {
      attachFilter(fd_, kDropAll);
   } catch (...) {
      ::close(fd_);
      throw;
   }
   // Packets that arrived between socket() and the filter must not leak through.
   while (::recv(fd_, nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) >= 0) {
   }
   TRACE(4, "{} opened in namespace {}", name_, namespaceName.empty() ? "default" : namespaceName);
}

SocketPam::~SocketPam() {
   task_.reset();
   if (fd_ >= 0)
      ::close(fd_);
}

void SocketPam::filterProgramIs(const SockFilterProgram& prog) {
   attachFilter(fd_, prog);
}

void SocketPam::optionsIs(unsigned options) {
   options_ = options;
   int on = (options & (kOptRxDstAddr | kOptRxIfIndex)) ? 1 : 0;
   int rc = af_ == AddressFamily::ipv4
                ? ::setsockopt(fd_, IPPROTO_IP, IP_PKTINFO, &on, sizeof on)
                : ::setsockopt(fd_, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on);
   if (rc != 0)
      throwErrno("packet info option on " + name_);
}

void SocketPam::enabledIs(bool enabled) {
   enabled_ = enabled;
   if (!enabled) {
      task_.reset();
      return;
   }
   if (task_)
      return;
   task_ =
       std::make_unique<FdTask>(Scheduler::defaultScheduler(), name_, kTaskPriority, fd_, [this] {
          if (readable_.observerCount() > 0) {
             readable_.notify();
             return;
          }
          // Nobody reads: drop what waits rather than spin on a readable socket.
          while (::recv(fd_, nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) >= 0)
             ++counters_.rxDrops;
       });
   task_->taskWatchReadableIs(true);
}

Ptr<Pkt> SocketPam::rxPkt() {
   if (rxBuf_.empty())
      rxBuf_.resize(kMaxPacket);
   sockaddr_storage from{};
   iovec iov{rxBuf_.data(), rxBuf_.size()};
   alignas(cmsghdr) char control[128];
   msghdr msg{};
   msg.msg_name = &from;
   msg.msg_namelen = sizeof from;
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   msg.msg_control = control;
   msg.msg_controllen = sizeof control;
   ssize_t n = ::recvmsg(fd_, &msg, MSG_DONTWAIT);
   if (n < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
         ++counters_.rxErrors;
         TRACE(1, "{} recvmsg: {}", name_, std::strerror(errno));
      }
      return nullptr;
   }
   rxSrc_ = rxDst_ = IpGenAddr();
   rxIfIndex_ = 0;
   if (from.ss_family == AF_INET) {
      rxSrc_ = IpGenAddr(reinterpret_cast<sockaddr_in*>(&from)->sin_addr);
   } else if (from.ss_family == AF_INET6) {
      rxSrc_ = IpGenAddr(reinterpret_cast<sockaddr_in6*>(&from)->sin6_addr);
   }
   for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
         in_pktinfo pi;
         std::memcpy(&pi, CMSG_DATA(c), sizeof pi);
         rxDst_ = IpGenAddr(pi.ipi_addr);
         rxIfIndex_ = static_cast<uint32_t>(pi.ipi_ifindex);
      } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
         in6_pktinfo pi;
         std::memcpy(&pi, CMSG_DATA(c), sizeof pi);
         rxDst_ = IpGenAddr(pi.ipi6_addr);
         rxIfIndex_ = pi.ipi6_ifindex;
      }
   }
   ++counters_.rxPkts;
   counters_.rxBytes += static_cast<uint64_t>(n);
   return Pkt::fromBytes({rxBuf_.data(), static_cast<size_t>(n)});
}

void SocketPam::txPktIs(const Ptr<Pkt>& pkt) {
   if (!enabled_) {
      txErrno_ = ENETDOWN;
      ++counters_.txDrops;
      return;
   }
   if (txMark_ != appliedMark_) {
      if (::setsockopt(fd_, SOL_SOCKET, SO_MARK, &txMark_, sizeof txMark_) == 0) {
         appliedMark_ = txMark_;
      }
   }
   sockaddr_storage to{};
   socklen_t toLen;
   alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(int))] = {};
   size_t used = 0;
   auto addCmsg = [&](int level, int type, const void* data, size_t len) {
      auto* c = reinterpret_cast<cmsghdr*>(control + used);
      c->cmsg_level = level;
      c->cmsg_type = type;
      c->cmsg_len = CMSG_LEN(len);
      std::memcpy(CMSG_DATA(c), data, len);
      used += CMSG_SPACE(len);
   };
   bool v4 = af_ == AddressFamily::ipv4;
   if (v4) {
      auto* sin = reinterpret_cast<sockaddr_in*>(&to);
      sin->sin_family = AF_INET;
      sin->sin_addr = txDst_.v4Addr();
      toLen = sizeof *sin;
      if (txSrc_.isV4()) {
         in_pktinfo pi{};
         pi.ipi_spec_dst = txSrc_.v4Addr();
         addCmsg(IPPROTO_IP, IP_PKTINFO, &pi, sizeof pi);
      }
   } else {
      auto* sin6 = reinterpret_cast<sockaddr_in6*>(&to);
      sin6->sin6_family = AF_INET6;
      sin6->sin6_addr = txDst_.v6Addr();
      toLen = sizeof *sin6;
      if (txSrc_.isV6()) {
         in6_pktinfo pi{};
         pi.ipi6_addr = txSrc_.v6Addr();
         addCmsg(IPPROTO_IPV6, IPV6_PKTINFO, &pi, sizeof pi);
      }
   }
   if (txTtl_ >= 0) {
      addCmsg(v4 ? IPPROTO_IP : IPPROTO_IPV6, v4 ? IP_TTL : IPV6_HOPLIMIT, &txTtl_, sizeof txTtl_);
   }
   iovec iov{pkt->data(), pkt->size()};
   msghdr msg{};
   msg.msg_name = &to;
   msg.msg_namelen = toLen;
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   msg.msg_control = used ? control : nullptr;
   msg.msg_controllen = used;
   ssize_t n = ::sendmsg(fd_, &msg, MSG_DONTWAIT);
   if (n < 0) {
      txErrno_ = errno;
      ++counters_.txErrors;
      TRACE(1, "{} sendmsg to {}: {}", name_, txDst_, std::strerror(txErrno_));
      return;
   }
   txErrno_ = 0;
   ++counters_.txPkts;
   counters_.txBytes += static_cast<uint64_t>(n);
}

namespace {

class SocketPamFactory : public PamFactory {
 public:
   explicit SocketPamFactory(std::string dir) : dir_(std::move(dir)) {}
   Ptr<IpPam> ipSocketPamFactory(const std::string& name, int protocol,
                                 const std::string& ns) override {
      return make<SocketPam>(name, AddressFamily::ipv4, protocol, ns, dir_);
   }
   Ptr<IpPam> ip6SocketPamFactory(const std::string& name, int protocol,
                                  const std::string& ns) override {
      return make<SocketPam>(name, AddressFamily::ipv6, protocol, ns, dir_);
   }

 private:
   std::string dir_;
};

}  // namespace

std::unique_ptr<PamFactory> makeSocketPamFactory(std::string netnsDir) {
   return std::make_unique<SocketPamFactory>(std::move(netnsDir));
}

}  // namespace Ravel
