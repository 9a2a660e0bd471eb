#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/eventfd.h>

#include <deque>

#include "error/ErrorResponderAgent.h"
#include "platform/core/Fd.h"
#include "tests/unit/FakeKernelErrorFilter.h"
#include "tests/unit/FakePam.h"

namespace Ravel::ErrorResponder {
namespace {

// A loader that keeps each loaded program's namespace filter in memory and logs its calls.
class FakeHelper : public EbpfHelperBase {
 public:
   EbpfInitParams loadProgram(const Ptr<EbpfConfig>&, const Ptr<EbpfHandlerContext>&) override {
      log.push_back("load");
      if (failLoads)
         return {};
      EbpfInitParams p;
      // The ring's descriptor is watched by the drain task: it must be a real one.
      rings.emplace_back(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
      p.ringBufFd = rings.back().get();
      p.nsMapFd = nextFd++;
      p.statsMapFd = nextFd++;
      maps[p.nsMapFd];
      return p;
   }
   void unloadProgram(const EbpfInitParams& p) override {
      log.push_back("unload");
      maps.erase(p.nsMapFd);
   }
   bool addToVrfMap(int32_t fd, NsInode i) override {
      log.push_back("add " + std::to_string(i));
      EXPECT_TRUE(maps.count(fd));
      if (maps[fd].size() >= mapSize)
         return false;
      maps[fd].insert(i);
      return true;
   }
   void removeFromVrfMap(int32_t fd, NsInode i) override {
      log.push_back("remove " + std::to_string(i));
      ASSERT_TRUE(maps.count(fd));
      maps[fd].erase(i);
   }
   void afterUnload() override { log.push_back("afterUnload"); }
   std::string lastLoadError() const override { return failLoads ? "no kprobes" : ""; }
   std::deque<Fd> rings;
   int consume(const EbpfInitParams&) override { return 0; }
   bool kernelStats(const EbpfInitParams&, EbpfKernelStats& out) const override {
      out = {};
      out.dropped = dropped;
      return true;
   }
   void kernelStatsClear(const EbpfInitParams&) override {}

   // The calls since the last look, afterUnload left out unless asked for.
   std::vector<std::string> take(bool withAfterUnload = false) {
      std::vector<std::string> out;
      for (auto& s : log) {
         if (withAfterUnload || s != "afterUnload")
            out.push_back(s);
      }
      log.clear();
      return out;
   }
   std::set<NsInode> onlyMap() const {
      return maps.size() == 1 ? maps.begin()->second : std::set<NsInode>{};
   }

   std::vector<std::string> log;
   std::map<int32_t, std::set<NsInode>> maps;
   bool failLoads = false;
   size_t mapSize = 100;
   uint64_t dropped = 0;  // the kernel program's count of records lost to a full ring
   int32_t nextFd = 10;
};

using Strings = std::vector<std::string>;
constexpr AddressFamily kV4 = AddressFamily::ipv4;
constexpr AddressFamily kV6 = AddressFamily::ipv6;

struct ErrorResponderTest : ::testing::Test {
   std::shared_ptr<SimulatedClock> clock = std::make_shared<SimulatedClock>();
   Scheduler sched{clock};
   ScopedDefaultScheduler scoped{sched};
   Ptr<Config> config = make<Config>();
   Ptr<AllVrfStatusLocal> vrfs = make<AllVrfStatusLocal>();
   Ptr<EbpfConfig> ebpf = make<EbpfConfig>();
   Ptr<Status> status = make<Status>();
   Ptr<PamConfig> pamConfig = make<PamConfig>();
   Ptr<PamCollection> pams = make<PamCollection>();
   Ptr<FakeHelper> v4 = make<FakeHelper>();
   Ptr<FakeHelper> v6 = make<FakeHelper>();
   Ptr<RootSm> root;
   testing::FakeKernelErrorFilter* filter = nullptr;  // owned by root

   RootSmInputs inputs() {
      return {make<AllIntfStatusDir>(),
              make<AllIntfStatusLocalDir>(),
              make<KniNsStatus>(),
              make<IpStatus>(),
              make<Ip6Status>(),
              vrfs,
              make<AclInput>(),
              make<AclConfig>(),
              ebpf,
              config,
              pamConfig,
              status,
              pams,
              make<EntityManager>()};
   }
   void start() {
      auto f = std::make_unique<testing::FakeKernelErrorFilter>();
      filter = f.get();
      root = make<RootSm>(
          inputs(),
          [this](RootSm& r) {
             r.v4EbpfHelperIs(v4);
             r.v6EbpfHelperIs(v6);
          },
          std::move(f));
   }
   ~ErrorResponderTest() override {
      root.reset();
      unsetenv("MOCK_EBPF_HELPER");
   }

   // A namespace appears (or changes) for `name`.
   void nsUp(const std::string& name, NsInode inode) {
      auto s = vrfs->vrf.get(VrfName(name));
      if (!s) {
         s = make<VrfStatusLocal>(VrfName(name));
         s->state.set(VrfState::active);
         s->nsInodeValid.set(true);
         s->nsInode.set(inode);
         s->nsPath.set("/run/netns/ns-" + name);
         vrfs->vrf.is(VrfName(name), s);
      } else {
         s->nsInode.set(inode);
      }
      check();
   }
   void nsDown(const std::string& name) {
      vrfs->vrf.del(VrfName(name));
      check();
   }
   void configure(const std::string& name, TriState enabled) {
      auto c = config->vrfConfig.get(VrfName(name));
      if (!c) {
         c = make<VrfConfig>(VrfName(name));
         c->enabled.set(enabled);
         config->vrfConfig.is(VrfName(name), c);
      } else {
         c->enabled.set(enabled);
      }
      check();
   }
   void unconfigure(const std::string& name) {
      config->vrfConfig.del(VrfName(name));
      check();
   }

   // Forward and reverse maps agree, and each family's programmed namespaces follow them.
   void check() {
      for (auto& [name, e] : ebpf->entry) {
         ASSERT_NE(e->nsInode, 0u);
         ASSERT_EQ(ebpf->entryByInode.get(e->nsInode), e) << name.str();
      }
      ASSERT_EQ(ebpf->entryByInode.size(), ebpf->entry.size());
      if (!root)
         return;
      for (AddressFamily af : {kV4, kV6}) {
         bool loaded = root->ebpfInitStatus(af)->ebpfProgLoaded();
         ASSERT_EQ(bool(status->afStatus.get(af)), loaded);
         if (!loaded) {
            ASSERT_TRUE(root->ebpfVrfStatus(af)->enabledInode().empty());
            continue;
         }
         std::set<NsInode> want;
         for (auto& [name, e] : ebpf->entry)
            want.insert(e->nsInode);
         auto& helper = af == kV4 ? v4 : v6;
         if (helper->mapSize < want.size())
            continue;  // some VRFs wait for room in the map
         ASSERT_EQ(root->ebpfVrfStatus(af)->enabledInode(), want);
         if (root->v4EbpfHelper().get() == v4.get()) {
            ASSERT_EQ(helper->onlyMap(), want);
         }
         ASSERT_EQ(status->afStatus.get(af)->vrfStatus.size(), ebpf->entry.size());
      }
   }
   std::map<std::string, NsInode> entries() const {
      std::map<std::string, NsInode> m;
      for (auto& [name, e] : ebpf->entry)
         m[name.str()] = e->nsInode;
      return m;
   }
   bool loaded(AddressFamily af) const { return bool(status->afStatus.get(af)); }
};

TEST_F(ErrorResponderTest, FirstVrfLoadsBothFamiliesLastUnloadsThem) {
   start();
   EXPECT_FALSE(loaded(kV4) || loaded(kV6));
   nsUp("red", 101);
   nsUp("blue", 102);
   EXPECT_TRUE(v4->take().empty());
   configure("red", TriState::of(true));
   EXPECT_EQ(v4->take(), (Strings{"load", "add 101"}));
   EXPECT_EQ(v6->take(), (Strings{"load", "add 101"}));
   EXPECT_TRUE(loaded(kV4) && loaded(kV6));
   // Each loaded family drains its ring.
   EXPECT_TRUE(root->ebpfRingBufSm(kV4) && root->ebpfRingBufSm(kV6));
   configure("blue", TriState::of(true));
   EXPECT_EQ(v4->take(), (Strings{"add 102"}));
   EXPECT_EQ(v6->take(), (Strings{"add 102"}));
   unconfigure("red");
   EXPECT_EQ(v4->take(), (Strings{"remove 101"}));
   EXPECT_EQ(v6->take(), (Strings{"remove 101"}));
   EXPECT_FALSE(status->afStatus.get(kV4)->vrfStatus.has(VrfName("red")));
   nsDown("blue");  // the last entry goes with blue's namespace
   EXPECT_EQ(v4->take(true), (Strings{"unload", "afterUnload"}));
   EXPECT_EQ(v6->take(), (Strings{"unload"}));
   EXPECT_FALSE(loaded(kV4) || loaded(kV6));
   EXPECT_FALSE(root->ebpfRingBufSm(kV4) || root->ebpfRingBufSm(kV6));
   EXPECT_FALSE(root->errorResponderStats()->errorResponderAfStats(kV4));
   EXPECT_EQ(pamConfig->vrf.size(), 1u);  // blue is still configured
}

TEST_F(ErrorResponderTest, NamespaceRecreatedWithNewInode) {
   start();
   nsUp("red", 101);
   configure("red", TriState::of(true));
   v4->take();
   // The only entry goes away before it returns, so the programs are reloaded.
   nsUp("red", 201);
   EXPECT_EQ(entries(), (std::map<std::string, NsInode>{{"red", 201}}));
   EXPECT_EQ(v4->take(), (Strings{"unload", "load", "add 201"}));
   // With a second VRF enabled the programs stay and only the inode moves.
   nsUp("blue", 102);
   configure("blue", TriState::unset());  // unset follows the global bit: off
   EXPECT_TRUE(v4->take().empty());
   config->enabled.set(TriState::of(true));
   check();
   v4->take();
   nsUp("red", 301);
   EXPECT_EQ(v4->take(), (Strings{"remove 201", "add 301"}));
   // The namespace goes: the entry goes, the VRF's state machine stays for its configuration.
   vrfs->vrf.get(VrfName("red"))->state.set(VrfState::inactive);
   check();
   EXPECT_EQ(v4->take(), (Strings{"remove 301"}));
   EXPECT_TRUE(root->configSm()->vrfConfigSm(VrfName("red")));
}

TEST_F(ErrorResponderTest, InodeChangeSeenAsOneNotificationUnprogramsTheStaleInode) {
   auto stats = make<ErrorResponderStats>();
   auto initStatus = make<EbpfInitStatus>(kV4);
   auto vrfStatus = make<EbpfVrfStatus>();
   auto prog = make<EbpfProgSm>(kV4, ebpf, initStatus, vrfStatus, status,
                                make<EbpfHandlerContext>(stats), v4, stats);
   auto e = ebpf->entryIs(VrfName("red"), 101);
   ebpf->entryByInodeIs(101, e);
   EXPECT_EQ(v4->take(), (Strings{"load", "add 101"}));
   ebpf->entryByInodeDel(101);
   ebpf->entryByInodeIs(102, ebpf->entryIs(VrfName("red"), 102));  // replaces in place
   EXPECT_EQ(v4->take(), (Strings{"remove 101", "add 102"}));
   EXPECT_EQ(vrfStatus->enabledInode(), (std::set<NsInode>{102}));
   EXPECT_EQ(prog->vrfNameToProgrammedInode(VrfName("red")), 102u);
   // Deleting the state machine unloads the program and forgets every namespace.
   prog.reset();
   EXPECT_EQ(v4->take(), (Strings{"unload"}));
   EXPECT_FALSE(initStatus->ebpfProgLoaded());
   EXPECT_TRUE(vrfStatus->enabledInode().empty());
   EXPECT_FALSE(status->afStatus.get(kV4));
}

TEST_F(ErrorResponderTest, EntriesLeftByAnEarlierRunAreRevisitedAtStartUp) {
   nsUp("red", 101);
   configure("red", TriState::of(true));
   for (auto [name, inode] : {std::pair{"red", 101}, {"gone", 555}, {"stale", 777}}) {
      auto e = ebpf->entryIs(VrfName(name), inode);
      ebpf->entryByInodeIs(inode, e);
   }
   nsUp("stale", 778);  // still exists, now with another namespace, not enabled
   auto leftOver = make<AfStatus>(kV4);
   status->afStatus.is(kV4, leftOver);
   start();
   check();
   EXPECT_EQ(entries(), (std::map<std::string, NsInode>{{"red", 101}}));
   EXPECT_EQ(v4->take(), (Strings{"load", "add 101"}));
   EXPECT_NE(status->afStatus.get(kV4), leftOver);
}

TEST_F(ErrorResponderTest, EnabledStateFollowsVrfThenGlobalSetting) {
   struct Case {
      TriState global, vrf;
      bool entry;
   };
   const auto unset = TriState::unset(), on = TriState::of(true), off = TriState::of(false);
   for (auto c : {Case{unset, unset, false}, Case{unset, on, true}, Case{unset, off, false},
                  Case{on, unset, true}, Case{on, off, false}, Case{off, on, false},
                  Case{off, unset, false}}) {
      SCOPED_TRACE(std::string(c.global.str()) + "/" + c.vrf.str());
      config = make<Config>();
      vrfs = make<AllVrfStatusLocal>();
      ebpf = make<EbpfConfig>();
      config->enabled.set(c.global);
      auto vc = make<VrfConfig>(VrfName("red"));
      vc->enabled.set(c.vrf);
      config->vrfConfig.is(VrfName("red"), vc);
      nsUp("red", 101);
      auto sm = make<ConfigSm>(config, vrfs, ebpf, status, true);
      EXPECT_EQ(ebpf->entry.has(VrfName("red")), c.entry);
      // The default VRF has no configuration: it follows the global bit alone.
      EXPECT_EQ(ebpf->entry.has(VrfName::defaultVrf()), c.global.isSet && c.global.value);
      EXPECT_EQ(bool(sm->vrfConfigSm(VrfName("red"))), !c.global.disabled());
      sm.reset();
      EXPECT_TRUE(ebpf->entry.empty());
   }
}

TEST_F(ErrorResponderTest, ToggleOffLeavesOnlyTheDefaultVrf) {
   config->enabled.set(TriState::of(true));
   nsUp("red", 101);
   configure("red", TriState::of(true));
   auto sm = make<ConfigSm>(config, vrfs, ebpf, status, false);
   EXPECT_FALSE(sm->vrfConfigSm(VrfName("red")));
   EXPECT_TRUE(sm->vrfConfigSm(VrfName::defaultVrf()));
   EXPECT_EQ(entries().size(), 1u);
   EXPECT_TRUE(ebpf->entry.has(VrfName::defaultVrf()));
}

TEST_F(ErrorResponderTest, GlobalDisableRemovesEverythingAndReenableRestoresIt) {
   start();
   config->enabled.set(TriState::of(true));
   nsUp("red", 101);
   configure("red", TriState::unset());
   EXPECT_EQ(entries().size(), 2u);  // red and the default VRF
   v4->take();
   config->enabled.set(TriState::of(false));
   check();
   EXPECT_TRUE(ebpf->entry.empty());
   EXPECT_TRUE(root->configSm()->vrfConfigSm().empty());
   EXPECT_EQ(v4->take().back(), "unload");
   EXPECT_FALSE(loaded(kV4));
   config->enabled.set(TriState::unset());  // back, but unset enables nothing by itself
   check();
   EXPECT_EQ(root->configSm()->vrfConfigSm().size(), 2u);
   EXPECT_TRUE(ebpf->entry.empty());
   config->enabled.set(TriState::of(true));
   check();
   EXPECT_EQ(entries().size(), 2u);
   EXPECT_TRUE(loaded(kV4) && loaded(kV6));
}

TEST_F(ErrorResponderTest, SecondVrfWithTheSameInodeIsRefusedUntilTheFirstLetsGo) {
   start();
   nsUp("red", 101);
   nsUp("alias", 101);  // two names bound to one namespace
   configure("red", TriState::of(true));
   configure("alias", TriState::of(true));
   EXPECT_EQ(entries(), (std::map<std::string, NsInode>{{"red", 101}}));
   EXPECT_EQ(status->nsInodeConflict, 1u);
   EXPECT_EQ(root->configSm()->vrfConfigSm(VrfName("alias"))->refusedInode(), 101u);
   // Re-evaluating the refused VRF does not count again.
   root->configSm()->vrfConfigSm(VrfName("alias"))->handleConfig();
   EXPECT_EQ(status->nsInodeConflict, 1u);
   EXPECT_EQ(v4->take(), (Strings{"load", "add 101"}));
   unconfigure("red");
   sched.runUntilIdle();
   check();
   EXPECT_EQ(entries(), (std::map<std::string, NsInode>{{"alias", 101}}));
   EXPECT_EQ(root->configSm()->vrfConfigSm(VrfName("alias"))->refusedInode(), 0u);
   EXPECT_EQ(v4->take(), (Strings{"unload", "load", "add 101"}));
}

TEST_F(ErrorResponderTest, PamsAreRequestedForEveryConfiguredVrf) {
   start();
   configure("red", TriState::of(false));
   configure("red", TriState::of(true));
   EXPECT_EQ(pamConfig->vrf.size(), 1u);
   EXPECT_TRUE(pamConfig->vrfHas(VrfName("red")));
   unconfigure("red");
   EXPECT_TRUE(pamConfig->vrf.empty());
}

TEST_F(ErrorResponderTest, EachFailedKernelErrorFilterInstallIsCountedOnce) {
   start();
   const VrfName dflt("default");
   pams->pamIs({dflt, kV4}, make<testing::FakePam>("default", kV4, 1, ""));
   enum Action { enable, disable, suppressOff, suppressOn, stopFailing, wait };
   struct Step {
      Action action;
      bool installed;
      uint64_t failed;
   };
   const Step steps[] = {
       {enable, false, 1},       // refused: counted
       {suppressOff, false, 1},  // removal never fails
       {suppressOn, false, 2},   // refused again
       {stopFailing, false, 2},  // not asked before the retry time
       {wait, true, 2},         {disable, false, 2},
       {enable, true, 2},       {suppressOn, true, 2},  // no change
   };
   filter->failing.insert(dflt);
   int i = 0;
   for (const auto& s : steps) {
      SCOPED_TRACE(i++);
      switch (s.action) {
         case enable:
            configure("default", TriState::of(true));
            break;
         case disable:
            configure("default", TriState::of(false));
            break;
         case suppressOff:
            config->suppressKernelErrors.set(false);
            break;
         case suppressOn:
            config->suppressKernelErrors.set(true);
            break;
         case stopFailing:
            filter->failing.clear();
            break;
         case wait:
            sched.advance(KernelErrorGuardSm::kInstallRetry);
            break;
      }
      EXPECT_EQ(filter->installed.count(dflt) == 1, s.installed);
      EXPECT_EQ(status->kernelErrorFilterFailed, s.failed);
   }
}

// The kernel's errors are dropped only while every part of the replacement is there, and come
// back at once (or within the filter's timeout, for a stalled agent) when one goes.
TEST_F(ErrorResponderTest, KernelErrorsAreDroppedOnlyWhileTheReplacementIsLive) {
   start();
   const VrfName red("red");
   nsUp("red", 101);
   enum Action {
      enable,
      pam4,
      pam6,
      pam4Gone,
      ringDrops,
      sendFails,
      refresh,
      wait,
      suppressOff,
      suppressOn,
      load4Fails,
      mapFull,
      disable
   };
   struct Step {
      Action action;
      bool v4, v6;  // the families whose kernel errors are dropped; no table when none
   };
   const Step steps[] = {
       {enable, false, false},  // no PAM yet
       {pam4, true, false},
       {pam6, true, true},
       {pam4Gone, false, true},
       {pam4, true, true},
       {ringDrops, false, true},   // seen at the next refresh
       {wait, true, true},         // held off, then back
       {sendFails, false, false},  // at once
       {refresh, false, false},    // and for the whole hold-off
       {wait, true, true},
       {suppressOff, false, false},
       {suppressOn, true, true},
       {load4Fails, false, true},
       {mapFull, false, false},  // neither family has the namespace in
                                 // its map
       {disable, false, false},
   };
   int i = 0;
   for (const auto& s : steps) {
      SCOPED_TRACE(i++);
      switch (s.action) {
         case enable:
            configure("red", TriState::of(true));
            break;
         case pam4:
            pams->pamIs({red, kV4}, make<testing::FakePam>("red", kV4, 1, "ns-red"));
            break;
         case pam6:
            pams->pamIs({red, kV6}, make<testing::FakePam>("red", kV6, 58, "ns-red"));
            break;
         case pam4Gone:
            pams->pamDel({red, kV4});
            break;
         case ringDrops:
            v4->dropped += 3;
            sched.advance(KernelErrorGuardSm::kRefreshInterval);
            break;
         case sendFails:
            root->kernelErrorGuard()->replacementLost(red, kV4);
            root->kernelErrorGuard()->replacementLost(red, kV6);
            break;
         case refresh:
            sched.advance(KernelErrorGuardSm::kRefreshInterval);
            break;
         case wait:
            sched.advance(KernelErrorGuardSm::kHoldOff + KernelErrorGuardSm::kRefreshInterval);
            break;
         case suppressOff:
            config->suppressKernelErrors.set(false);
            break;
         case suppressOn:
            config->suppressKernelErrors.set(true);
            break;
         case load4Fails:
            v4->failLoads = true;
            configure("red", TriState::of(false));
            configure("red", TriState::of(true));
            break;
         case mapFull:
            v6->mapSize = 0;
            configure("red", TriState::of(false));
            configure("red", TriState::of(true));
            break;
         case disable:
            configure("red", TriState::of(false));
            break;
      }
      EXPECT_EQ(filter->installed.count(red) == 1, s.v4 || s.v6);
      auto live = filter->live.count(red) ? filter->live[red] : ErrorResponder::LiveFamilies{};
      EXPECT_EQ(live.ipv4, s.v4);
      EXPECT_EQ(live.ipv6, s.v6);
   }
   EXPECT_EQ(status->vrfMapAddFailed, 1u);
}

// While anything is dropped the kernel hears from the agent every refresh interval; a failed
// load is tried again with growing delays and says why.
TEST_F(ErrorResponderTest, LivenessIsRefreshedAndFailedLoadsRetriedWithBackoff) {
   v4->failLoads = true;
   start();
   nsUp("red", 101);
   configure("red", TriState::of(true));
   pams->pamIs({VrfName("red"), kV6}, make<testing::FakePam>("red", kV6, 58, "ns-red"));
   ASSERT_TRUE(filter->live[VrfName("red")].ipv6);
   int before = filter->refreshes;
   sched.advance(10 * KernelErrorGuardSm::kRefreshInterval);
   EXPECT_GE(filter->refreshes - before, 9);

   EXPECT_EQ(status->loadRetry.at(kV4).error, "no kprobes");
   EXPECT_EQ(v4->take(), (Strings{"load", "load"}));  // at 0 s and 5 s
   std::vector<int> loadsAt;  // seconds after the first failure at which a load was tried
   for (int t = 1; t <= 80; ++t) {
      sched.advance(1.0);
      if (!v4->take().empty())
         loadsAt.push_back(t + 5);
   }
   EXPECT_EQ(loadsAt, (std::vector<int>{15, 35, 75}));
   EXPECT_EQ(status->loadRetry.at(kV4).failures, 5u);
   // New sizes are a new chance at once; its success stops the retries.
   v4->failLoads = false;
   ebpf->ringBufSz.set(1 << 20);
   EXPECT_TRUE(loaded(kV4));
   EXPECT_FALSE(status->loadRetry.count(kV4));
   sched.advance(160);
   EXPECT_EQ(v4->take(), (Strings{"load", "add 101"}));
}

TEST_F(ErrorResponderTest, RootAclConfigFollowsBothSourcesAcrossLoads) {
   start();
   const auto& in = root->inputs();
   const Ptr<AclTypeConfig> v4Lists = root->aclConfig()->of(kV4);
   in.aclInput->ipv4->acl.is("A", AclList{"A", kV4, {}});
   in.aclCli->ipv6->acl.is("B", AclList{"B", kV6, {}});
   EXPECT_TRUE(root->aclConfig()->list(kV4, "A") && root->aclConfig()->list(kV6, "B"));
   // A program load (ring-buffer machines and processors made) keeps the same lists.
   nsUp("red", 101);
   configure("red", TriState::of(true));
   ASSERT_TRUE(root->ebpfRingBufSm(kV4));
   EXPECT_EQ(root->aclConfig()->of(kV4), v4Lists);
   in.aclInput->ipv4->acl.del("A");
   EXPECT_FALSE(root->aclConfig()->list(kV4, "A"));
   EXPECT_TRUE(root->aclConfig()->list(kV6, "B"));
}

TEST_F(ErrorResponderTest, SubstituteLoaderIsSharedByBothFamilies) {
   setenv("MOCK_EBPF_HELPER", "1", 1);
   root = make<RootSm>(inputs(), nullptr, std::make_unique<testing::FakeKernelErrorFilter>());
   EXPECT_TRUE(root->mockEbpfEnvironment());
   EXPECT_EQ(root->v4EbpfHelper(), root->v6EbpfHelper());
   nsUp("red", 101);
   configure("red", TriState::of(true));
   EXPECT_TRUE(loaded(kV4) && loaded(kV6));
   EXPECT_GT(root->ebpfInitStatus(kV4)->params().nsMapFd, 0);
   EXPECT_FALSE(root->ebpfRingBufSm(kV4) || root->ebpfRingBufSm(kV6));
   configure("red", TriState::of(false));
   EXPECT_FALSE(loaded(kV4) || loaded(kV6));
}

TEST_F(ErrorResponderTest, CountersReachStatusOnceASecondAfterTheFirstChange) {
   start();
   nsUp("red", 101);
   configure("red", TriState::of(true));
   auto stats = root->errorResponderStats();
   auto& poll = *root->pollCounterSm();
   sched.runUntilIdle();
   uint64_t syncs = poll.syncCount();
   auto v4Status = status->afStatus.get(kV4);
   EXPECT_TRUE(stats->incrAfCounter(kV4, AfCounterId::pktInfoReceived));
   sched.advance(0.5);
   EXPECT_TRUE(stats->incrAfCounter(kV4, AfCounterId::pktInfoReceived));
   EXPECT_TRUE(stats->incrVrfCounter(kV4, VrfName("red"), VrfCounterId::extendedErrorSent));
   sched.advance(0.25);
   EXPECT_EQ(v4Status->counter(AfCounterId::pktInfoReceived), 0u);
   sched.advance(0.25);
   EXPECT_EQ(v4Status->counter(AfCounterId::pktInfoReceived), 2u);
   auto red = v4Status->vrfStatus.get(VrfName("red"));
   EXPECT_EQ(red->counter(VrfCounterId::extendedErrorSent), 1u);
   EXPECT_EQ(poll.syncCount(), syncs + 1);
   EXPECT_FALSE(stats->pendingSync());
   // Nothing changed: no sync.
   sched.advance(5);
   EXPECT_EQ(poll.syncCount(), syncs + 1);

   // Absent families and VRFs count nothing and arm nothing.
   configure("red", TriState::of(false));
   EXPECT_FALSE(stats->incrAfCounter(kV6, AfCounterId::pktInfoReceived));
   EXPECT_FALSE(stats->updateAfCounter(kV4, AfCounterId::ringBufQueued, 3));
   EXPECT_FALSE(stats->incrVrfCounter(kV4, VrfName("red"), VrfCounterId::replyAttempted));
   EXPECT_FALSE(stats->pendingSync());
   EXPECT_FALSE(stats->errorResponderAfStats(kV6));
}

TEST_F(ErrorResponderTest, ClearZeroesRecordAndStatusAndDestroyStopsSyncs) {
   start();
   nsUp("red", 101);
   configure("red", TriState::of(true));
   auto stats = root->errorResponderStats();
   auto& poll = *root->pollCounterSm();
   for (AddressFamily af : {kV4, kV6}) {
      stats->incrAfCounter(af, AfCounterId::pktInfoProcessed);
      stats->incrVrfCounter(af, VrfName("red"), VrfCounterId::replyAttempted);
   }
   sched.advance(1);
   EXPECT_EQ(status->afStatus.get(kV6)->counter(AfCounterId::pktInfoProcessed), 1u);
   bool kernelCleared = false;
   auto sub = stats->subscribeClearEbpfStats([&] { kernelCleared |= stats->clearEbpfStats(); });
   poll.clear();
   EXPECT_TRUE(kernelCleared);
   EXPECT_EQ(poll.clearedCount(), 1u);
   for (AddressFamily af : {kV4, kV6}) {
      auto afStats = stats->errorResponderAfStats(af);
      EXPECT_EQ(afStats->counter(AfCounterId::pktInfoProcessed), 0u);
      EXPECT_EQ(
          afStats->errorResponderVrfStats(VrfName("red"))->counter(VrfCounterId::replyAttempted),
          0u);
      EXPECT_EQ(status->afStatus.get(af)->counter(AfCounterId::pktInfoProcessed), 0u);
      EXPECT_EQ(status->afStatus.get(af)
                    ->vrfStatus.get(VrfName("red"))
                    ->counter(VrfCounterId::replyAttempted),
                0u);
   }
   poll.destroy();
   stats->incrAfCounter(kV4, AfCounterId::pktInfoProcessed);
   EXPECT_EQ(poll.syncCounterTask().currentExpirationTime(), kNever);
}

TEST(ErrorResponderCounters, WrapAndRangeErrors) {
   ErrorResponderAfStats af(kV4);
   af.counterIs(AfCounterId::ringBufDropped, UINT64_MAX);
   EXPECT_EQ(af.counterInc(AfCounterId::ringBufDropped, 2), 1u);
   EXPECT_EQ(af.counterDel(AfCounterId::ringBufDropped), 1u);
   EXPECT_EQ(af.counter(AfCounterId::ringBufDropped), 0u);
   struct Case {
      std::function<void()> fn;
      const char* message;
   };
   ErrorResponderVrfStats vrf(VrfName("red"));
   ErrorResponderStats stats;
   stats.errorResponderAfStatsIs(kV4)->errorResponderVrfStatsIs(VrfName("red"));
   for (auto& c : std::vector<Case>{
            {[&] { af.counterInc(static_cast<AfCounterId>(7), 1); },
             "cannot access index 7 of an array with size 7"},
            {[&] { vrf.counterIs(static_cast<VrfCounterId>(6), 1); },
             "cannot access index 6 of an array with size 6"},
            {[&] { stats.incrAfCounter(kV4, static_cast<AfCounterId>(9)); },
             "cannot access index 9 of an array with size 7"},
            {[&] { stats.incrVrfCounter(kV4, VrfName("red"), static_cast<VrfCounterId>(6)); },
             "cannot access index 6 of an array with size 6"},
        }) {
      try {
         c.fn();
         ADD_FAILURE() << "no range error for " << c.message;
      } catch (const std::out_of_range& e) {
         EXPECT_STREQ(e.what(), c.message);
      }
   }
}

}  // namespace
}  // namespace Ravel::ErrorResponder
