#include "platform/agent/AgentFramework.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("AgentFramework");

namespace Ravel {

namespace {
bool gRequestVerbose = false;
}

void writeAll(int fd, std::string_view text) {
   while (!text.empty()) {
      ssize_t n = ::write(fd, text.data(), text.size());
      if (n < 0 && errno == EINTR)
         continue;
      if (n <= 0)
         return;
      text.remove_prefix(static_cast<size_t>(n));
   }
}

DumpContext::DumpContext(int fd) : DumpContext(fd, AgentCommandRequestDirSm::requestVerbose()) {}

DumpContext::DumpContext(int fd, bool verbose, uint32_t entryLimit)
    : fd_(fd), verbose_(verbose), entryLimit_(entryLimit) {}

void DumpContext::printf(const char* format, ...) {
   char stackBuf[512];
   va_list ap;
   va_start(ap, format);
   int n = std::vsnprintf(stackBuf, sizeof stackBuf, format, ap);
   va_end(ap);
   if (n < 0)
      return;
   if (static_cast<size_t>(n) < sizeof stackBuf) {
      writeAll(fd_, {stackBuf, static_cast<size_t>(n)});
      return;
   }
   std::vector<char> big(static_cast<size_t>(n) + 1);
   va_start(ap, format);
   std::vsnprintf(big.data(), big.size(), format, ap);
   va_end(ap);
   writeAll(fd_, {big.data(), static_cast<size_t>(n)});
}

Ptr<AgentCommandCallback> AgentCommandRequestDirSm::callback(const std::string& name) const {
   auto it = callbacks_.find(name);
   return it == callbacks_.end() ? nullptr : it->second;
}

bool AgentCommandRequestDirSm::requestVerbose() {
   return gRequestVerbose;
}

bool AgentCommandRequestDirSm::dispatch(int fd, const std::string& request) {
   std::string_view req(request);
   gRequestVerbose = req.starts_with("-v ");
   if (gRequestVerbose)
      req.remove_prefix(3);
   auto space = req.find(' ');
   std::string name(req.substr(0, space));
   std::string command(space == std::string_view::npos ? "" : req.substr(space + 1));
   auto cb = callback(name);
   TRACE(3, "request {} command \"{}\" verbose {}", name, command, gRequestVerbose);
   if (!cb) {
      writeAll(fd, fmt::format("error: no command callback named {}\n", name));
      gRequestVerbose = false;
      return false;
   }
   cb->handleCommand(static_cast<unsigned>(fd), command);
   gRequestVerbose = false;
   return true;
}

CAgent::CAgent(std::string name, Ptr<EntityManager> em, Ptr<AgentCommandRequestDirSm> commands)
    : name_(std::move(name)), em_(std::move(em)), commands_(std::move(commands)) {}

CAgent::CAgent(CAgent* framework)
    : name_(framework->name_), em_(framework->em_), commands_(framework->commands_) {}

Ptr<Entity> CAgent::localEntityIs(const std::string& name, const std::string& type,
                                  const std::string& path) {
   TRACE(4, "local entity {} {} at {}", name, type, path);
   return em_->mount(path, type);
}

}  // namespace Ravel
