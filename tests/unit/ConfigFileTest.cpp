#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "host/config/ConfigFile.h"

namespace Ravel {
namespace {

using ErrorResponder::TriState;

IpGenAddr addr(const char* s) {
   return *IpGenAddr::parse(s);
}

AclRule rule(AclAction a, const char* src, const char* dst, std::optional<uint8_t> proto,
             AddressFamily af) {
   return {a, *IpPrefix::parse(src, af), *IpPrefix::parse(dst, af), proto};
}

std::string errorOf(const std::function<void()>& fn) {
   try {
      fn();
   } catch (const ConfigError& e) {
      return e.what();
   }
   return "accepted";
}

TEST(ConfigFileParse, GoodFiles) {
   constexpr auto v4 = AddressFamily::ipv4;
   constexpr auto v6 = AddressFamily::ipv6;
   struct Case {
      std::string text;
      std::function<void(RavelConfig&)> expect;  // applied to a default configuration
   };
   const Case cases[] = {
       // RFC 8335 section 6: nothing answers unless configured.
       {"probe:\n", [](RavelConfig& c) { c.probe = {false, false, false, false, false, 1024}; }},
       {"probe: {enabled: yes, ifname: on, ifindex: true, remote: True, max-queue-length: 0}\n",
        [](RavelConfig& c) { c.probe = {true, true, true, false, true, 0}; }},
       {"error-responder:\n  enabled: false\n  add-host-name: true\n  node-id-code-point: 255\n"
        "  ring-buffer-size: 65536\n  vrf-map-size: 4294967295\n",
        [](RavelConfig& c) {
           c.errorResponder = {TriState::of(false), true, 255, 65536, 4294967295u, {}};
        }},
       {"probe:\n  sources: {ifname: NOC, remote: ~}\n"
        "  rate-limit: {rate: 100, burst: 200, per-source-rate: 5, ipv6-prefix-length: 48}\n"
        "  vrfs: {red: {}, blue: {enabled: false, ifname: true, remote: ~}}\n",
        [](RavelConfig& c) {
           c.probe.sources.ifname = "NOC";
           c.probe.rateLimit = {100, 200, 5, 0, 24, 48};
           c.probe.vrfs[VrfName("red")] = {};
           c.probe.vrfs[VrfName("blue")] = {false, true, std::nullopt, std::nullopt, std::nullopt};
        }},
       {"error-responder:\n  suppress-kernel-errors: false\n",
        [](RavelConfig& c) { c.errorResponder.suppressKernelErrors = false; }},
       {"error-responder:\n  enabled: ~\n  vrfs:\n    default:\n    " + std::string(100, 'v') +
            ":\n      enabled: true\n      ipv4-acl: EDGE\n      ipv6-acl: ~\n"
            "      node-id: { ipv4: 192.0.2.1, ipv6: \"2001:db8::1\", interface: red/eth0 }\n"
            "    red: {node-id: {ipv4: ~, interface: default/lo}}\n",
        [](RavelConfig& c) {
           c.errorResponder.vrfs[VrfName::defaultVrf()] = {};
           c.errorResponder.vrfs[VrfName(std::string(100, 'v'))] = {
               TriState::of(true),
               "EDGE",
               "",
               {addr("192.0.2.1"), addr("2001:db8::1"), IntfId("red/eth0")}};
           c.errorResponder.vrfs["red"].nodeId.interface = IntfId("lo");
        }},
       {"error-responder:\n  vrfs:\n    red:\n      interface-info:\n"
        "        {incoming: [name], outgoing: [ifindex, address, mtu], next-hop: [address]}\n",
        [](RavelConfig& c) {
           c.errorResponder.vrfs["red"].interfaceInfo = {
               {false, false, true, false}, {true, true, false, true}, {false, true, false, false}};
        }},
       {"acls:\n  ipv4:\n    EDGE:\n"
        "      - { action: deny, source: 10.1.0.0/16, destination: 192.0.2.7, protocol: udp }\n"
        "      - { action: permit, source: 0.0.0.0/0, protocol: 50 }\n"
        "      - { action: deny, protocol: any }\n"
        "  ipv6:\n    EDGE6:\n    ALL: [{ action: permit, destination: \"::/0\", protocol: icmpv6 "
        "}]\n"
        "---\n",  // an empty trailing document is no second configuration
        [](RavelConfig& c) {
           c.ipv4Acls["EDGE"] = {"EDGE",
                                 v4,
                                 {rule(AclAction::deny, "10.1.0.0/16", "192.0.2.7/32", 17, v4),
                                  rule(AclAction::permit, "any", "any", 50, v4),
                                  rule(AclAction::deny, "any", "any", std::nullopt, v4)}};
           c.ipv6Acls["EDGE6"] = {"EDGE6", v6, {}};
           c.ipv6Acls["ALL"] = {"ALL", v6, {rule(AclAction::permit, "any", "any", 58, v6)}};
        }},
   };
   for (const auto& k : cases) {
      SCOPED_TRACE(k.text);
      RavelConfig expected;
      k.expect(expected);
      try {
         EXPECT_EQ(parseConfigText(k.text, "f.yaml"), expected);
      } catch (const ConfigError& e) {
         ADD_FAILURE() << e.what();
      }
   }
}

TEST(ConfigFileParse, BadFilesGiveFileLineAndKey) {
   const std::string page = std::to_string(::sysconf(_SC_PAGESIZE));
   const std::string longName(101, 'v');
   struct Case {
      std::string text;
      std::string message;
   };
   const Case cases[] = {
       {"hello\n", "f.yaml:1: expected a map at the top level, got \"hello\""},
       {"probes: {}\n", "f.yaml:1: unknown key \"probes\" (key probes)"},
       {"probe:\n  enabled: true\n  colour: red\n",
        "f.yaml:3: unknown key \"colour\" (key probe.colour)"},
       {"probe:\n  enabled: true\n  enabled: false\n",
        "f.yaml:3: duplicate key \"enabled\" (key probe.enabled)"},
       {"probe: {[a]: 1}\n", "f.yaml:1: expected a name as key, got a list (key probe)"},
       {"probe:\n  ifname: yes please\n",
        "f.yaml:2: expected a boolean, got \"yes please\" (key probe.ifname)"},
       {"probe:\n  ifname: \"a\\nb\\tc\"\n",
        "f.yaml:2: expected a boolean, got \"a\\nb\\x09c\" (key probe.ifname)"},
       // An empty value belongs to its key's line, not the next one.
       {"probe:\n  ifname:\n  ifaddr: true\n",
        "f.yaml:2: expected a boolean, got nothing (key probe.ifname)"},
       {"probe:\n  - enabled\n", "f.yaml:2: expected a map, got a list (key probe)"},
       {"probe: {max-queue-length: -1}\n",
        "f.yaml:1: expected a number from 0 to 4294967295, got \"-1\" (key "
        "probe.max-queue-length)"},
       {"probe: {max-queue-length: 4294967296}\n",
        "f.yaml:1: expected a number from 0 to 4294967295, got \"4294967296\" (key "
        "probe.max-queue-length)"},
       {"error-responder:\n  enabled: sometimes\n",
        "f.yaml:2: expected a boolean, got \"sometimes\" (key error-responder.enabled)"},
       {"error-responder:\n  node-id-code-point: 256\n",
        "f.yaml:2: expected a number from 0 to 255, got \"256\" (key "
        "error-responder.node-id-code-point)"},
       {"error-responder:\n  ring-buffer-size: 12288\n",
        "f.yaml:2: expected 0 or a power of two multiple of " + page +
            ", got \"12288\" (key error-responder.ring-buffer-size)"},
       {"error-responder:\n  vrfs:\n    " + longName + ": {}\n",
        "f.yaml:3: VRF name longer than 100 bytes (key error-responder.vrfs." + longName + ")"},
       {"error-responder:\n  vrfs:\n    \"\": {}\n",
        "f.yaml:3: empty VRF name (key error-responder.vrfs.)"},
       {"error-responder:\n  vrfs:\n    a/b: {}\n",
        "f.yaml:3: VRF name with \"/\" (key error-responder.vrfs.a/b)"},
       {"error-responder:\n  vrfs:\n    red:\n      ipv4-acl: \"\"\n",
        "f.yaml:4: empty ACL name (key error-responder.vrfs.red.ipv4-acl)"},
       {"error-responder:\n  vrfs:\n    red:\n      ipv6-acl: [A]\n",
        "f.yaml:4: expected a string, got a list (key error-responder.vrfs.red.ipv6-acl)"},
       {"error-responder:\n  vrfs:\n    red:\n      node-id: {ipv4: \"2001:db8::1\"}\n",
        "f.yaml:4: expected an ipv4 address, got \"2001:db8::1\" (key "
        "error-responder.vrfs.red.node-id.ipv4)"},
       {"error-responder:\n  vrfs:\n    red:\n      node-id: {interface: \"e 0\"}\n",
        "f.yaml:4: bad interface name \"e 0\": invalid character 0x20 in interface name (key "
        "error-responder.vrfs.red.node-id.interface)"},
       {"error-responder:\n  vrfs:\n    red:\n      interface-info: {next-hop: [address, mtu]}\n",
        "f.yaml:4: expected address, got \"mtu\" (key "
        "error-responder.vrfs.red.interface-info.next-hop[1])"},
       {"error-responder:\n  vrfs:\n    red:\n      interface-info: {incoming: name}\n",
        "f.yaml:4: expected a list of sub-objects, got \"name\" (key "
        "error-responder.vrfs.red.interface-info.incoming)"},
       {"acls:\n  ipv4:\n    \"\": []\n", "f.yaml:3: empty ACL name (key acls.ipv4.)"},
       {"acls:\n  ipv4:\n    A: {action: deny}\n",
        "f.yaml:3: expected a list of rules, got a map (key acls.ipv4.A)"},
       {"acls:\n  ipv4:\n    A:\n      - deny\n",
        "f.yaml:4: expected a map, got \"deny\" (key acls.ipv4.A[0])"},
       {"acls:\n  ipv4:\n    A:\n      - {action: permit}\n      - {source: any}\n",
        "f.yaml:5: a rule needs an action (key acls.ipv4.A[1].action)"},
       {"acls:\n  ipv4:\n    A:\n      - {action: allow}\n",
        "f.yaml:4: expected permit or deny, got \"allow\" (key acls.ipv4.A[0].action)"},
       {"acls:\n  ipv4:\n    A:\n      - {action: deny, source: 10.0.0.1/8}\n",
        "f.yaml:4: expected \"any\" or an ipv4 prefix without host bits, got \"10.0.0.1/8\" (key "
        "acls.ipv4.A[0].source)"},
       {"acls:\n  ipv6:\n    A:\n      - {action: deny, destination: 10.0.0.0/8}\n",
        "f.yaml:4: expected \"any\" or an ipv6 prefix without host bits, got \"10.0.0.0/8\" (key "
        "acls.ipv6.A[0].destination)"},
       {"acls:\n  ipv4:\n    A:\n      - {action: deny, protocol: sctp}\n",
        "f.yaml:4: expected any, icmp, tcp, udp, icmpv6 or a number from 0 to 255, got \"sctp\" "
        "(key acls.ipv4.A[0].protocol)"},
       {"probe: {}\n---\nprobe: {enabled: true}\n", "f.yaml:3: more than one YAML document"},
   };
   for (const auto& k : cases)
      EXPECT_EQ(errorOf([&] { parseConfigText(k.text, "f.yaml"); }), k.message) << k.text;
}

TEST(ConfigFileParse, SyntaxAndFileErrors) {
   std::string m = errorOf(
       [] { parseConfigText("probe:\n  enabled: true\n   ifname: true\nacls: {}\n", "f.yaml"); });
   EXPECT_EQ(m.rfind("f.yaml:3: YAML syntax error: ", 0), 0u) << m;
   EXPECT_EQ(m.find('\n'), std::string::npos) << m;

   char tmpl[] = "/tmp/ravel-cfgfile-XXXXXX";
   ASSERT_TRUE(::mkdtemp(tmpl));
   const std::string dir = tmpl;
   EXPECT_EQ(errorOf([&] { parseConfigFile(dir + "/absent.yaml"); }),
             dir + "/absent.yaml: cannot read: No such file or directory");
   // A directory must not read as an empty, valid configuration.
   EXPECT_EQ(errorOf([&] { parseConfigFile(dir); }), dir + ": cannot read: not a regular file");
   std::ofstream(dir + "/bad.yaml") << "probe:\n  remote: 2\n";
   EXPECT_EQ(errorOf([&] { parseConfigFile(dir + "/bad.yaml"); }),
             dir + "/bad.yaml:2: expected a boolean, got \"2\" (key probe.remote)");
   std::filesystem::remove_all(dir);
}

TEST(ConfigFileRender, DefaultsWrittenOutAndRoundTrip) {
   RavelConfig c;
   c.errorResponder.vrfs["red"].ipv4Acl = "EDGE";
   c.errorResponder.vrfs["red"].nodeId.ipv6 = addr("2001:db8::1");
   c.ipv6Acls["E6"] = {"E6",
                       AddressFamily::ipv6,
                       {rule(AclAction::deny, "2001:db8::/32", "any", 58, AddressFamily::ipv6),
                        rule(AclAction::permit, "any", "::1", 99, AddressFamily::ipv6)}};
   EXPECT_EQ(renderConfig(c), R"(probe:
  enabled: false
  ifname: false
  ifindex: false
  ifaddr: false
  remote: false
  max-queue-length: 1024
  sources: {ifname: ~, ifindex: ~, ifaddr: ~, remote: ~}
  rate-limit: {rate: 0, burst: 0, per-source-rate: 0, per-source-burst: 0, ipv4-prefix-length: 24, ipv6-prefix-length: 64}
  vrfs:
    {}
error-responder:
  enabled: ~
  add-host-name: false
  node-id-code-point: 0
  ring-buffer-size: 0
  vrf-map-size: 0
  suppress-kernel-errors: true
  vrfs:
    red:
      enabled: ~
      ipv4-acl: EDGE
      ipv6-acl: ~
      node-id: {ipv4: ~, ipv6: 2001:db8::1, interface: ~}
      interface-info: {incoming: [ifindex, address, name, mtu], outgoing: [], next-hop: []}
acls:
  ipv4:
    {}
  ipv6:
    E6:
      - {action: deny, source: 2001:db8::/32, destination: any, protocol: icmpv6}
      - {action: permit, source: any, destination: ::1/128, protocol: 99}
)");
   EXPECT_EQ(parseConfigText(renderConfig(c), "r.yaml"), c);

   // The shipped example is valid and survives "show config" unchanged.
   RavelConfig example = parseConfigFile(RAVEL_TEST_PROFILE_DIR "/../ravel.example.yaml");
   EXPECT_TRUE(example.probe.enabled);
   EXPECT_EQ(example.errorResponder.enabled, TriState::of(true));
   EXPECT_EQ(parseConfigText(renderConfig(example), "r.yaml"), example);
}

}  // namespace
}  // namespace Ravel
