#include <gtest/gtest.h>

#include <cerrno>

#include "pam/PamSm.h"
#include "tests/unit/FakePamWorld.h"
#include "tests/unit/YieldAfter.h"

namespace Ravel {
namespace {

using testing::FakePam;
using testing::FakePamWorld;

bool sameProgram(const SockFilterProgram& a, const SockFilterProgram& b) {
   if (a.size() != b.size())
      return false;
   for (size_t i = 0; i < a.size(); ++i) {
      if (a[i].code != b[i].code || a[i].jt != b[i].jt || a[i].jf != b[i].jf || a[i].k != b[i].k) {
         return false;
      }
   }
   return true;
}

struct PamSmTest : FakePamWorld {
   Ptr<PamConfig> errConfig = make<PamConfig>();
   Ptr<PamConfig> probeConfig = make<PamConfig>();
   Ptr<AllVrfStatusLocal> vrfs = make<AllVrfStatusLocal>();
   Ptr<PamStatus> pamStatus = make<PamStatus>();
   Ptr<PamSm> sm;

   ~PamSmTest() override { sm.reset(); }

   void start(bool withVrfTable = true) {
      sm = make<PamSm>(errConfig, probeConfig, withVrfTable ? vrfs : nullptr, pamStatus, factory);
   }
   void vrfStatus(const std::string& name, VrfState state, bool valid, NsInode inode) {
      auto s = vrfs->vrf.get(name);
      if (!s) {
         s = make<VrfStatusLocal>(VrfName(name));
         s->state.set(state);
         s->nsInodeValid.set(valid);
         s->nsInode.set(inode);
         vrfs->vrf.is(VrfName(name), s);
         return;
      }
      s->state.set(state);
      s->nsInodeValid.set(valid);
      s->nsInode.set(inode);
   }
   Ptr<FakePam> pam(const std::string& vrf, AddressFamily af) {
      return ptrCast<FakePam>(pamStatus->pamCollection()->pamGet({VrfName(vrf), af}));
   }
   bool hasPams(const std::string& vrf) {
      return pam(vrf, AddressFamily::ipv4) && pam(vrf, AddressFamily::ipv6) &&
             pamStatus->vrfStatus.has(VrfName(vrf));
   }
};

TEST_F(PamSmTest, DefaultVrfGetsProbePamsAtStart) {
   probeConfig->vrfIs(VrfName::defaultVrf());
   start();
   sched.runUntilIdle();
   auto v4 = pam("default", AddressFamily::ipv4);
   auto v6 = pam("default", AddressFamily::ipv6);
   ASSERT_TRUE(v4 && v6);
   EXPECT_TRUE(sameProgram(v4->filter, PamSm::v4ProbeFilter));
   EXPECT_TRUE(sameProgram(v6->filter, PamSm::v6ProbeFilter));
   for (auto& p : {v4, v6}) {
      EXPECT_EQ(p->options(), 0x408u);
      EXPECT_TRUE(p->enabled());
      EXPECT_EQ(p->netNs(), "");
   }
   EXPECT_EQ(v4->name(), "ipv4 vrf default");
   EXPECT_EQ(v4->protocol(), 1);
   EXPECT_EQ(v6->protocol(), 58);
   auto st = pamStatus->vrfStatus.get(VrfName::defaultVrf());
   ASSERT_TRUE(st);
   EXPECT_EQ(st->nsInode(), 0u);
   EXPECT_TRUE(st->probeEnabled());
   // Unchanged configuration: nothing to do.
   sm->handleVrf(VrfName::defaultVrf());
   EXPECT_EQ(sm->lastOperation(), PamSm::kNothing);
}

TEST_F(PamSmTest, OperationTable) {
   struct Case {
      const char* what;
      std::function<void(PamSmTest&)> before;  // after "red" has PAMs in inode 7
      PamSm::Operation op;
      bool pamsAfterRun;
      NsInode inodeAfterRun;
   };
   const Case cases[] = {
       {"unchanged", [](PamSmTest&) {}, PamSm::kNothing, true, 7},
       {"unconfigured", [](PamSmTest& t) { t.errConfig->vrfDel(VrfName("red")); }, PamSm::kRemove,
        false, 0},
       {"inactive", [](PamSmTest& t) { t.vrfStatus("red", VrfState::inactive, true, 7); },
        PamSm::kRemove, false, 0},
       {"inode invalid", [](PamSmTest& t) { t.vrfStatus("red", VrfState::active, false, 7); },
        PamSm::kRemove, false, 0},
       {"status gone", [](PamSmTest& t) { t.vrfs->vrf.del(VrfName("red")); }, PamSm::kRemove, false,
        0},
       {"new inode", [](PamSmTest& t) { t.vrfStatus("red", VrfState::active, true, 9); },
        PamSm::kRecreate, true, 9},
       {"probe role", [](PamSmTest& t) { t.probeConfig->vrfIs(VrfName("red")); }, PamSm::kRecreate,
        true, 7},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.what);
      sm.reset();
      errConfig->vrfDelAll();
      probeConfig->vrfDelAll();
      vrfs->vrf.delAll();
      pamStatus->vrfStatusDelAll();
      pamStatus->pamCollection()->pamDelAll();
      errConfig->vrfIs(VrfName("red"));
      vrfStatus("red", VrfState::active, true, 7);
      start();
      sched.runUntilIdle();
      ASSERT_TRUE(hasPams("red"));
      auto oldV4 = pam("red", AddressFamily::ipv4);
      EXPECT_TRUE(sameProgram(oldV4->filter, PamSm::dropAllFilter));
      EXPECT_EQ(oldV4->netNs(), "ns-red");

      c.before(*this);  // the reactors run handleVrf
      if (c.op == PamSm::kNothing)
         sm->handleVrf(VrfName("red"));
      EXPECT_EQ(sm->lastOperation(), c.op);
      if (c.op == PamSm::kRecreate || c.op == PamSm::kRemove) {
         // Removal is immediate, creation waits for the backlog task.
         EXPECT_FALSE(pam("red", AddressFamily::ipv4));
         EXPECT_FALSE(pamStatus->vrfStatus.has(VrfName("red")));
      }
      sched.runUntilIdle();
      EXPECT_EQ(hasPams("red"), c.pamsAfterRun);
      if (c.pamsAfterRun) {
         EXPECT_EQ(pamStatus->vrfStatus.get(VrfName("red"))->nsInode(), c.inodeAfterRun);
         EXPECT_EQ(pam("red", AddressFamily::ipv4) == oldV4, c.op == PamSm::kNothing);
      }
   }
}

TEST_F(PamSmTest, DefaultInBothConfigsIsOneVrf) {
   probeConfig->vrfIs(VrfName::defaultVrf());
   start();
   sched.runUntilIdle();
   size_t created = factory.created.size();
   errConfig->vrfIs(VrfName::defaultVrf());
   EXPECT_EQ(sm->lastOperation(), PamSm::kNothing);
   sched.runUntilIdle();
   EXPECT_EQ(factory.created.size(), created);
}

TEST_F(PamSmTest, EnoentIsRetriedEveryHalfSecondUntilTheNamespaceAppears) {
   errConfig->vrfIs(VrfName("red"));
   vrfStatus("red", VrfState::active, true, 7);
   factory.failNext("ns-red", AddressFamily::ipv4, ENOENT, 2);
   start();
   Seconds t0 = clock->now();
   sched.runUntilIdle();
   EXPECT_FALSE(hasPams("red"));
   EXPECT_TRUE(sm->failedPamHas(VrfName("red")));
   EXPECT_DOUBLE_EQ(sm->vrfRetryTask().currentExpirationTime(), t0 + 0.5);
   sched.advance(0.5);  // second failure re-arms
   EXPECT_FALSE(hasPams("red"));
   EXPECT_DOUBLE_EQ(sm->vrfRetryTask().currentExpirationTime(), t0 + 1.0);
   sched.advance(0.5);
   EXPECT_TRUE(hasPams("red"));
   EXPECT_FALSE(sm->failedPamHas(VrfName("red")));
   EXPECT_EQ(sm->vrfRetryTask().currentExpirationTime(), kNever);
}

TEST_F(PamSmTest, OneRetryPerExpiryAndSuccessDoesNotRearm) {
   for (auto* n : {"blue", "red"}) {
      errConfig->vrfIs(VrfName(n));
      vrfStatus(n, VrfState::active, true, 5);
      factory.failNext(std::string("ns-") + n, AddressFamily::ipv4, EINVAL, 1);
   }
   start();
   sched.runUntilIdle();
   EXPECT_EQ(sm->failedPam().size(), 2u);
   sched.advance(0.5);
   EXPECT_TRUE(hasPams("blue"));
   EXPECT_FALSE(hasPams("red"));
   EXPECT_EQ(sm->vrfRetryTask().currentExpirationTime(), kNever);
   sched.advance(5);
   EXPECT_FALSE(hasPams("red"));  // waits for some later failure to arm the timer
   // A VRF in the retry set that changes configuration is not queued again.
   probeConfig->vrfIs(VrfName("red"));
   EXPECT_FALSE(sm->vrfBacklogHas(VrfName("red")));
   // A later failure arms the timer again; its expiry takes the first name of the set.
   errConfig->vrfIs(VrfName("yellow"));
   vrfStatus("yellow", VrfState::active, true, 6);
   factory.failNext("ns-yellow", AddressFamily::ipv4, ENOENT, 1);
   sched.runUntilIdle();
   EXPECT_EQ(sm->failedPam(), (std::set<VrfName>{VrfName("red"), VrfName("yellow")}));
   sched.advance(0.5);
   ASSERT_TRUE(hasPams("red"));
   EXPECT_TRUE(pamStatus->vrfStatus.get(VrfName("red"))->probeEnabled());
   EXPECT_FALSE(hasPams("yellow"));
   EXPECT_EQ(sm->vrfRetryTask().currentExpirationTime(), kNever);
}

TEST_F(PamSmTest, Ipv6FailureLeavesNoIpv4PamBehind) {
   errConfig->vrfIs(VrfName("red"));
   vrfStatus("red", VrfState::active, true, 7);
   factory.failNext("ns-red", AddressFamily::ipv6, ENOENT, 1);
   start();
   sched.runUntilIdle();
   EXPECT_TRUE(pamStatus->pamCollection()->pam.empty());
   ASSERT_EQ(factory.created.size(), 1u);
   EXPECT_EQ(factory.created[0]->refCount(), 1u);  // only the factory's record holds it
}

TEST_F(PamSmTest, OtherErrnoPropagatesAndRecordsNothing) {
   errConfig->vrfIs(VrfName("red"));
   vrfStatus("red", VrfState::active, true, 7);
   factory.failNext("ns-red", AddressFamily::ipv4, EPERM, 1);
   start();
   try {
      sched.runUntilIdle();
      FAIL() << "expected Errno";
   } catch (const Errno& e) {
      EXPECT_EQ(e.errnoValue(), EPERM);
   }
   EXPECT_TRUE(pamStatus->pamCollection()->pam.empty());
   EXPECT_FALSE(sm->failedPamHas(VrfName("red")));
}

TEST_F(PamSmTest, BacklogYieldsResumesAtBookmarkAndLosesNothing) {
   const char* names[] = {"a", "b", "c", "d", "e"};
   for (auto* n : names) {
      errConfig->vrfIs(VrfName(n));
      vrfStatus(n, VrfState::active, true, 3);
   }
   sched.yieldPolicyIs(std::make_unique<test::YieldAfter>(
       2));  // two elements per run: the first is never asked about
   start();
   EXPECT_EQ(sm->vrfBacklog().size(), 5u);
   sched.runOnce(0);
   EXPECT_TRUE(hasPams("a") && hasPams("b") && !hasPams("c"));
   ASSERT_TRUE(sm->vrfBacklogBookmark());
   EXPECT_EQ(*sm->vrfBacklogBookmark(), VrfName("c"));
   EXPECT_EQ(sm->vrfBacklogTask().pendingWork(), 3u);
   // A name that sorts before the bookmark arrives between runs.
   errConfig->vrfIs(VrfName("0"));
   vrfStatus("0", VrfState::active, true, 3);
   sched.runUntilIdle();
   for (auto* n : {"0", "a", "b", "c", "d", "e"})
      EXPECT_TRUE(hasPams(n)) << n;
   EXPECT_FALSE(sm->vrfBacklogBookmark());
   EXPECT_EQ(sm->vrfBacklogTask().workCount(), 6u);
}

TEST_F(PamSmTest, WithoutVrfTableOnlyDefaultGetsPams) {
   probeConfig->vrfIs(VrfName::defaultVrf());
   errConfig->vrfIs(VrfName("red"));
   start(false);
   sched.runUntilIdle();
   EXPECT_TRUE(hasPams("default"));
   EXPECT_FALSE(hasPams("red"));
}

TEST_F(PamSmTest, RemovedWhileQueuedIsProcessedOnceAndCreatesNothing) {
   errConfig->vrfIs(VrfName("red"));
   vrfStatus("red", VrfState::active, true, 7);
   start();
   errConfig->vrfDel(VrfName("red"));
   sched.runUntilIdle();
   EXPECT_FALSE(hasPams("red"));
   EXPECT_TRUE(factory.created.empty());
}

TEST_F(PamSmTest, ActiveVrfWithZeroInodeIsFatal) {
   errConfig->vrfIs(VrfName("red"));
   vrfStatus("red", VrfState::active, true, 7);
   start();
   sched.runUntilIdle();
   EXPECT_DEATH(vrfStatus("red", VrfState::active, true, 0), "nsInode.value\\(\\)");
}

}  // namespace
}  // namespace Ravel
