// The kernel error filter at scale, without the daemon: N namespaces (made here, removed after)
// each get the filter's table, one liveness refresh, and lose the table again. Prints the time
// of each phase in total and per namespace as JSON. Needs root.
//
//    build/bin/kernel_error_filter_bench [N]

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "error/datapath/NftKernelErrorFilter.h"

using namespace Ravel;
using namespace Ravel::ErrorResponder;

namespace {

double seconds(std::chrono::steady_clock::time_point since) {
   return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

void ipBatch(const std::string& verb, int n, const std::string& tag) {
   std::string file = "/tmp/" + tag + "-" + verb;
   {
      std::ofstream f(file);
      for (int i = 0; i < n; ++i)
         f << "netns " << verb << " " << tag << "-" << i << "\n";
   }
   std::string cmd = "ip -batch " + file + " >/dev/null 2>&1";
   (void)!std::system(cmd.c_str());
   ::unlink(file.c_str());
}

}  // namespace

int main(int argc, char** argv) {
   int n = argc > 1 ? std::atoi(argv[1]) : 1000;
   std::string tag = "rvfb" + std::to_string(::getpid());
   ipBatch("add", n, tag);
   NftKernelErrorFilter filter;
   int failed = 0;
   auto t = std::chrono::steady_clock::now();
   for (int i = 0; i < n; ++i)
      failed += !filter.vrfIs(VrfName("v" + std::to_string(i)),
                              "/run/netns/" + tag + "-" + std::to_string(i));
   double install = seconds(t);
   t = std::chrono::steady_clock::now();
   for (int i = 0; i < n; ++i)
      failed += !filter.liveIs(VrfName("v" + std::to_string(i)), {true, true});
   double refresh = seconds(t);
   t = std::chrono::steady_clock::now();
   for (int i = 0; i < n; ++i)
      filter.vrfDel(VrfName("v" + std::to_string(i)));
   double remove = seconds(t);
   t = std::chrono::steady_clock::now();
   filter.closeReleased();
   double close = seconds(t);
   ipBatch("del", n, tag);
   std::printf(
       "{\"namespaces\": %d, \"failed\": %d, \"installSeconds\": %.3f, \"refreshSeconds\": %.3f, "
       "\"removeSeconds\": %.3f, \"closeSeconds\": %.3f, \"refreshMicrosPerVrf\": %.1f}\n",
       n, failed, install, refresh, remove, close, refresh * 1e6 / n);
   return failed ? 1 : 0;
}
