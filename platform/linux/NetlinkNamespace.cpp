#include "platform/linux/NetlinkNamespace.h"

#include "platform/core/Fd.h"

#include <fcntl.h>
#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/neighbour.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <stdexcept>

#include "platform/core/Errno.h"
#include "platform/core/Trace.h"
#include "platform/linux/NetnsWatcher.h"

RAVEL_TRACE_CATEGORY("LinuxStateProvider");

namespace Ravel {

namespace {

constexpr int kTaskPriority = 2;
constexpr Seconds kReloadRetry = 1.0;

// Keeps the calling thread in another network namespace for its lifetime.
class EnteredNetns {
 public:
   explicit EnteredNetns(int nsFd)
       : home_(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
      if (home_.get() < 0)
         throwErrno("open /proc/thread-self/ns/net");
      if (::setns(nsFd, CLONE_NEWNET) != 0)
         throwErrno("setns");
   }
   ~EnteredNetns() {
      // Staying would silently put every later socket of this thread in the wrong namespace.
      if (::setns(home_.get(), CLONE_NEWNET) != 0)
         std::abort();
   }
   EnteredNetns(const EnteredNetns&) = delete;
   EnteredNetns& operator=(const EnteredNetns&) = delete;

 private:
   Fd home_;
};

std::optional<IpGenAddr> ipOf(nl_addr* a) {
   if (!a)
      return std::nullopt;
   return IpGenAddr::fromBytes(
       {static_cast<const uint8_t*>(nl_addr_get_binary_addr(a)), nl_addr_get_len(a)});
}

template <typename Obj, typename Fn>
void forEach(nl_cache* cache, Fn fn) {
   nl_cache_foreach(
       cache, [](nl_object* o, void* arg) { (*static_cast<Fn*>(arg))(reinterpret_cast<Obj*>(o)); },
       &fn);
}

}  // namespace

struct NetlinkNamespace::Caches {
   nl_sock* sock = nullptr;  // notifications; the manager dumps over a socket of its own
   nl_cache_mngr* mngr = nullptr;
   nl_cache* links = nullptr;
   nl_cache* addrs = nullptr;
   nl_cache* neighs = nullptr;
   unsigned changed = 0;  // KernelPart mask since the last report
   std::unique_ptr<FdTask> task;

   Caches() = default;
   Caches(const Caches&) = delete;
   Caches& operator=(const Caches&) = delete;
   ~Caches() {
      task.reset();
      if (mngr)
         nl_cache_mngr_free(mngr);  // frees the caches and closes `sock`
      if (sock)
         nl_socket_free(sock);
   }

   static void onChange(nl_cache* cache, nl_object*, int, void* arg) {
      auto* c = static_cast<Caches*>(arg);
      c->changed |= cache == c->links ? kLinkPart : cache == c->addrs ? kAddrPart : kNeighPart;
   }
};

NetlinkNamespace::NetlinkNamespace(Scheduler& sched, std::string name, std::string nsPath,
                                   NsInode inode, Handler onChange, int rcvBuf)
    : sched_(sched),
      name_(std::move(name)),
      nsPath_(std::move(nsPath)),
      inode_(inode),
      onChange_(std::move(onChange)),
      rcvBuf_(rcvBuf),
      reloadTimer_(sched, "NetlinkReload " + name_, kTaskPriority, [this] { reload(); }) {
   caches_ = open();
}

NetlinkNamespace::~NetlinkNamespace() = default;

std::unique_ptr<NetlinkNamespace::Caches> NetlinkNamespace::open() {
   auto c = std::make_unique<Caches>();
   c->sock = nl_socket_alloc();
   if (!c->sock)
      throw std::bad_alloc();
   int err;
   {
      std::optional<Fd> nsFd;
      std::optional<EnteredNetns> inside;
      if (!nsPath_.empty()) {
         NsInode found = 0;
         nsFd.emplace(openNetns(nsPath_, &found));
         if (nsFd->get() < 0)
            throwErrno(nsPath_);
         if (found != inode_)
            throw std::runtime_error(nsPath_ + " is another namespace now");
         inside.emplace(nsFd->get());
      }
      // Both of the manager's sockets are created (and bound to the namespace) here.
      err = nl_cache_mngr_alloc(c->sock, NETLINK_ROUTE, 0, &c->mngr);
   }
   if (err < 0) {
      c->mngr = nullptr;
      throw std::runtime_error(std::string("netlink: ") + nl_geterror(err));
   }
   // Bursts (a flushed neighbour table) must not overflow it; beyond the limit, a reload.
   int fd = nl_cache_mngr_get_fd(c->mngr);
   if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &rcvBuf_, sizeof rcvBuf_) != 0)
      ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvBuf_, sizeof rcvBuf_);
   for (auto [kind, cache] :
        {std::pair{"route/link", &c->links}, std::pair{"route/addr", &c->addrs},
         std::pair{"route/neigh", &c->neighs}}) {
      err = nl_cache_mngr_add(c->mngr, kind, &Caches::onChange, c.get(), cache);
      if (err < 0)
         throw std::runtime_error(std::string(kind) + ": " + nl_geterror(err));
   }
   c->task = std::make_unique<FdTask>(sched_, "Netlink " + name_, kTaskPriority, fd,
                                      [this] { dataReady(); });
   c->task->taskWatchReadableIs(true);
   return c;
}

void NetlinkNamespace::dataReady() {
   int err = nl_cache_mngr_data_ready(caches_->mngr);
   if (err < 0) {
      TRACE(0, "namespace {}: netlink: {}; reloading", name_, nl_geterror(err));
      // The FdTask running this cannot be replaced from inside; the timer does it. A namespace
      // that keeps overflowing is reloaded at most once a second.
      caches_->task->taskWatchReadableIs(false);
      bool recent = sched_.now() - lastReload_ < kReloadRetry;
      reloadTimer_.scheduleTaskDelay(recent ? kReloadRetry : 0);
      return;
   }
   if (unsigned parts = std::exchange(caches_->changed, 0))
      onChange_(parts);
}

void NetlinkNamespace::reload() {
   try {
      caches_ = open();
   } catch (const std::exception& e) {
      // Gone, most likely; the directory watcher removes it. Otherwise, try again.
      TRACE(0, "namespace {}: reload: {}", name_, e.what());
      reloadTimer_.scheduleTaskDelay(kReloadRetry);
      return;
   }
   ++reloads_;
   lastReload_ = sched_.now();
   onChange_(kAllParts);
}

KernelState NetlinkNamespace::state(unsigned parts) const {
   KernelState s;
   if (parts & kLinkPart) {
      forEach<rtnl_link>(caches_->links, [&](rtnl_link* l) {
         // Bridge ports also have AF_BRIDGE entries of the same ifindex.
         const char* name = rtnl_link_get_name(l);
         if (rtnl_link_get_family(l) != AF_UNSPEC || !name)
            return;
         s.links.push_back({static_cast<uint32_t>(rtnl_link_get_ifindex(l)), name,
                            rtnl_link_get_mtu(l), rtnl_link_get_flags(l)});
      });
   }
   if (parts & kAddrPart) {
      forEach<rtnl_addr>(caches_->addrs, [&](rtnl_addr* a) {
         auto ip = ipOf(rtnl_addr_get_local(a));
         if (!ip)
            return;
         s.addrs.push_back({static_cast<uint32_t>(rtnl_addr_get_ifindex(a)),
                            {*ip, static_cast<uint8_t>(rtnl_addr_get_prefixlen(a))},
                            static_cast<uint8_t>(rtnl_addr_get_scope(a)),
                            rtnl_addr_get_flags(a)});
      });
   }
   if (parts & kNeighPart) {
      forEach<rtnl_neigh>(caches_->neighs, [&](rtnl_neigh* n) {
         // Bridge FDB entries share the table; their destination is a VTEP, not a neighbour.
         int family = rtnl_neigh_get_family(n);
         auto ip = ipOf(rtnl_neigh_get_dst(n));
         if ((family != AF_INET && family != AF_INET6) || !ip)
            return;
         KernelNeigh k{static_cast<uint32_t>(rtnl_neigh_get_ifindex(n)),
                       *ip,
                       static_cast<uint16_t>(rtnl_neigh_get_state(n)),
                       {}};
         if (nl_addr* ll = rtnl_neigh_get_lladdr(n)) {
            auto* b = static_cast<const uint8_t*>(nl_addr_get_binary_addr(ll));
            k.lladdr.assign(b, b + nl_addr_get_len(ll));
         }
         s.neighs.push_back(std::move(k));
      });
   }
   return s;
}

}  // namespace Ravel
