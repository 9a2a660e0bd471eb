#include "platform/linux/SocketPam.h"

#include "platform/core/Fd.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/core/Errno.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("SocketPam");

namespace Ravel {

namespace {

constexpr int kTaskPriority = 3;
constexpr size_t kMaxDatagram = 65535;
constexpr uint64_t kDropBatch = 256;

// Opened once: where every inNamespace call returns to.
int homeNetNsFd() {
   static const int fd = [] {
      int f = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
      if (f < 0)
         throwErrno("open /proc/self/ns/net");
      return f;
   }();
   return fd;
}

const SockFilterProgram kDropAll = {{BPF_RET | BPF_K, 0, 0, 0}};

void attachFilter(int fd, const SockFilterProgram& prog) {
   sock_fprog fprog{static_cast<unsigned short>(prog.size()),
                    const_cast<sock_filter*>(prog.data())};
   if (::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog) != 0)
      throwErrno("SO_ATTACH_FILTER");
}

// Discards up to `limit` waiting datagrams; returns how many.
uint64_t drain(int fd, uint64_t limit) {
   uint64_t n = 0;
   while (n < limit && ::recv(fd, nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) >= 0)
      ++n;
   return n;
}

// One receive buffer for all PAMs: each packet is copied out into a right-sized Pkt, which is
// cheaper than a 64 KiB allocation per packet or a second syscall to learn the size.
std::vector<uint8_t>& rxBuffer() {
   thread_local std::vector<uint8_t> buf(kMaxDatagram);
   return buf;
}

}  // namespace

void inNamespace(const std::string& nsPath, const std::function<void()>& fn) {
   if (nsPath.empty()) {
      fn();
      return;
   }
   int home = homeNetNsFd();
   Fd target(::open(nsPath.c_str(), O_RDONLY | O_CLOEXEC));
   if (target.get() < 0)
      throwErrno("open " + nsPath);
   if (::setns(target.get(), CLONE_NEWNET) != 0)
      throwErrno("setns " + nsPath);
   struct Return {
      int fd;
      ~Return() {
         // Staying in the wrong namespace would silently misplace every later socket.
         int saved = errno;
         if (::setns(fd, CLONE_NEWNET) != 0)
            std::abort();
         errno = saved;
      }
   } back{home};
   fn();
}

SocketPam::SocketPam(std::string name, AddressFamily af, int protocol, std::string namespaceName,
                     const std::string& netnsDir)
    : IpPam(std::move(name), af, protocol, std::move(namespaceName)) {
   std::string path = netNs_.empty() ? "" : netnsDir + "/" + netNs_;
   int domain = af == AddressFamily::ipv4 ? AF_INET : AF_INET6;
   int fd = -1;
   inNamespace(path, [&] {
      fd = ::socket(domain, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol);
      if (fd < 0)
         throwErrno("socket for " + name_);
   });
   Fd guard(fd);
   attachFilter(fd, kDropAll);
   drain(fd, UINT64_MAX);  // nothing new can arrive
   fd_ = std::move(guard);
   TRACE(4, "{} opened in namespace {}", name_, netNs_.empty() ? "default" : netNs_);
}

SocketPam::~SocketPam() {
   task_.reset();
}

void SocketPam::filterProgramIs(const SockFilterProgram& prog) {
   attachFilter(fd_.get(), prog);
}

void SocketPam::optionsIs(unsigned options) {
   int on = (options & (kOptRxDstAddr | kOptRxIfIndex)) ? 1 : 0;
   int rc = af_ == AddressFamily::ipv4
                ? ::setsockopt(fd_.get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on)
                : ::setsockopt(fd_.get(), IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on);
   if (rc != 0)
      throwErrno("packet info option on " + name_);
   options_ = options;
}

void SocketPam::enabledIs(bool enabled) {
   enabled_ = enabled;
   if (!enabled) {
      task_.reset();
      return;
   }
   if (task_)
      return;
   task_ = std::make_unique<FdTask>(Scheduler::defaultScheduler(), name_, kTaskPriority, fd_.get(),
                                    [this] { handleReadable(); });
   task_->taskWatchReadableIs(true);
}

void SocketPam::handleReadable() {
   if (readable_.observerCount() > 0) {
      readable_.notify();
      return;
   }
   // Bounded: under a flood the level-triggered watch brings us back on the next pass.
   uint64_t n = drain(fd_.get(), kDropBatch);
   counters_.rxDrops += n;
   TRACE(5, "{} nobody reads, dropped {}", name_, n);
}

Ptr<Pkt> SocketPam::rxPkt() {
   std::vector<uint8_t>& buf = rxBuffer();
   sockaddr_storage from;
   iovec iov{buf.data(), buf.size()};
   alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(int))];
   msghdr msg{};
   msg.msg_name = &from;
   msg.msg_namelen = sizeof from;
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   msg.msg_control = control;
   msg.msg_controllen = sizeof control;
   ssize_t n = ::recvmsg(fd_.get(), &msg, MSG_DONTWAIT);
   if (n < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK) {
         // E.g. an ICMP error for something we sent; reported once, the queue stays intact.
         ++counters_.rxErrors;
         TRACE(1, "{} recvmsg: {}", name_, std::strerror(errno));
      }
      return nullptr;
   }
   if (msg.msg_namelen >= sizeof(sockaddr_in) && from.ss_family == AF_INET) {
      rxSrc_ = IpGenAddr(reinterpret_cast<const sockaddr_in*>(&from)->sin_addr);
   } else if (msg.msg_namelen >= sizeof(sockaddr_in6) && from.ss_family == AF_INET6) {
      rxSrc_ = IpGenAddr(reinterpret_cast<const sockaddr_in6*>(&from)->sin6_addr);
   } else {
      rxSrc_ = IpGenAddr();
   }
   IpGenAddr dst;
   uint32_t ifIndex = 0;
   for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
         in_pktinfo pi;
         std::memcpy(&pi, CMSG_DATA(c), sizeof pi);
         dst = IpGenAddr(pi.ipi_addr);  // the header's destination, not the routing one
         ifIndex = static_cast<uint32_t>(pi.ipi_ifindex);
      } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
         in6_pktinfo pi;
         std::memcpy(&pi, CMSG_DATA(c), sizeof pi);
         dst = IpGenAddr(pi.ipi6_addr);
         ifIndex = pi.ipi6_ifindex;
      }
   }
   rxDst_ = (options_ & kOptRxDstAddr) ? dst : IpGenAddr();
   rxIfIndex_ = (options_ & kOptRxIfIndex) ? ifIndex : 0;
   ++counters_.rxPkts;
   counters_.rxBytes += static_cast<uint64_t>(n);
   return Pkt::fromBytes({buf.data(), static_cast<size_t>(n)});
}

void SocketPam::txPktIs(const Ptr<Pkt>& pkt) {
   if (!enabled_) {
      txErrno_ = ENETDOWN;
      ++counters_.txDrops;
      return;
   }
   bool v4 = af_ == AddressFamily::ipv4;
   auto fail = [&](int err, const char* what) {
      txErrno_ = err;
      ++counters_.txErrors;
      TRACE(1, "{} {} to {}: {}", name_, what, txDst_, std::strerror(err));
   };
   if (txDst_.af() != af_) {
      fail(EDESTADDRREQ, "destination");
      return;
   }
   if (txMark_ != appliedMark_) {
      // A packet with the wrong mark may take the wrong route: better not sent at all.
      if (::setsockopt(fd_.get(), SOL_SOCKET, SO_MARK, &txMark_, sizeof txMark_) != 0) {
         fail(errno, "SO_MARK");
         return;
      }
      appliedMark_ = txMark_;
   }

   sockaddr_in to4{};
   sockaddr_in6 to6{};
   alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(int))];
   std::memset(control, 0, sizeof control);
   size_t used = 0;
   auto addCmsg = [&](int level, int type, const void* data, size_t len) {
      auto* c = reinterpret_cast<cmsghdr*>(control + used);
      c->cmsg_level = level;
      c->cmsg_type = type;
      c->cmsg_len = CMSG_LEN(len);
      std::memcpy(CMSG_DATA(c), data, len);
      used += CMSG_SPACE(len);
   };
   msghdr msg{};
   if (v4) {
      to4.sin_family = AF_INET;
      to4.sin_addr = txDst_.v4Addr();
      msg.msg_name = &to4;
      msg.msg_namelen = sizeof to4;
      bool withSrc = txSrc_.isV4() && !txSrc_.isZero();
      if (withSrc || txIfIndex_) {
         in_pktinfo pi{};
         if (withSrc)
            pi.ipi_spec_dst = txSrc_.v4Addr();
         pi.ipi_ifindex = static_cast<int>(txIfIndex_);
         addCmsg(IPPROTO_IP, IP_PKTINFO, &pi, sizeof pi);
      }
   } else {
      to6.sin6_family = AF_INET6;
      to6.sin6_addr = txDst_.v6Addr();
      msg.msg_name = &to6;
      msg.msg_namelen = sizeof to6;
      bool withSrc = txSrc_.isV6() && !txSrc_.isZero();
      if (withSrc || txIfIndex_) {
         in6_pktinfo pi{};
         if (withSrc)
            pi.ipi6_addr = txSrc_.v6Addr();
         pi.ipi6_ifindex = txIfIndex_;
         addCmsg(IPPROTO_IPV6, IPV6_PKTINFO, &pi, sizeof pi);
      }
   }
   if (txTtl_ >= 0) {
      addCmsg(v4 ? IPPROTO_IP : IPPROTO_IPV6, v4 ? IP_TTL : IPV6_HOPLIMIT, &txTtl_, sizeof txTtl_);
   }
   iovec iov{pkt->data(), pkt->size()};
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   msg.msg_control = used ? control : nullptr;
   msg.msg_controllen = used;
   ssize_t n = ::sendmsg(fd_.get(), &msg, MSG_DONTWAIT);
   if (n < 0) {
      fail(errno, "sendmsg");
      return;
   }
   txErrno_ = 0;
   ++counters_.txPkts;
   counters_.txBytes += static_cast<uint64_t>(n);
}

namespace {

class SocketPamFactory : public PamFactory {
 public:
   explicit SocketPamFactory(std::string dir) : dir_(std::move(dir)) {
      homeNetNsFd();  // pin the agent's namespace before anything moves the thread
   }
   Ptr<IpPam> ipSocketPamFactory(const std::string& name, int protocol,
                                 const std::string& ns) override {
      return make<IpSocketPam>(name, protocol, ns, dir_);
   }
   Ptr<IpPam> ip6SocketPamFactory(const std::string& name, int protocol,
                                  const std::string& ns) override {
      return make<Ip6SocketPam>(name, protocol, ns, dir_);
   }

 private:
   std::string dir_;
};

}  // namespace

std::unique_ptr<PamFactory> makeSocketPamFactory(std::string netnsDir) {
   return std::make_unique<SocketPamFactory>(std::move(netnsDir));
}

}  // namespace Ravel
