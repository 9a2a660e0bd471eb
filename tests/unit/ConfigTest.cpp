#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "error/ErrorResponderSchema.h"
#include "host/config/ConfigFile.h"
#include "host/config/ConfigService.h"
#include "platform/store/Acl.h"
#include "probe/ProbeSchema.h"

namespace Ravel {
namespace {

const char* kFull = R"(probe:
  enabled: true
  ifname: true
  ifindex: false
  ifaddr: true
  remote: true
  max-queue-length: 64
error-responder:
  enabled: false
  add-host-name: true
  node-id-code-point: 7
  ring-buffer-size: 65536
  vrf-map-size: 128
  vrfs:
    default: {}
    red:
      enabled: true
      ipv4-acl: EDGE
      ipv6-acl: EDGE6
      node-id: { ipv4: 192.0.2.1, ipv6: "2001:db8::1", interface: lo }
acls:
  ipv4:
    EDGE:
      - { action: permit, source: 10.0.0.0/8, destination: any, protocol: udp }
      - { action: deny, source: any, protocol: 50 }
  ipv6:
    EDGE6: []
)";

TEST(ConfigFile, FullFileAndDefaults) {
   RavelConfig c = parseConfigText(kFull, "f.yaml");
   EXPECT_EQ(c.probe, (ProbeSettings{true, true, false, true, true, 64}));
   EXPECT_EQ(c.errorResponder.enabled, ErrorResponder::TriState::of(false));
   EXPECT_TRUE(c.errorResponder.addHostName);
   EXPECT_EQ(c.errorResponder.nodeIdCodePoint, 7);
   EXPECT_EQ(c.errorResponder.ringBufferSize, 65536u);
   const auto& red = c.errorResponder.vrfs.at(VrfName("red"));
   EXPECT_EQ(red.enabled, ErrorResponder::TriState::of(true));
   EXPECT_EQ(red.ipv4Acl, "EDGE");
   EXPECT_EQ(red.nodeId.ipv6.str(), "2001:db8::1");
   EXPECT_EQ(red.nodeId.interface.str(), "lo");
   EXPECT_FALSE(c.errorResponder.vrfs.at(VrfName::defaultVrf()).enabled.isSet);
   const auto& edge = c.ipv4Acls.at("EDGE");
   ASSERT_EQ(edge.rules.size(), 2u);
   EXPECT_EQ(edge.rules[0].protocol, uint8_t{17});
   EXPECT_EQ(edge.rules[0].source.str(), "10.0.0.0/8");
   EXPECT_EQ(edge.rules[1].protocol, uint8_t{50});
   EXPECT_TRUE(c.ipv6Acls.at("EDGE6").rules.empty());

   // Round trip through the rendering used by "show config".
   EXPECT_EQ(parseConfigText(renderConfig(c), "r.yaml"), c);
   // Nothing configured: everything off, tri-states unset.
   RavelConfig empty = parseConfigText("", "e.yaml");
   EXPECT_EQ(empty, RavelConfig{});
   EXPECT_FALSE(empty.probe.enabled);
   EXPECT_EQ(empty.probe.maxQueueLength, 1024u);
   EXPECT_FALSE(empty.errorResponder.enabled.isSet);
}

TEST(ConfigFile, BadFilesNameFileLineAndKey) {
   const std::string longVrf(101, 'v');
   struct Case {
      std::string text;
      std::string message;
   };
   const Case cases[] = {
       {"probes: {}\n", "f.yaml:1: unknown key \"probes\" (key probes)"},
       {"probe:\n  enabled: true\n  colour: red\n",
        "f.yaml:3: unknown key \"colour\" (key probe.colour)"},
       {"probe:\n  ifname: maybe\n",
        "f.yaml:2: expected a boolean, got \"maybe\" (key probe.ifname)"},
       {"probe:\n  - enabled\n", "f.yaml:2: expected a map, got a list (key probe)"},
       {"probe: {max-queue-length: -1}\n",
        "f.yaml:1: expected a number from 0 to 4294967295, got \"-1\" (key "
        "probe.max-queue-length)"},
       {"error-responder:\n  node-id-code-point: 256\n",
        "f.yaml:2: expected a number from 0 to 255, got \"256\" (key "
        "error-responder.node-id-code-point)"},
       {"error-responder:\n  vrfs:\n    red:\n      node-id: {ipv4: 192.0.2.300}\n",
        "f.yaml:4: expected an ipv4 address, got \"192.0.2.300\" (key "
        "error-responder.vrfs.red.node-id.ipv4)"},
       {"error-responder:\n  vrfs:\n    red:\n      node-id: {ipv4: \"2001:db8::1\"}\n",
        "f.yaml:4: expected an ipv4 address, got \"2001:db8::1\" (key "
        "error-responder.vrfs.red.node-id.ipv4)"},
       {"error-responder:\n  vrfs:\n    " + longVrf + ": {}\n",
        "f.yaml:3: VRF name longer than 100 bytes (key error-responder.vrfs." + longVrf + ")"},
       {"acls:\n  ipv4:\n    A:\n      - {action: allow}\n",
        "f.yaml:4: expected permit or deny, got \"allow\" (key acls.ipv4.A[0].action)"},
       {"acls:\n  ipv4:\n    A:\n      - {action: deny, source: 10.0.0.1/8}\n",
        "f.yaml:4: expected \"any\" or an ipv4 prefix without host bits, got \"10.0.0.1/8\" (key "
        "acls.ipv4.A[0].source)"},
       {"acls:\n  ipv6:\n    A:\n      - {action: deny, destination: 10.0.0.0/8}\n",
        "f.yaml:4: expected \"any\" or an ipv6 prefix without host bits, got \"10.0.0.0/8\" (key "
        "acls.ipv6.A[0].destination)"},
       {"acls:\n  ipv4:\n    A:\n      - {source: any}\n",
        "f.yaml:4: a rule needs an action (key acls.ipv4.A[0].action)"},
   };
   for (auto& c : cases) {
      try {
         parseConfigText(c.text, "f.yaml");
         ADD_FAILURE() << "accepted: " << c.text;
      } catch (const ConfigError& e) {
         EXPECT_EQ(e.what(), c.message);
      }
   }
   // 100 bytes is the longest name allowed.
   EXPECT_NO_THROW(
       parseConfigText("error-responder: {vrfs: {" + std::string(100, 'v') + ": {}}}", "f.yaml"));
   // Syntax errors come from the YAML parser with their line.
   try {
      parseConfigText("probe:\n  enabled: [true\n", "f.yaml");
      ADD_FAILURE();
   } catch (const ConfigError& e) {
      EXPECT_EQ(std::string(e.what()).rfind("f.yaml:", 0), 0u) << e.what();
   }
}

std::vector<uint8_t> v4Header(uint8_t proto, const char* src, const char* dst) {
   std::vector<uint8_t> h(20, 0);
   h[0] = 0x45;
   h[9] = proto;
   IpGenAddr s = *IpGenAddr::parse(src), d = *IpGenAddr::parse(dst);
   std::copy(s.bytes().begin(), s.bytes().end(), h.begin() + 12);
   std::copy(d.bytes().begin(), d.bytes().end(), h.begin() + 16);
   return h;
}

std::vector<uint8_t> v6Header(uint8_t next, const char* src, const char* dst) {
   std::vector<uint8_t> h(40, 0);
   h[0] = 0x60;
   h[6] = next;
   IpGenAddr s = *IpGenAddr::parse(src), d = *IpGenAddr::parse(dst);
   std::copy(s.bytes().begin(), s.bytes().end(), h.begin() + 8);
   std::copy(d.bytes().begin(), d.bytes().end(), h.begin() + 24);
   return h;
}

TEST(Acl, FirstMatchWinsOnHeaderFields) {
   auto c = parseConfigText(R"(acls:
  ipv4:
    A:
      - { action: deny, source: 10.1.0.0/16, protocol: udp }
      - { action: permit, source: 10.0.0.0/8 }
      - { action: deny, destination: 192.0.2.7/32 }
  ipv6:
    B:
      - { action: permit, source: "2001:db8:1::/48", protocol: 58 }
      - { action: deny, destination: "2001:db8::7/128" }
      - { action: permit, source: "fd00::/64" }
)",
                            "a.yaml");
   const AclList& a = c.ipv4Acls.at("A");
   const AclList& b = c.ipv6Acls.at("B");
   struct Case {
      std::vector<uint8_t> hdr;
      bool v6;
      bool matched;
      AclAction action;
   };
   const Case cases[] = {
       {v4Header(17, "10.1.2.3", "192.0.2.1"), false, true, AclAction::deny},
       {v4Header(6, "10.1.2.3", "192.0.2.1"), false, true, AclAction::permit},
       {v4Header(17, "10.2.2.3", "192.0.2.7"), false, true, AclAction::permit},
       {v4Header(17, "11.0.0.1", "192.0.2.7"), false, true, AclAction::deny},
       {v4Header(17, "11.0.0.1", "192.0.2.8"), false, false, AclAction::deny},
       {v6Header(58, "2001:db8:1:2::1", "2001:db8::7"), true, true, AclAction::permit},
       {v6Header(17, "2001:db8:1:2::1", "2001:db8::7"), true, true, AclAction::deny},
       {v6Header(17, "fd00::1", "2001:db8::8"), true, true, AclAction::permit},
       {v6Header(17, "fd00:0:0:1::1", "2001:db8::8"), true, false, AclAction::deny},
   };
   for (size_t i = 0; i < std::size(cases); ++i) {
      const Case& k = cases[i];
      SCOPED_TRACE(i);
      AclMatch m = k.v6 ? matchesIp6Acl(b, k.hdr) : matchesIpAcl(a, k.hdr);
      EXPECT_EQ(m.matched, k.matched);
      if (m.matched) {
         EXPECT_EQ(m.action, k.action);
      }
   }
   // Truncated or foreign headers never match.
   auto h = v4Header(17, "10.1.2.3", "192.0.2.1");
   EXPECT_FALSE(matchesIpAcl(a, std::span<const uint8_t>(h).first(19)).matched);
   EXPECT_FALSE(matchesIp6Acl(b, h).matched);
   auto h6 = v6Header(58, "2001:db8:1::1", "::1");
   EXPECT_FALSE(matchesIpAcl(a, h6).matched);
}

struct ConfigServiceTest : ::testing::Test {
   std::filesystem::path dir =
       std::filesystem::temp_directory_path() / ("ravel-cfg-" + std::to_string(getpid()));
   std::filesystem::path file = dir / "ravel.yaml";
   Scheduler sched;
   Ptr<EntityManager> em = make<EntityManager>();
   ConfigServiceTest() { std::filesystem::create_directories(dir); }
   ~ConfigServiceTest() override { std::filesystem::remove_all(dir); }
   void write(const std::string& text) {
      std::ofstream(file.string() + ".tmp") << text;
      std::filesystem::rename(file.string() + ".tmp", file);  // as editors do
   }
   bool runUntil(const std::function<bool()>& done) {
      for (int i = 0; i < 40 && !done(); ++i)
         sched.runOnce(0.05);
      return done();
   }
};

TEST_F(ConfigServiceTest, AppliesOnlyChangesAndKeepsTheOldConfigOnErrors) {
   write(kFull);
   ConfigService svc(sched, em, file.string());
   auto er = em->entityAs<ErrorResponder::Config>("icmp/errorResponder/config");
   auto probe = em->entityAs<ProbeResponder::Config>("icmp/probe/config");
   ASSERT_TRUE(er && probe);
   auto red = er->vrfConfig.get(VrfName("red"));
   ASSERT_TRUE(red);
   std::vector<std::string> vrfEvents;
   int redEnabledEvents = 0, ifnameEvents = 0;
   auto s1 = er->vrfConfig.subscribe([&](const VrfName& n) { vrfEvents.push_back(n.str()); });
   auto s2 = red->enabled.subscribe([&] { ++redEnabledEvents; });
   auto s3 = probe->ifname.subscribe([&] { ++ifnameEvents; });

   // Drop VRF default, disable red, leave the probe section alone.
   std::string next = kFull;
   next.replace(next.find("    default: {}\n"), 16, "");
   next.replace(next.find("      enabled: true\n      ipv4-acl"), 19, "      enabled: false");
   write(next);
   ASSERT_TRUE(runUntil([&] { return !er->vrfConfig.has(VrfName::defaultVrf()); }));
   EXPECT_EQ(vrfEvents, std::vector<std::string>{"default"});
   EXPECT_EQ(er->vrfConfig.get(VrfName("red")), red);  // same object, updated in place
   EXPECT_EQ(redEnabledEvents, 1);
   EXPECT_EQ(ifnameEvents, 0);

   write("probe:\n  ifname: perhaps\n");
   EXPECT_TRUE(runUntil([&] { return !svc.lastError().empty(); }));
   EXPECT_NE(svc.lastError().find("expected a boolean"), std::string::npos);
   EXPECT_TRUE(probe->ifname());
   EXPECT_TRUE(er->vrfConfig.has(VrfName("red")));
   EXPECT_FALSE(svc.reload());

   write("probe: {enabled: true}\n");
   EXPECT_TRUE(svc.reload());
   EXPECT_FALSE(probe->ifname());
   EXPECT_TRUE(er->vrfConfig.empty());
   auto acls = em->entityAs<AclConfig>("acl/config/cli");
   ASSERT_TRUE(acls);
   EXPECT_TRUE(acls->ipv4->acl.empty());
}

TEST_F(ConfigServiceTest, MissingFileIsAnErrorButNoFileIsNot) {
   EXPECT_THROW(ConfigService(sched, em, (dir / "absent.yaml").string()), ConfigError);
   ConfigService none(sched, em, "");
   auto probe = em->entityAs<ProbeResponder::Config>("icmp/probe/config");
   ASSERT_TRUE(probe);
   EXPECT_FALSE(probe->enabled());
}

}  // namespace
}  // namespace Ravel
