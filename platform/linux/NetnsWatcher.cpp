#include "platform/linux/NetnsWatcher.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/core/Fd.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("LinuxStateProvider");

#ifndef NSFS_MAGIC
#define NSFS_MAGIC 0x6e736673
#endif

namespace Ravel {

namespace {

constexpr int kTaskPriority = 2;
constexpr Seconds kFirstRetry = 0.05;  // `ip netns add` mounts right after creating the file
constexpr Seconds kMaxRetry = 5.0;
constexpr Seconds kMissingDirRetry = 1.0;
constexpr const char kPrefix[] = "ns-";

}  // namespace

std::optional<VrfName> vrfOfNetnsFile(std::string_view fileName, std::string* whyNot) {
   if (!fileName.starts_with(kPrefix))
      return std::nullopt;
   std::string_view vrf = fileName.substr(sizeof kPrefix - 1);
   auto refuse = [&](std::string why) -> std::optional<VrfName> {
      if (whyNot)
         *whyNot = std::move(why);
      return std::nullopt;
   };
   if (vrf.empty())
      return refuse("no VRF name");
   if (vrf.size() > VrfName::kMaxLen)
      return refuse(fmt::format("VRF name longer than {} bytes", VrfName::kMaxLen));
   // The default VRF is the agent's own namespace; a file cannot stand in for it.
   if (vrf == VrfName::defaultVrf().str())
      return refuse("the default VRF has no namespace file");
   return VrfName(std::string(vrf));
}

int openNetns(const std::string& path, NsInode* inode) {
   // Only regular files (what nsfs objects look like): opening a FIFO or device would block or
   // act on it.
   struct stat st {};
   if (::stat(path.c_str(), &st) != 0)
      return -1;
   if (!S_ISREG(st.st_mode)) {
      errno = EINVAL;
      return -1;
   }
   int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
   if (fd < 0)
      return -1;
   // The file itself has an inode of its own until the namespace is mounted on it.
   struct statfs sfs {};
   if (::fstatfs(fd, &sfs) != 0 || static_cast<unsigned long>(sfs.f_type) != NSFS_MAGIC ||
       ::fstat(fd, &st) != 0) {
      ::close(fd);
      errno = EINVAL;
      return -1;
   }
   *inode = static_cast<NsInode>(st.st_ino);
   return fd;
}

NetnsWatcher::NetnsWatcher(Scheduler& sched, std::string dir, Handler onChange)
    : dir_(std::move(dir)),
      onChange_(std::move(onChange)),
      retryTimer_(sched, "NetnsRescan", kTaskPriority, [this] { scan(); }),
      backoff_(kFirstRetry),
      // Without inotify, still correct, only slower: every scan re-arms the timer.
      watch_(sched, "NetnsWatch", kTaskPriority, [this](auto) {
         backoff_ = kFirstRetry;
         scan();
      }) {}

NetnsWatcher::~NetnsWatcher() = default;

void NetnsWatcher::armRetry(Seconds delay) {
   retryTimer_.scheduleTaskDelay(delay);
}

void NetnsWatcher::retryLater() {
   armRetry(backoff_);
   backoff_ = std::min(backoff_ * 2, kMaxRetry);
}

void NetnsWatcher::scan() {
   if (!watch_.watching() && watch_.ok()) {
      // Added before reading, so that nothing created in between is missed.
      watch_.watchIs(dir_, IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR);
   }
   NetnsFiles now;
   bool unsettled = false;
   DIR* d = ::opendir(dir_.c_str());
   if (d) {
      while (dirent* e = ::readdir(d)) {
         std::string why;
         auto vrf = vrfOfNetnsFile(e->d_name, &why);
         if (!vrf) {
            if (!why.empty() && complainedAbout_.insert(e->d_name).second)
               TRACE(1, "ignoring {}/{}: {}", dir_, e->d_name, why);
            continue;
         }
         std::string path = dir_ + "/" + e->d_name;
         NsInode inode = 0;
         if (Fd(openNetns(path, &inode))) {
            now[*vrf] = {path, inode};
         } else if (errno != ENOENT) {
            unsettled = true;  // may be mounted any moment
         }
      }
      ::closedir(d);
   }
   if (!reported_ || *reported_ != now) {
      reported_ = now;
      onChange_(now);
   }
   if (!d || !watch_.watching()) {
      armRetry(kMissingDirRetry);
   } else if (unsettled) {
      retryLater();
   }
}

}  // namespace Ravel
