#include "host/common/CtlCommands.h"

#include <cctype>

#include <cstdio>

#include <fmt/format.h>

#include "host/common/Control.h"
#include "host/common/ProbeClient.h"
#include "host/common/Traceroute.h"
#include "platform/core/Lumen.h"

namespace Ravel::host {

namespace {

std::string join(const std::vector<std::string>& a, size_t from) {
   std::string s;
   for (size_t i = from; i < a.size(); ++i)
      s += (s.empty() ? "" : " ") + a[i];
   return s;
}

int printReply(const std::string& socketPath, const std::string& request) {
   std::string reply = controlRequest(socketPath, request);
   std::fwrite(reply.data(), 1, reply.size(), stdout);
   if (!reply.empty() && reply.back() != '\n')
      std::fputc('\n', stdout);
   // Replies that report a failure start with one of these; the exit status says so too.
   bool failed = reply.starts_with("error: ") || reply.starts_with("Unknown command: ") ||
                 reply.find("not yet initialized!") != std::string::npos;
   return failed ? 1 : 0;
}

}  // namespace

int runCtlCommand(const std::string& socketPath, const std::vector<std::string>& args) {
   const std::string& cmd = args[0];
   if (cmd == "dump") {
      bool verbose = args.size() > 1 && (args[1] == "-v" || args[1] == "--verbose");
      return printReply(socketPath,
                        std::string(verbose ? "-v " : "") + "dumpState DebugAgentState");
   }
   if (cmd == "clear") {
      if (join(args, 1) != "counters")
         throw UsageError("clear takes one word: counters");
      return printReply(socketPath, "errorResponderClearCounters clear counters");
   }
   if (cmd == "show") {
      if (args.size() < 2)
         throw UsageError("show what?");
      return printReply(socketPath, "show " + join(args, 1));
   }
   if (cmd == "metrics") {
      if (args.size() != 1)
         throw UsageError("metrics takes no arguments");
      return printReply(socketPath, "show metrics");
   }
   if (cmd == "trace") {
      if (args.size() != 2)
         throw UsageError("trace takes one FILE");
      for (auto& r : lumen::readFile(args[1])) {
         std::string line = lumen::formatRecord(r);
         std::fprintf(stdout, "%s\n", line.c_str());
      }
      return 0;
   }
   if (cmd == "probe")
      return runProbe(args);
   if (cmd == "traceroute")
      return runTraceroute(args);
   if (cmd == "raw") {
      if (args.size() < 2)
         throw UsageError("raw needs a callback name");
      return printReply(socketPath, join(args, 1));
   }
   throw UsageError(fmt::format("unknown command {}", cmd));
}

unsigned optionNumber(const std::string& opt, const std::string& text, unsigned lo, unsigned hi) {
   unsigned long v = 0;
   bool ok = !text.empty() && std::isdigit(static_cast<unsigned char>(text[0]));
   if (ok) {
      size_t used = 0;
      try {
         v = std::stoul(text, &used);
      } catch (const std::logic_error&) {
         used = 0;
      }
      ok = used == text.size() && v >= lo && v <= hi;
   }
   if (!ok)
      throw UsageError(fmt::format("{} takes a number from {} to {}", opt, lo, hi));
   return static_cast<unsigned>(v);
}

}  // namespace Ravel::host
