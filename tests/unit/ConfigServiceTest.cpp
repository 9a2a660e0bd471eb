#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/config/ConfigService.h"

namespace Ravel {
namespace {

const char* kBase = R"(probe: {enabled: true, ifname: true}
error-responder:
  enabled: true
  ring-buffer-size: 65536
  vrfs:
    default: {}
    red: {enabled: true, ipv4-acl: EDGE}
    blue: {enabled: false}
acls:
  ipv4:
    EDGE: [{action: permit, source: 10.0.0.0/8}]
    OTHER: []
)";

struct ConfigServiceFile : ::testing::Test {
   std::string dir;
   std::string file;
   Scheduler sched;
   Ptr<EntityManager> em = make<EntityManager>();

   void SetUp() override {
      char tmpl[] = "/tmp/ravel-cfgsvc-XXXXXX";
      ASSERT_TRUE(::mkdtemp(tmpl));
      dir = tmpl;
      file = dir + "/ravel.yaml";
   }
   void TearDown() override {
      if (!dir.empty())
         std::filesystem::remove_all(dir);
   }

   // As editors do: write aside, rename into place.
   void replace(const std::string& text) {
      std::ofstream(file + ".tmp") << text;
      std::filesystem::rename(file + ".tmp", file);
   }
   bool runUntil(const std::function<bool()>& done) {
      for (int i = 0; i < 40 && !done(); ++i)
         sched.runOnce(0.05);
      return done();
   }
   Ptr<ErrorResponder::Config> er() {
      return em->entityAs<ErrorResponder::Config>("icmp/errorResponder/config");
   }
};

TEST_F(ConfigServiceFile, ReloadWritesOnlyWhatChanged) {
   replace(kBase);
   ConfigService svc(sched, em, file);
   auto er = this->er();
   auto probe = em->entityAs<ProbeResponder::Config>("icmp/probe/config");
   auto ebpf = em->entityAs<ErrorResponder::EbpfConfig>("icmp/errorResponder/ebpfConfig");
   auto cli = em->entityAs<AclConfig>("acl/config/cli");
   auto input = em->entityAs<AclInput>("acl/config/input");
   ASSERT_TRUE(er && probe && ebpf && cli && input);
   EXPECT_EQ(ebpf->ringBufSz(), 65536u);
   EXPECT_FALSE(input->ipv4->acl.map().empty());
   EXPECT_TRUE(cli->ipv4->acl.map().empty());  // the operator's, not the file's
   auto red = er->vrfConfig.get("red"), blue = er->vrfConfig.get("blue");
   ASSERT_TRUE(red && blue);

   std::vector<std::string> events;
   auto log = [&](const std::string& what) { return [&events, what] { events.push_back(what); }; };
   std::vector<Subscription> subs;
   subs.push_back(er->vrfConfig.subscribe([&](const VrfName& n) { events.push_back(n.str()); }));
   subs.push_back(red->enabled.subscribe(log("red.enabled")));
   subs.push_back(red->v4AclName.subscribe(log("red.v4AclName")));
   subs.push_back(blue->enabled.subscribe(log("blue.enabled")));
   subs.push_back(probe->ifname.subscribe(log("probe.ifname")));
   subs.push_back(ebpf->ringBufSz.subscribe(log("ringBufSz")));
   subs.push_back(input->ipv4->acl.subscribe([&](const std::string& n) { events.push_back(n); }));

   // Same file: nothing moves.
   EXPECT_TRUE(svc.reload());
   EXPECT_TRUE(events.empty());

   // VRF default dropped, red re-pointed, OTHER changed, EDGE dropped; the rest as it was.
   const std::string next = R"(probe: {enabled: true, ifname: true}
error-responder:
  enabled: true
  ring-buffer-size: 65536
  vrfs:
    red: {enabled: true, ipv4-acl: OTHER}
    blue: {enabled: false}
acls:
  ipv4:
    OTHER: [{action: deny}]
)";
   replace(next);
   EXPECT_TRUE(svc.reload());
   EXPECT_EQ(events, (std::vector<std::string>{"OTHER", "default", "red.v4AclName", "EDGE"}));
   EXPECT_EQ(er->vrfConfig.get("red"), red);  // updated in place
   EXPECT_EQ(er->vrfConfig.get("blue"), blue);
   EXPECT_EQ(red->v4AclName(), "OTHER");
   EXPECT_TRUE(cli->ipv4->acl.map().empty());
   EXPECT_EQ(svc.renderConfig(), renderConfig(parseConfigText(next, "n.yaml")));
}

TEST_F(ConfigServiceFile, BadReloadKeepsTheRunningConfiguration) {
   replace(kBase);
   ConfigService svc(sched, em, file);
   std::string before = svc.renderConfig();
   int changes = 0;
   auto sub = er()->vrfConfig.subscribe([&](const VrfName&) { ++changes; });

   // The error sits after a change that must not be applied either.
   replace("error-responder:\n  vrfs: {}\nprobe:\n  ifname: perhaps\n");
   EXPECT_FALSE(svc.reload());
   EXPECT_EQ(svc.lastError(), file + ":4: expected a boolean, got \"perhaps\" (key probe.ifname)");
   EXPECT_EQ(changes, 0);
   EXPECT_EQ(svc.renderConfig(), before);
   std::filesystem::remove(file);
   EXPECT_FALSE(svc.reload());
   EXPECT_EQ(svc.lastError(), file + ": cannot read: No such file or directory");
   EXPECT_EQ(svc.renderConfig(), before);

   replace("probe: {enabled: true}\n");
   EXPECT_TRUE(svc.reload());
   EXPECT_EQ(svc.lastError(), "");
   EXPECT_EQ(changes, 3);
   EXPECT_TRUE(em->entityAs<AclInput>("acl/config/input")->ipv4->acl.empty());
}

TEST_F(ConfigServiceFile, FileChangesReloadThroughTheScheduler) {
   replace(kBase);
   ConfigService svc(sched, em, file);
   auto probe = em->entityAs<ProbeResponder::Config>("icmp/probe/config");
   ASSERT_TRUE(probe->ifname());

   replace("probe: {enabled: true}\n");  // rename into place
   EXPECT_TRUE(runUntil([&] { return !probe->ifname(); }));
   EXPECT_TRUE(er()->vrfConfig.empty());

   std::ofstream(file) << "probe: {enabled: true, remote: true}\n";  // written in place
   EXPECT_TRUE(runUntil([&] { return probe->remote(); }));

   std::ofstream(file) << "probe: {remote: 7}\n";
   EXPECT_TRUE(runUntil([&] { return !svc.lastError().empty(); }));
   EXPECT_TRUE(probe->remote());
}

TEST_F(ConfigServiceFile, StartUp) {
   EXPECT_THROW((ConfigService{sched, em, file}), ConfigError);
   EXPECT_TRUE(em->entities().empty());  // nothing mounted for a configuration never loaded

   ConfigService none(sched, em, "");
   auto probe = em->entityAs<ProbeResponder::Config>("icmp/probe/config");
   ASSERT_TRUE(probe && er());
   EXPECT_FALSE(probe->enabled());
   EXPECT_FALSE(er()->enabled().isSet);
   EXPECT_TRUE(none.reload());
}

}  // namespace
}  // namespace Ravel
