#include "host/common/HostCommands.h"

#include <unistd.h>

#include <sstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/common/Daemon.h"

namespace Ravel::host {

ShowCallback::ShowCallback(Daemon& daemon) : AgentCommandCallback("ravel", "show"), daemon_(daemon) {
   handlerIs("status", [this](int fd, bool json) { showStatus(fd, json); });
}

void ShowCallback::handleCommand(unsigned socketFd, const std::string& command) {
   int fd = static_cast<int>(socketFd);
   std::istringstream in(command);
   std::string what, word;
   in >> what;
   bool json = false;
   while (in >> word) json |= word == "--json";
   auto it = handlers_.find(what);
   if (it == handlers_.end()) {
      std::string known;
      for (auto& [name, h] : handlers_) known += " " + name;
      writeAll(fd, fmt::format("Unknown command: show {} (known:{})\n", what, known));
      return;
   }
   it->second(fd, json);
}

void ShowCallback::showStatus(int fd, bool json) {
   auto& opts = daemon_.options();
   nlohmann::json j;
   j["pid"] = getpid();
   j["uptimeSeconds"] = daemon_.scheduler().now() - daemon_.startTime();
   j["socket"] = opts.socketPath;
   j["config"] = opts.configFile;
   j["netnsDir"] = opts.netnsDir;
   j["agent"] = opts.agentLib;
   nlohmann::json ents = nlohmann::json::object();
   for (auto& [path, e] : daemon_.entityManager()->entities()) ents[path] = e->typeName();
   j["entities"] = ents;
   nlohmann::json cbs = nlohmann::json::array();
   for (auto& [name, cb] : daemon_.commands()->callbacks()) cbs.push_back(name);
   j["commands"] = cbs;
   if (json) {
      writeAll(fd, j.dump(2) + "\n");
      return;
   }
   std::string out = fmt::format(
       "pid {}\nuptime {:.1f} s\nsocket {}\nconfig {}\nnetns dir {}\nagent {}\ncommands",
       j["pid"].get<int>(), j["uptimeSeconds"].get<double>(), opts.socketPath,
       opts.configFile.empty() ? "(none)" : opts.configFile, opts.netnsDir, opts.agentLib);
   for (auto& c : cbs) out += " " + c.get<std::string>();
   out += "\nentities\n";
   for (auto& [path, type] : ents.items()) {
      out += fmt::format("  {} {}\n", path, type.get<std::string>());
   }
   writeAll(fd, out);
}

}  // namespace Ravel::host
