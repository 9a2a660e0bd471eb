#pragma once

// Watches a directory of network namespace files ("ns-<vrf>", as `ip netns add` makes them in
// /run/netns) and reports which VRFs have a mounted namespace there.
//
// inotify reports files coming and going, but not the bind mount that turns a new file into a
// namespace, nor a directory that does not exist yet. Both are re-checked with a timer: files
// that are not (yet) namespaces with a backoff from 50 ms to 5 s, a missing directory every
// second. Nothing is polled while every file is settled.

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/core/Scheduler.h"
#include "platform/linux/DirectoryWatch.h"
#include "platform/values/Values.h"

namespace Ravel {

struct NetnsFile {
   std::string path;
   NsInode inode = 0;  // of the namespace (nsfs), not of the file it is mounted on
   bool operator==(const NetnsFile&) const = default;
};
using NetnsFiles = std::map<VrfName, NetnsFile>;

// The VRF a file of the namespace directory is for: "ns-<vrf>" with <vrf> a possible VRF name.
// nullopt for other files; `whyNot` is then set when the name has the prefix but no usable VRF.
std::optional<VrfName> vrfOfNetnsFile(std::string_view fileName, std::string* whyNot = nullptr);

// Opens `path` if it is a mounted network namespace and returns the descriptor (close-on-exec;
// the caller closes it) with the namespace's inode; -1 with errno set otherwise (EINVAL for a
// file that is not a namespace).
int openNetns(const std::string& path, NsInode* inode);

class NetnsWatcher {
 public:
   using Handler = std::function<void(const NetnsFiles&)>;
   // Nothing happens before the first scan().
   NetnsWatcher(Scheduler& sched, std::string dir, Handler onChange);
   ~NetnsWatcher();
   NetnsWatcher(const NetnsWatcher&) = delete;
   NetnsWatcher& operator=(const NetnsWatcher&) = delete;

   // Reads the directory now; calls the handler when the set differs from the last one reported.
   void scan();
   // Scans again after a while, e.g. after failing to use a reported namespace.
   void retryLater();

 private:
   void armRetry(Seconds delay);

   std::string dir_;
   Handler onChange_;
   TimerTask retryTimer_;
   Seconds backoff_;
   DirectoryWatch watch_;
   std::optional<NetnsFiles> reported_;
   std::set<std::string> complainedAbout_;
};

}  // namespace Ravel
