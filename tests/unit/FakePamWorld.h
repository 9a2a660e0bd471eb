#pragma once

// The world the agent, PAM manager and probe responder tests run in: a simulated clock
// driving the default scheduler, and the fake PAM factory installed as the agents' one.

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "platform/agent/AgentFramework.h"
#include "platform/core/Clock.h"
#include "platform/core/Scheduler.h"
#include "tests/unit/FakePam.h"

namespace Ravel::testing {

class FakePamWorld : public ::testing::Test {
 protected:
   FakePamWorld() { PamFactory::instanceIs(&factory); }
   ~FakePamWorld() override { PamFactory::instanceIs(nullptr); }

   // A PAM of the default VRF, named and numbered as the PAM manager makes them.
   Ptr<FakePam> defaultVrfPam(AddressFamily af) {
      bool v4 = af == AddressFamily::ipv4;
      return ptrCast<FakePam>(
          v4 ? factory.ipSocketPamFactory("ipv4 vrf default", IPPROTO_ICMP, "")
             : factory.ip6SocketPamFactory("ipv6 vrf default", IPPROTO_ICMPV6, ""));
   }

   // What `dump` writes to a dump context (a file stands in for the client's socket, so a
   // long dump cannot block).
   static std::string dumpText(const std::function<void(DumpContext&)>& dump,
                               bool verbose = false) {
      FILE* f = std::tmpfile();
      DumpContext ctx(fileno(f), verbose);
      dump(ctx);
      std::string out;
      std::rewind(f);
      char buf[4096];
      for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;)
         out.append(buf, n);
      std::fclose(f);
      return out;
   }

   std::shared_ptr<SimulatedClock> clock = std::make_shared<SimulatedClock>();
   Scheduler sched{clock};
   ScopedDefaultScheduler scoped{sched};
   FakePamFactory factory;
};

}  // namespace Ravel::testing
