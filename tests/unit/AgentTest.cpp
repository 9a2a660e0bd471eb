#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "agent/RavelAgent.h"
#include "error/ErrorResponderAgent.h"
#include "platform/core/Lumen.h"
#include "probe/ProbeResponderAgent.h"
#include "tests/unit/FakePamWorld.h"

namespace Ravel {
namespace {

using testing::FakePam;
using testing::FakePamWorld;

// Runs a command callback and returns what it wrote to the client (a file stands in for the
// client's socket, so a long dump cannot block).
std::string reply(AgentCommandCallback& cb, const std::string& command, bool verbose = false) {
   FILE* f = std::tmpfile();
   auto registry = make<AgentCommandRequestDirSm>();
   registry->callbackIs(Ptr<AgentCommandCallback>(&cb));
   registry->dispatch(fileno(f), (verbose ? "-v " : "") + cb.name() + " " + command);
   registry->callbackDel(cb.name());
   std::string out;
   std::rewind(f);
   char buf[4096];
   for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;)
      out.append(buf, n);
   std::fclose(f);
   return out;
}

struct AgentTest : FakePamWorld {
   Ptr<EntityManager> em = make<EntityManager>();
   Ptr<CAgent> framework = make<CAgent>("Ravel", em, make<AgentCommandRequestDirSm>());
   std::filesystem::path dir =
       std::filesystem::temp_directory_path() / ("ravel-agent-test-" + std::to_string(getpid()));

   AgentTest() {
      std::filesystem::create_directories(dir);
      setenv("LUMENDIR", dir.c_str(), 1);
      setenv("LUMEN_DISABLE", "1", 1);
   }
   ~AgentTest() override {
      lumen::shutdown();
      unsetenv("LUMENDIR");
      unsetenv("LUMEN_DISABLE");
      std::filesystem::remove_all(dir);
   }

   Ptr<Agent> start(bool withVrfTable = true) {
      auto agent = ptrCast<Agent>(agentFactory(framework.get()));
      agent->doInit();
      em->performMounts(RAVEL_TEST_PROFILE_DIR);
      if (!withVrfTable)
         em->entityDel("ip/vrf/status/local");
      agent->doMountsComplete(MountStatus::ok, em);
      return agent;
   }
};

TEST_F(AgentTest, StartUpOrderAndRecords) {
   auto agent = ptrCast<Agent>(agentFactory(framework.get()));
   ASSERT_TRUE(agent);
   EXPECT_FALSE(agent->probeAgent());
   agent->doInit();
   EXPECT_TRUE(agent->probeConfig()->vrfHas(VrfName::defaultVrf()));
   EXPECT_EQ(agent->probeConfig()->vrf.size(), 1u);
   EXPECT_TRUE(agent->errConfig()->vrf.empty());
   EXPECT_TRUE(agent->probeAgent() && agent->errorResponderAgent());
   EXPECT_FALSE(agent->pamSm());
   // The two collections are distinct: only pamStatus's reaches the sub-agents.
   EXPECT_NE(agent->pamCollection(), agent->pamStatus()->pamCollection());
   EXPECT_EQ(agent->probeAgent()->pamCollection(), agent->pamStatus()->pamCollection());

   // Asking again with the sub-agent's own framework agent (the Ravel agent) keeps it; another
   // one replaces it.
   struct SubAgent {
      const char* what;
      std::function<Ptr<MiniAgent>()> current;
      std::function<Ptr<MiniAgent>(CAgent*)> is;
   };
   const SubAgent subAgents[] = {
       {"probe", [&] { return Ptr<MiniAgent>(agent->probeAgent()); },
        [&](CAgent* c) { return Ptr<MiniAgent>(agent->probeAgentIs(c)); }},
       {"error responder", [&] { return Ptr<MiniAgent>(agent->errorResponderAgent()); },
        [&](CAgent* c) { return Ptr<MiniAgent>(agent->errorResponderAgentIs(c)); }},
   };
   auto other = make<CAgent>("Other", em, make<AgentCommandRequestDirSm>());
   for (auto& s : subAgents) {
      SCOPED_TRACE(s.what);
      Ptr<MiniAgent> first = s.current();  // held, so a replacement cannot reuse its address
      ASSERT_TRUE(first);
      EXPECT_EQ(first->cAgent(), agent.get());
      EXPECT_EQ(s.is(agent.get()), first);
      EXPECT_EQ(s.current(), first);
      Ptr<MiniAgent> replaced = s.is(other.get());
      EXPECT_NE(replaced, first);
      EXPECT_EQ(s.current(), replaced);
      EXPECT_EQ(replaced->cAgent(), other.get());
   }
}

TEST_F(AgentTest, LumenFileFollowsTheEnvironment) {
   unsetenv("LUMEN_DISABLE");
   auto agent = ptrCast<Agent>(agentFactory(framework.get()));
   EXPECT_EQ(agent->lumenNameTemplate(), "Ravel.lmn");  // LUMENDIR set
   agent->doInit();
   EXPECT_TRUE(lumen::active());
   EXPECT_EQ(lumen::filePath(), (dir / "Ravel.lmn").string());
   lumen::shutdown();
   unsetenv("LUMENDIR");
   EXPECT_EQ(agent->lumenNameTemplate(), "Ravel-%d.lmn");
   setenv("LUMENDIR", dir.c_str(), 1);

   setenv("LUMEN_DISABLE", "", 1);  // any value disables it
   std::filesystem::remove(dir / "Ravel.lmn");
   auto second = ptrCast<Agent>(agentFactory(framework.get()));
   second->doInit();
   EXPECT_FALSE(lumen::active());
   EXPECT_FALSE(std::filesystem::exists(dir / "Ravel.lmn"));
}

TEST_F(AgentTest, MissingVrfTableStillGivesDefaultPams) {
   auto agent = start(false);
   sched.runUntilIdle();
   auto pams = agent->pamStatus()->pamCollection();
   EXPECT_TRUE(pams->pamGet({VrfName::defaultVrf(), AddressFamily::ipv4}));
   EXPECT_TRUE(pams->pamGet({VrfName::defaultVrf(), AddressFamily::ipv6}));
   EXPECT_EQ(agent->rootSm()->v4PamCount() + agent->rootSm()->v6PamCount(), 0u);
   auto reg = em->entityAs<ShowDebug>("agent/debug/registry/Ravel");
   ASSERT_TRUE(reg);
   EXPECT_EQ(reg->commandType(), "dumpState");
}

TEST_F(AgentTest, CommandRepliesForUnknownWordsAndUnstartedParts) {
   auto agent = start();
   EXPECT_EQ(reply(*agent->showAgentDebugCallbackIs(), "Bogus"), "Unknown command: Bogus");
   auto clear = agent->errorResponderClearCountersCallbackIs();
   EXPECT_EQ(reply(*clear, "reset"), "Unknown command: reset");
   EXPECT_EQ(reply(*clear, "clear counters"), "");
}

TEST_F(AgentTest, ClearCountersBeforeTheErrorResponderStarted) {
   // Created, then initialised: neither has an error responder that can clear counters.
   auto agent = ptrCast<Agent>(agentFactory(framework.get()));
   auto clear = agent->errorResponderClearCountersCallbackIs();
   EXPECT_EQ(reply(*clear, "clear counters"), "ErrorResponder::Agent not yet initialized!");
   agent->doInit();
   EXPECT_EQ(reply(*clear, "clear counters"), "ErrorResponder::Agent::RootSm not yet initialized!");
   EXPECT_EQ(reply(*clear, "clear"), "Unknown command: clear");
}

}  // namespace
}  // namespace Ravel
