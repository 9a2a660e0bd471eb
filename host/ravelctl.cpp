// ravelctl: the operator's command line for a running ravel daemon.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "host/common/Control.h"
#include "host/common/CtlCommands.h"

namespace {

void usage(FILE* out) {
   std::fprintf(out,
                "usage: ravelctl [--socket PATH] COMMAND\n"
                "commands:\n"
                "  dump [-v]                 the agent's state dump (-v: no list truncation)\n"
                "  clear counters            reset the error responder's counters\n"
                "  show status [--json]      the daemon's status\n"
                "  show config               the configuration in effect\n"
                "  show probe [--json]       probe responder configuration and counters\n"
                "  show errors [--json]      error responder programs, VRFs and counters\n"
                "  metrics                   every counter, Prometheus text format\n"
                "  trace FILE                print a ring-file trace\n"
                "  probe TARGET (--ifname NAME | --ifindex N | --ifaddr ADDR) [--remote]\n"
                "        [-4|-6] [--count N] [--timeout S]   send RFC 8335 PROBE requests\n"
                "  raw CALLBACK [WORDS...]   send a request line as it is\n");
}

}  // namespace

int main(int argc, char** argv) {
   std::string socketPath = Ravel::host::kDefaultSocket;
   std::vector<std::string> args;
   for (int i = 1; i < argc; ++i) {
      if (std::strcmp(argv[i], "--socket") == 0 && i + 1 < argc) {
         socketPath = argv[++i];
      } else if (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0) {
         usage(stdout);
         return 0;
      } else {
         args.emplace_back(argv[i]);
      }
   }
   if (args.empty()) {
      usage(stderr);
      return 2;
   }
   try {
      return Ravel::host::runCtlCommand(socketPath, args);
   } catch (const Ravel::host::UsageError& e) {
      std::fprintf(stderr, "ravelctl: %s\n", e.what());
      usage(stderr);
      return 2;
   } catch (const std::exception& e) {
      std::fprintf(stderr, "ravelctl: %s\n", e.what());
      return 1;
   }
}
