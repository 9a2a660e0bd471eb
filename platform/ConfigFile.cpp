#include "platform/ConfigFile.h"

#include <fstream>
#include <set>
#include <sstream>

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

namespace Ravel {

namespace {

class Parser {
 public:
   explicit Parser(std::string file) : file_(std::move(file)) {}

   [[noreturn]] void fail(const YAML::Node& at, const std::string& key, const std::string& what) {
      int line = at.Mark().line >= 0 ? at.Mark().line + 1 : 0;
      throw ConfigError(fmt::format("{}:{}: {} (key {})", file_, line, what, key));
   }

   std::string scalarText(const YAML::Node& n) {
      if (n.IsScalar())
         return n.Scalar();
      if (n.IsMap())
         return "a map";
      if (n.IsSequence())
         return "a list";
      return "nothing";
   }

   // A map (null counts as empty) whose keys are all in `allowed`.
   void checkMap(const YAML::Node& n, const std::string& key,
                 const std::set<std::string>& allowed) {
      if (n.IsNull())
         return;
      if (!n.IsMap())
         fail(n, key, fmt::format("expected a map, got {}", scalarText(n)));
      for (auto it = n.begin(); it != n.end(); ++it) {
         std::string k = it->first.as<std::string>();
         if (!allowed.count(k))
            fail(it->first, join(key, k), fmt::format("unknown key \"{}\"", k));
      }
   }

   static std::string join(const std::string& a, const std::string& b) {
      return a.empty() ? b : a + "." + b;
   }

   bool boolean(const YAML::Node& n, const std::string& key) {
      bool v;
      if (!n.IsScalar() || !YAML::convert<bool>::decode(n, v)) {
         fail(n, key, fmt::format("expected a boolean, got \"{}\"", scalarText(n)));
      }
      return v;
   }

   uint64_t unsignedNum(const YAML::Node& n, const std::string& key, uint64_t max) {
      uint64_t v = 0;
      const std::string& s = n.IsScalar() ? n.Scalar() : std::string();
      bool ok = n.IsScalar() && !s.empty() &&
                s.find_first_not_of("0123456789") == std::string::npos && s.size() <= 20;
      if (ok) {
         try {
            v = std::stoull(s);
         } catch (const std::exception&) {
            ok = false;
         }
      }
      if (!ok || v > max) {
         fail(n, key,
              fmt::format("expected a number from 0 to {}, got \"{}\"", max, scalarText(n)));
      }
      return v;
   }

   std::string text(const YAML::Node& n, const std::string& key) {
      if (!n.IsScalar())
         fail(n, key, fmt::format("expected a string, got {}", scalarText(n)));
      return n.Scalar();
   }

   IpGenAddr address(const YAML::Node& n, const std::string& key, AddressFamily af) {
      auto a = IpGenAddr::parse(text(n, key));
      if (!a || a->af() != af) {
         fail(n, key, fmt::format("expected an {} address, got \"{}\"", toString(af), n.Scalar()));
      }
      return *a;
   }

   IpPrefix prefix(const YAML::Node& n, const std::string& key, AddressFamily af) {
      auto p = IpPrefix::parse(text(n, key), af);
      if (!p) {
         fail(n, key,
              fmt::format("expected \"any\" or an {} prefix without host bits, got \"{}\"",
                          toString(af), n.Scalar()));
      }
      return *p;
   }

   RavelConfig parse(const YAML::Node& root) {
      RavelConfig c;
      checkMap(root, "", {"probe", "error-responder", "acls"});
      if (root.IsNull())
         return c;
      if (auto p = root["probe"])
         parseProbe(p, c.probe);
      if (auto e = root["error-responder"])
         parseError(e, c.errorResponder);
      if (auto a = root["acls"])
         parseAcls(a, c);
      return c;
   }

   void parseProbe(const YAML::Node& n, ProbeSettings& p) {
      const std::string k = "probe";
      checkMap(n, k, {"enabled", "ifname", "ifindex", "ifaddr", "remote", "max-queue-length"});
      if (n.IsNull())
         return;
      if (auto v = n["enabled"])
         p.enabled = boolean(v, k + ".enabled");
      if (auto v = n["ifname"])
         p.ifname = boolean(v, k + ".ifname");
      if (auto v = n["ifindex"])
         p.ifindex = boolean(v, k + ".ifindex");
      if (auto v = n["ifaddr"])
         p.ifaddr = boolean(v, k + ".ifaddr");
      if (auto v = n["remote"])
         p.remote = boolean(v, k + ".remote");
      if (auto v = n["max-queue-length"]) {
         p.maxQueueLength =
             static_cast<uint32_t>(unsignedNum(v, k + ".max-queue-length", UINT32_MAX));
      }
   }

   void parseError(const YAML::Node& n, ErrorSettings& e) {
      const std::string k = "error-responder";
      checkMap(n, k,
               {"enabled", "add-host-name", "node-id-code-point", "ring-buffer-size",
                "vrf-map-size", "vrfs"});
      if (n.IsNull())
         return;
      if (auto v = n["enabled"])
         e.enabled = ErrorResponder::TriState::of(boolean(v, k + ".enabled"));
      if (auto v = n["add-host-name"])
         e.addHostName = boolean(v, k + ".add-host-name");
      if (auto v = n["node-id-code-point"]) {
         e.nodeIdCodePoint = static_cast<uint8_t>(unsignedNum(v, k + ".node-id-code-point", 255));
      }
      if (auto v = n["ring-buffer-size"]) {
         e.ringBufferSize =
             static_cast<uint32_t>(unsignedNum(v, k + ".ring-buffer-size", UINT32_MAX));
      }
      if (auto v = n["vrf-map-size"]) {
         e.vrfMapSize = static_cast<uint32_t>(unsignedNum(v, k + ".vrf-map-size", UINT32_MAX));
      }
      auto vrfs = n["vrfs"];
      if (!vrfs || vrfs.IsNull())
         return;
      if (!vrfs.IsMap())
         fail(vrfs, k + ".vrfs", fmt::format("expected a map, got {}", scalarText(vrfs)));
      for (auto it = vrfs.begin(); it != vrfs.end(); ++it) {
         std::string name = it->first.as<std::string>();
         std::string vk = k + ".vrfs." + name;
         VrfName vrf;
         try {
            vrf = VrfName(name);
         } catch (const std::out_of_range&) {
            fail(it->first, vk, fmt::format("VRF name longer than {} bytes", VrfName::kMaxLen));
         }
         if (name.empty())
            fail(it->first, vk, "empty VRF name");
         e.vrfs[vrf] = parseVrf(it->second, vk);
      }
   }

   ErrorVrfSettings parseVrf(const YAML::Node& n, const std::string& k) {
      ErrorVrfSettings s;
      checkMap(n, k, {"enabled", "ipv4-acl", "ipv6-acl", "node-id"});
      if (n.IsNull())
         return s;
      if (auto v = n["enabled"])
         s.enabled = ErrorResponder::TriState::of(boolean(v, k + ".enabled"));
      if (auto v = n["ipv4-acl"])
         s.ipv4Acl = text(v, k + ".ipv4-acl");
      if (auto v = n["ipv6-acl"])
         s.ipv6Acl = text(v, k + ".ipv6-acl");
      if (auto id = n["node-id"]) {
         std::string ik = k + ".node-id";
         checkMap(id, ik, {"ipv4", "ipv6", "interface"});
         if (!id.IsNull()) {
            if (auto v = id["ipv4"])
               s.nodeId.ipv4 = address(v, ik + ".ipv4", AddressFamily::ipv4);
            if (auto v = id["ipv6"])
               s.nodeId.ipv6 = address(v, ik + ".ipv6", AddressFamily::ipv6);
            if (auto v = id["interface"]) {
               try {
                  s.nodeId.interface = IntfId(text(v, ik + ".interface"));
               } catch (const std::invalid_argument& e) {
                  fail(v, ik + ".interface", fmt::format("bad interface name: {}", e.what()));
               }
            }
         }
      }
      return s;
   }

   void parseAcls(const YAML::Node& n, RavelConfig& c) {
      checkMap(n, "acls", {"ipv4", "ipv6"});
      if (n.IsNull())
         return;
      for (auto [fam, af, out] : {std::tuple{"ipv4", AddressFamily::ipv4, &c.ipv4Acls},
                                  std::tuple{"ipv6", AddressFamily::ipv6, &c.ipv6Acls}}) {
         auto lists = n[fam];
         std::string k = std::string("acls.") + fam;
         if (!lists || lists.IsNull())
            continue;
         if (!lists.IsMap())
            fail(lists, k, fmt::format("expected a map, got {}", scalarText(lists)));
         for (auto it = lists.begin(); it != lists.end(); ++it) {
            std::string name = it->first.as<std::string>();
            std::string lk = k + "." + name;
            AclList acl{name, af, {}};
            YAML::Node rules = it->second;  // a copy: the iterator hands out a temporary
            if (!rules.IsNull() && !rules.IsSequence()) {
               fail(rules, lk, fmt::format("expected a list of rules, got {}", scalarText(rules)));
            }
            size_t i = 0;
            for (const auto& r : rules)
               acl.rules.push_back(parseRule(r, fmt::format("{}[{}]", lk, i++), af));
            (*out)[name] = std::move(acl);
         }
      }
   }

   AclRule parseRule(const YAML::Node& n, const std::string& k, AddressFamily af) {
      checkMap(n, k, {"action", "source", "destination", "protocol"});
      AclRule r;
      r.source = *IpPrefix::parse("any", af);
      r.destination = r.source;
      auto action = n["action"];
      if (!action)
         fail(n, k + ".action", "a rule needs an action");
      std::string a = text(action, k + ".action");
      if (a == "permit") {
         r.action = AclAction::permit;
      } else if (a == "deny") {
         r.action = AclAction::deny;
      } else {
         fail(action, k + ".action", fmt::format("expected permit or deny, got \"{}\"", a));
      }
      if (auto v = n["source"])
         r.source = prefix(v, k + ".source", af);
      if (auto v = n["destination"])
         r.destination = prefix(v, k + ".destination", af);
      if (auto v = n["protocol"]) {
         static const std::map<std::string, uint8_t> names = {
             {"icmp", 1}, {"tcp", 6}, {"udp", 17}, {"icmpv6", 58}};
         std::string p = text(v, k + ".protocol");
         if (p == "any") {
            r.protocol.reset();
         } else if (auto it = names.find(p); it != names.end()) {
            r.protocol = it->second;
         } else {
            r.protocol = static_cast<uint8_t>(unsignedNum(v, k + ".protocol", 255));
         }
      }
      return r;
   }

 private:
   std::string file_;
};

}  // namespace

RavelConfig parseConfigText(const std::string& text, const std::string& fileName) {
   YAML::Node root;
   try {
      root = YAML::Load(text);
   } catch (const YAML::ParserException& e) {
      throw ConfigError(fmt::format("{}:{}: {}", fileName, e.mark.line + 1, e.msg));
   }
   return Parser(fileName).parse(root);
}

RavelConfig parseConfigFile(const std::string& path) {
   std::ifstream in(path);
   if (!in)
      throw ConfigError(fmt::format("{}: cannot read the configuration file", path));
   std::stringstream ss;
   ss << in.rdbuf();
   return parseConfigText(ss.str(), path);
}

std::string renderConfig(const RavelConfig& c) {
   YAML::Emitter out;
   out << YAML::BeginMap;
   out << YAML::Key << "probe" << YAML::Value << YAML::BeginMap;
   out << YAML::Key << "enabled" << YAML::Value << c.probe.enabled;
   out << YAML::Key << "ifname" << YAML::Value << c.probe.ifname;
   out << YAML::Key << "ifindex" << YAML::Value << c.probe.ifindex;
   out << YAML::Key << "ifaddr" << YAML::Value << c.probe.ifaddr;
   out << YAML::Key << "remote" << YAML::Value << c.probe.remote;
   out << YAML::Key << "max-queue-length" << YAML::Value << c.probe.maxQueueLength;
   out << YAML::EndMap;
   const auto& e = c.errorResponder;
   out << YAML::Key << "error-responder" << YAML::Value << YAML::BeginMap;
   if (e.enabled.isSet)
      out << YAML::Key << "enabled" << YAML::Value << e.enabled.value;
   out << YAML::Key << "add-host-name" << YAML::Value << e.addHostName;
   out << YAML::Key << "node-id-code-point" << YAML::Value << unsigned{e.nodeIdCodePoint};
   out << YAML::Key << "ring-buffer-size" << YAML::Value << e.ringBufferSize;
   out << YAML::Key << "vrf-map-size" << YAML::Value << e.vrfMapSize;
   out << YAML::Key << "vrfs" << YAML::Value << YAML::BeginMap;
   for (auto& [name, v] : e.vrfs) {
      out << YAML::Key << name.str() << YAML::Value << YAML::BeginMap;
      if (v.enabled.isSet)
         out << YAML::Key << "enabled" << YAML::Value << v.enabled.value;
      if (!v.ipv4Acl.empty())
         out << YAML::Key << "ipv4-acl" << YAML::Value << v.ipv4Acl;
      if (!v.ipv6Acl.empty())
         out << YAML::Key << "ipv6-acl" << YAML::Value << v.ipv6Acl;
      if (!(v.nodeId == ErrorResponder::NodeIdVrfConfig{})) {
         out << YAML::Key << "node-id" << YAML::Value << YAML::BeginMap;
         if (v.nodeId.ipv4.isV4())
            out << YAML::Key << "ipv4" << YAML::Value << v.nodeId.ipv4.str();
         if (v.nodeId.ipv6.isV6())
            out << YAML::Key << "ipv6" << YAML::Value << v.nodeId.ipv6.str();
         if (!v.nodeId.interface.empty()) {
            out << YAML::Key << "interface" << YAML::Value << v.nodeId.interface.str();
         }
         out << YAML::EndMap;
      }
      out << YAML::EndMap;
   }
   out << YAML::EndMap << YAML::EndMap;
   out << YAML::Key << "acls" << YAML::Value << YAML::BeginMap;
   for (auto [fam, lists] : {std::pair{"ipv4", &c.ipv4Acls}, std::pair{"ipv6", &c.ipv6Acls}}) {
      out << YAML::Key << fam << YAML::Value << YAML::BeginMap;
      for (auto& [name, acl] : *lists) {
         out << YAML::Key << name << YAML::Value << YAML::BeginSeq;
         for (auto& r : acl.rules) {
            out << YAML::Flow << YAML::BeginMap;
            out << YAML::Key << "action" << YAML::Value << toString(r.action);
            out << YAML::Key << "source" << YAML::Value << r.source.str();
            out << YAML::Key << "destination" << YAML::Value << r.destination.str();
            out << YAML::Key << "protocol" << YAML::Value
                << (r.protocol ? std::to_string(*r.protocol) : std::string("any"));
            out << YAML::EndMap;
         }
         out << YAML::EndSeq;
      }
      out << YAML::EndMap;
   }
   out << YAML::EndMap << YAML::EndMap;
   return std::string(out.c_str()) + "\n";
}

}  // namespace Ravel
