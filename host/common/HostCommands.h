#pragma once

#include <functional>
#include <map>
#include <string>

#include "platform/agent/AgentFramework.h"

namespace Ravel::host {

class Daemon;

// "show <what> [--json]": the daemon's own view of the store for operators.
class ShowCallback : public AgentCommandCallback {
 public:
   using Handler = std::function<void(int fd, bool json)>;
   explicit ShowCallback(Daemon& daemon);
   void handleCommand(unsigned socketFd, const std::string& command) override;
   void handlerIs(const std::string& what, Handler h) { handlers_[what] = std::move(h); }

 private:
   void showStatus(int fd, bool json);
   void showProbe(int fd, bool json);
   void showState(int fd, bool json);
   void showErrors(int fd, bool json);
   void showMetrics(int fd);
   Daemon& daemon_;
   std::map<std::string, Handler> handlers_;
};

}  // namespace Ravel::host
