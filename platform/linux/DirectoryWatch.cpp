#include "platform/linux/DirectoryWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("DirectoryWatch");

namespace Ravel {

DirectoryWatch::DirectoryWatch(Scheduler& sched, const std::string& taskName, int priority,
                               Handler handler)
    : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), handler_(std::move(handler)) {
   if (!fd_) {
      TRACE(0, "inotify for {}: {}", taskName, std::strerror(errno));
      return;
   }
   task_ = std::make_unique<FdTask>(sched, taskName, priority, fd_.get(), [this] { readEvents(); });
   task_->taskWatchReadableIs(true);
}

bool DirectoryWatch::watchIs(const std::string& dir, uint32_t mask) {
   if (!fd_) {
      errno = EBADF;
      return false;
   }
   wd_ = ::inotify_add_watch(fd_.get(), dir.c_str(), mask | IN_DELETE_SELF | IN_MOVE_SELF);
   return wd_ >= 0;
}

void DirectoryWatch::readEvents() {
   std::vector<Event> events;
   alignas(inotify_event) char buf[4096];
   ssize_t n;
   while ((n = ::read(fd_.get(), buf, sizeof buf)) > 0) {
      for (char* p = buf; p < buf + n;) {
         auto* ev = reinterpret_cast<inotify_event*>(p);
         p += sizeof(inotify_event) + ev->len;
         if (ev->wd == wd_ && (ev->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED))) {
            // A moved directory keeps its watch unless it is removed here.
            if (!(ev->mask & IN_IGNORED))
               ::inotify_rm_watch(fd_.get(), wd_);
            wd_ = -1;
         }
         events.push_back({ev->mask, ev->len ? std::string(ev->name) : std::string()});
      }
   }
   if (!events.empty())
      handler_(events);
}

}  // namespace Ravel
