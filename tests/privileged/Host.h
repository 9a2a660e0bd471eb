#pragma once

// What the privileged tests ask of the machine they run on.

#include <sys/stat.h>

#include <cstdlib>
#include <string>

namespace Ravel::test {

// Runs a shell command quietly; its exit status.
inline int sh(const std::string& cmd) {
   return std::system((cmd + " >/dev/null 2>&1").c_str());
}

// Whether this kernel can attach kprobes at all (the loaders' attach step needs them).
inline bool kernelHasKprobes() {
   struct stat st {};
   return ::stat("/sys/bus/event_source/devices/kprobe", &st) == 0 ||
          ::stat("/sys/kernel/tracing/kprobe_events", &st) == 0 ||
          ::stat("/sys/kernel/debug/tracing/kprobe_events", &st) == 0;
}

}  // namespace Ravel::test
