#pragma once

// inotify on one directory, read on the scheduler. Handlers get each batch of events; a
// directory that is removed, renamed or unmounted stops being watched (watching() turns false)
// and whoever owns the watch decides when to watch the path again.

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "platform/core/Fd.h"
#include "platform/core/Scheduler.h"

namespace Ravel {

class DirectoryWatch {
 public:
   struct Event {
      uint32_t mask = 0;  // IN_*
      std::string name;   // empty for events of the directory itself
   };
   using Handler = std::function<void(std::span<const Event>)>;

   // Without inotify (ok() false) nothing is ever reported; the failure is traced.
   DirectoryWatch(Scheduler& sched, const std::string& taskName, int priority, Handler handler);
   bool ok() const { return static_cast<bool>(fd_); }

   // Watches `dir` for `mask` (IN_DELETE_SELF and IN_MOVE_SELF are always added). False, with
   // errno set, when the directory cannot be watched.
   bool watchIs(const std::string& dir, uint32_t mask);
   bool watching() const { return wd_ >= 0; }

 private:
   void readEvents();

   Fd fd_;
   int wd_ = -1;
   Handler handler_;
   std::unique_ptr<FdTask> task_;
};

}  // namespace Ravel
