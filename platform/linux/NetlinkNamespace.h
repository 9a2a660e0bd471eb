#pragma once

// The links, addresses and neighbours of one network namespace, from rtnetlink: libnl caches
// filled by an initial dump and kept current from the multicast groups by a scheduler FdTask.
// The sockets are created inside the namespace (they stay bound to it), with the thread moved
// in and back around their creation only.
//
// Lost notifications (a full receive buffer) make the caches untrustworthy: they are then
// replaced by fresh ones, and the handler is told that everything changed.

#include <functional>
#include <memory>
#include <string>

#include "platform/core/Scheduler.h"
#include "platform/linux/NetStatePublisher.h"

namespace Ravel {

class NetlinkNamespace {
 public:
   // Called on the scheduler with the KernelPart mask of what changed.
   using Handler = std::function<void(unsigned parts)>;
   static constexpr int kDefaultRcvBuf = 4 << 20;

   // `nsPath` empty: the calling thread's own namespace. Otherwise the file must be the
   // namespace with inode `inode`. Throws std::runtime_error when the namespace cannot be read.
   NetlinkNamespace(Scheduler& sched, std::string name, std::string nsPath, NsInode inode,
                    Handler onChange, int rcvBuf = kDefaultRcvBuf);
   ~NetlinkNamespace();
   NetlinkNamespace(const NetlinkNamespace&) = delete;
   NetlinkNamespace& operator=(const NetlinkNamespace&) = delete;

   // The current contents of the caches; parts not in `parts` are left empty.
   KernelState state(unsigned parts = kAllParts) const;
   // How many times the caches were replaced after lost notifications.
   uint64_t reloadCount() const { return reloads_; }

 private:
   struct Caches;
   std::unique_ptr<Caches> open();
   void dataReady();
   void reload();

   Scheduler& sched_;
   std::string name_;
   std::string nsPath_;
   NsInode inode_;
   Handler onChange_;
   int rcvBuf_;
   std::unique_ptr<Caches> caches_;
   TimerTask reloadTimer_;
   uint64_t reloads_ = 0;
   Seconds lastReload_ = -kNever;
};

}  // namespace Ravel
