// The Ravel daemon: hosts the agent library and serves ravelctl.
#include <cstdio>
#include <exception>
#include <stdexcept>

#include "host/common/Daemon.h"

int main(int argc, char** argv) {
   Ravel::host::DaemonOptions opts;
   try {
      opts = Ravel::host::parseDaemonOptions(argc, argv);
   } catch (const std::invalid_argument& e) {
      std::fprintf(stderr,
                   "ravel: %s\nusage: ravel [--config FILE] [--socket PATH] [--netns-dir DIR] "
                   "[--agent LIB] [--profile-dir DIR]\n",
                   e.what());
      return 2;
   }
   try {
      Ravel::host::Daemon daemon(opts);
      daemon.start();
      return daemon.run();
   } catch (const Ravel::ConfigError& e) {
      std::fprintf(stderr, "ravel: %s\n", e.what());
      return 2;
   } catch (const std::exception& e) {
      std::fprintf(stderr, "ravel: %s\n", e.what());
      return 1;
   }
}
