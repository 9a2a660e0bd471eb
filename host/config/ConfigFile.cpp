#include "host/config/ConfigFile.h"

#include "platform/core/Fd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <set>
#include <vector>

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

namespace Ravel {

namespace {

using ErrorResponder::TriState;

// A value with where it came from: its line and its dotted key.
struct Val {
   YAML::Node node;
   YAML::Mark mark;
   std::string key;
};

struct Entry {
   std::string name;
   YAML::Mark keyMark;
   Val value;
};

using Fields = std::map<std::string, Val>;

const Val* field(const Fields& f, const char* name) {
   auto it = f.find(name);
   return it == f.end() ? nullptr : &it->second;
}

// Messages are one line whatever the file holds: control characters are escaped.
std::string oneLine(const std::string& s) {
   std::string out;
   for (unsigned char c : s) {
      if (c == '\n')
         out += "\\n";
      else if (c < ' ' || c == 0x7f)
         out += fmt::format("\\x{:02x}", c);
      else
         out += static_cast<char>(c);
   }
   return out;
}

std::string describe(const YAML::Node& n) {
   if (n.IsScalar())
      return fmt::format("\"{}\"", n.Scalar());
   if (n.IsMap())
      return "a map";
   if (n.IsSequence())
      return "a list";
   return "nothing";
}

class Parser {
 public:
   explicit Parser(std::string file) : file_(std::move(file)) {}

   RavelConfig parse(const YAML::Node& root) {
      RavelConfig c;
      if (!root.IsNull() && !root.IsMap()) {
         fail(root.Mark(), "",
              fmt::format("expected a map at the top level, got {}", describe(root)));
      }
      auto f = fields({root, root.Mark(), ""}, {"probe", "error-responder", "acls"});
      if (auto v = field(f, "probe"))
         parseProbe(*v, c.probe);
      if (auto v = field(f, "error-responder"))
         parseError(*v, c.errorResponder);
      if (auto v = field(f, "acls"))
         parseAcls(*v, c);
      return c;
   }

   [[noreturn]] void fail(const YAML::Mark& mark, const std::string& key, const std::string& what) {
      std::string where = file_;
      if (mark.line >= 0)
         where += fmt::format(":{}", mark.line + 1);
      if (key.empty())
         throw ConfigError(oneLine(fmt::format("{}: {}", where, what)));
      throw ConfigError(oneLine(fmt::format("{}: {} (key {})", where, what, key)));
   }
   [[noreturn]] void fail(const Val& v, const std::string& what) { fail(v.mark, v.key, what); }

 private:
   static std::string join(const std::string& a, const std::string& b) {
      return a.empty() ? b : a + "." + b;
   }

   // A map's entries in file order; null is the empty map. Keys are distinct scalars. A null
   // value is placed on its key's line: yaml-cpp marks it where the next token starts.
   std::vector<Entry> entries(const Val& v) {
      std::vector<Entry> out;
      if (v.node.IsNull())
         return out;
      if (!v.node.IsMap())
         fail(v, fmt::format("expected a map, got {}", describe(v.node)));
      std::set<std::string> seen;
      for (auto it = v.node.begin(); it != v.node.end(); ++it) {
         // Copies: the iterator hands out temporaries.
         YAML::Node k = it->first, x = it->second;
         if (!k.IsScalar())
            fail(k.Mark(), v.key, fmt::format("expected a name as key, got {}", describe(k)));
         std::string key = join(v.key, k.Scalar());
         if (!seen.insert(k.Scalar()).second)
            fail(k.Mark(), key, fmt::format("duplicate key \"{}\"", k.Scalar()));
         out.push_back({k.Scalar(), k.Mark(), {x, x.IsNull() ? k.Mark() : x.Mark(), key}});
      }
      return out;
   }

   // A list's items; null is the empty list.
   std::vector<Val> items(const Val& v, const char* what) {
      if (!v.node.IsNull() && !v.node.IsSequence())
         fail(v, fmt::format("expected a list of {}, got {}", what, describe(v.node)));
      std::vector<Val> out;
      size_t i = 0;
      for (auto it = v.node.begin(); it != v.node.end(); ++it, ++i) {
         YAML::Node x = *it;
         out.push_back({x, x.IsNull() ? v.mark : x.Mark(), fmt::format("{}[{}]", v.key, i)});
      }
      return out;
   }

   Fields fields(const Val& v, const std::set<std::string>& allowed) {
      Fields out;
      for (auto& e : entries(v)) {
         if (!allowed.count(e.name))
            fail(e.keyMark, e.value.key, fmt::format("unknown key \"{}\"", e.name));
         out[e.name] = e.value;
      }
      return out;
   }

   bool boolean(const Val& v) {
      bool b = false;
      if (!v.node.IsScalar() || !YAML::convert<bool>::decode(v.node, b))
         fail(v, fmt::format("expected a boolean, got {}", describe(v.node)));
      return b;
   }

   TriState triState(const Val& v) {
      return v.node.IsNull() ? TriState::unset() : TriState::of(boolean(v));
   }

   // Decimal digits only: "-1" or "0x10" are errors, not wrapped or guessed.
   static std::optional<uint64_t> digits(const YAML::Node& n) {
      if (!n.IsScalar())
         return std::nullopt;
      const std::string& s = n.Scalar();
      uint64_t v = 0;
      auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
      if (s.empty() || ec != std::errc() || ptr != s.data() + s.size())
         return std::nullopt;
      return v;
   }

   uint64_t number(const Val& v, uint64_t max) {
      auto n = digits(v.node);
      if (!n || *n > max)
         fail(v, fmt::format("expected a number from 0 to {}, got {}", max, describe(v.node)));
      return *n;
   }

   std::string text(const Val& v) {
      if (!v.node.IsScalar())
         fail(v, fmt::format("expected a string, got {}", describe(v.node)));
      return v.node.Scalar();
   }

   // A reference to an ACL; null: none.
   std::string aclRef(const Val& v) {
      if (v.node.IsNull())
         return {};
      std::string s = text(v);
      if (s.empty())
         fail(v, "empty ACL name");
      return s;
   }

   IpGenAddr address(const Val& v, AddressFamily af) {
      if (v.node.IsNull())
         return {};
      auto a = IpGenAddr::parse(text(v));
      if (!a || a->af() != af)
         fail(v, fmt::format("expected an {} address, got {}", af, describe(v.node)));
      return *a;
   }

   IpPrefix prefix(const Val& v, AddressFamily af) {
      auto p = IpPrefix::parse(text(v), af);
      if (!p) {
         fail(v, fmt::format("expected \"any\" or an {} prefix without host bits, got {}", af,
                             describe(v.node)));
      }
      return *p;
   }

   void parseProbe(const Val& n, ProbeSettings& p) {
      auto f = fields(n, {"enabled", "ifname", "ifindex", "ifaddr", "remote", "max-queue-length",
                          "sources", "rate-limit", "vrfs"});
      for (auto [name, out] : {std::pair{"enabled", &p.enabled}, std::pair{"ifname", &p.ifname},
                               std::pair{"ifindex", &p.ifindex}, std::pair{"ifaddr", &p.ifaddr},
                               std::pair{"remote", &p.remote}}) {
         if (auto v = field(f, name))
            *out = boolean(*v);
      }
      if (auto v = field(f, "max-queue-length"))
         p.maxQueueLength = static_cast<uint32_t>(number(*v, UINT32_MAX));
      if (auto v = field(f, "sources")) {
         auto s = fields(*v, {"ifname", "ifindex", "ifaddr", "remote"});
         for (auto [name, out] :
              {std::pair{"ifname", &p.sources.ifname}, std::pair{"ifindex", &p.sources.ifindex},
               std::pair{"ifaddr", &p.sources.ifaddr}, std::pair{"remote", &p.sources.remote}}) {
            if (auto x = field(s, name))
               *out = aclRef(*x);
         }
      }
      if (auto v = field(f, "vrfs")) {
         for (auto& e : entries(*v)) {
            VrfName name = vrfName(e);
            ProbeResponder::VrfOverrides o;
            auto x = fields(e.value, {"enabled", "ifname", "ifindex", "ifaddr", "remote"});
            for (auto [key, out] :
                 {std::pair{"enabled", &o.enabled}, std::pair{"ifname", &o.ifname},
                  std::pair{"ifindex", &o.ifindex}, std::pair{"ifaddr", &o.ifaddr},
                  std::pair{"remote", &o.remote}}) {
               if (auto b = field(x, key); b && !b->node.IsNull())
                  *out = boolean(*b);
            }
            p.vrfs[name] = o;
         }
      }
      if (auto v = field(f, "rate-limit")) {
         auto r = fields(*v, {"rate", "burst", "per-source-rate", "per-source-burst",
                              "ipv4-prefix-length", "ipv6-prefix-length"});
         auto& l = p.rateLimit;
         for (auto [name, out] : {std::pair{"rate", &l.rate}, std::pair{"burst", &l.burst},
                                  std::pair{"per-source-rate", &l.perSourceRate},
                                  std::pair{"per-source-burst", &l.perSourceBurst}}) {
            if (auto x = field(r, name))
               *out = static_cast<uint32_t>(number(*x, UINT32_MAX));
         }
         if (auto x = field(r, "ipv4-prefix-length"))
            l.ipv4PrefixLength = static_cast<uint8_t>(number(*x, 32));
         if (auto x = field(r, "ipv6-prefix-length"))
            l.ipv6PrefixLength = static_cast<uint8_t>(number(*x, 128));
      }
   }

   void parseError(const Val& n, ErrorSettings& e) {
      auto f = fields(n, {"enabled", "add-host-name", "node-id-code-point", "ring-buffer-size",
                          "vrf-map-size", "suppress-kernel-errors", "vrfs"});
      if (auto v = field(f, "enabled"))
         e.enabled = triState(*v);
      if (auto v = field(f, "add-host-name"))
         e.addHostName = boolean(*v);
      if (auto v = field(f, "node-id-code-point"))
         e.nodeIdCodePoint = static_cast<uint8_t>(number(*v, 255));
      if (auto v = field(f, "ring-buffer-size"))
         e.ringBufferSize = ringBufferSize(*v);
      if (auto v = field(f, "vrf-map-size"))
         e.vrfMapSize = static_cast<uint32_t>(number(*v, UINT32_MAX));
      if (auto v = field(f, "suppress-kernel-errors"))
         e.suppressKernelErrors = boolean(*v);
      auto vrfs = field(f, "vrfs");
      if (!vrfs)
         return;
      for (auto& v : entries(*vrfs))
         e.vrfs[vrfName(v)] = parseVrf(v.value);
   }

   uint32_t ringBufferSize(const Val& v) {
      static const uint64_t page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
      auto n = digits(v.node);
      bool ok = n && *n <= UINT32_MAX && (*n == 0 || (*n % page == 0 && (*n & (*n - 1)) == 0));
      if (!ok) {
         fail(v, fmt::format("expected 0 or a power of two multiple of {}, got {}", page,
                             describe(v.node)));
      }
      return static_cast<uint32_t>(*n);
   }

   // Per role, the list of sub-objects its interface object carries.
   ErrorResponder::Disclosure disclosure(const Val& n) {
      ErrorResponder::Disclosure d;
      auto f = fields(n, {"incoming", "outgoing", "next-hop"});
      for (auto [role, out] :
           {std::pair{"incoming", &d.incoming}, std::pair{"outgoing", &d.outgoing},
            std::pair{"next-hop", &d.nextHop}}) {
         auto v = field(f, role);
         if (!v)
            continue;
         *out = {};
         bool nextHop = out == &d.nextHop;
         for (auto& item : items(*v, "sub-objects")) {
            std::string what = text(item);
            if (what == "address")
               out->address = true;
            else if (what == "ifindex" && !nextHop)
               out->ifIndex = true;
            else if (what == "name" && !nextHop)
               out->name = true;
            else if (what == "mtu" && !nextHop)
               out->mtu = true;
            else
               fail(item, fmt::format("expected {}, got \"{}\"",
                                      nextHop ? "address" : "ifindex, address, name or mtu", what));
         }
      }
      return d;
   }

   VrfName vrfName(const Entry& v) {
      VrfName vrf;
      try {
         vrf = VrfName(v.name);
      } catch (const std::logic_error&) {
         fail(v.keyMark, v.value.key,
              fmt::format("VRF name longer than {} bytes", VrfName::kMaxLen));
      }
      if (v.name.empty())
         fail(v.keyMark, v.value.key, "empty VRF name");
      // The VRF's namespace is a file named after it.
      if (v.name.find('/') != std::string::npos)
         fail(v.keyMark, v.value.key, "VRF name with \"/\"");
      return vrf;
   }

   ErrorVrfSettings parseVrf(const Val& n) {
      ErrorVrfSettings s;
      auto f = fields(n, {"enabled", "ipv4-acl", "ipv6-acl", "node-id", "interface-info"});
      if (auto v = field(f, "enabled"))
         s.enabled = triState(*v);
      if (auto v = field(f, "ipv4-acl"))
         s.ipv4Acl = aclRef(*v);
      if (auto v = field(f, "ipv6-acl"))
         s.ipv6Acl = aclRef(*v);
      if (auto v = field(f, "interface-info"))
         s.interfaceInfo = disclosure(*v);
      auto nodeId = field(f, "node-id");
      if (!nodeId)
         return s;
      auto id = fields(*nodeId, {"ipv4", "ipv6", "interface"});
      if (auto v = field(id, "ipv4"))
         s.nodeId.ipv4 = address(*v, AddressFamily::ipv4);
      if (auto v = field(id, "ipv6"))
         s.nodeId.ipv6 = address(*v, AddressFamily::ipv6);
      if (auto v = field(id, "interface"); v && !v->node.IsNull()) {
         std::string name = text(*v);
         try {
            s.nodeId.interface = IntfId(name);
         } catch (const std::invalid_argument& e) {
            fail(*v, fmt::format("bad interface name \"{}\": {}", name, e.what()));
         }
      }
      return s;
   }

   void parseAcls(const Val& n, RavelConfig& c) {
      auto f = fields(n, {"ipv4", "ipv6"});
      for (auto [fam, af, out] : {std::tuple{"ipv4", AddressFamily::ipv4, &c.ipv4Acls},
                                  std::tuple{"ipv6", AddressFamily::ipv6, &c.ipv6Acls}}) {
         auto lists = field(f, fam);
         if (!lists)
            continue;
         for (auto& l : entries(*lists)) {
            const Val& rules = l.value;
            if (l.name.empty())
               fail(l.keyMark, rules.key, "empty ACL name");
            AclList acl{l.name, af, {}};
            for (auto& r : items(rules, "rules"))
               acl.rules.push_back(parseRule(r, af));
            (*out)[l.name] = std::move(acl);
         }
      }
   }

   AclRule parseRule(const Val& n, AddressFamily af) {
      if (!n.node.IsMap())
         fail(n, fmt::format("expected a map, got {}", describe(n.node)));
      auto f = fields(n, {"action", "source", "destination", "protocol"});
      AclRule r;
      r.source = *IpPrefix::parse("any", af);
      r.destination = r.source;
      auto action = field(f, "action");
      if (!action)
         fail(n.mark, n.key + ".action", "a rule needs an action");
      std::string a = text(*action);
      if (a == "permit") {
         r.action = AclAction::permit;
      } else if (a == "deny") {
         r.action = AclAction::deny;
      } else {
         fail(*action, fmt::format("expected permit or deny, got {}", describe(action->node)));
      }
      if (auto v = field(f, "source"))
         r.source = prefix(*v, af);
      if (auto v = field(f, "destination"))
         r.destination = prefix(*v, af);
      if (auto v = field(f, "protocol"))
         r.protocol = protocol(*v);
      return r;
   }

   std::optional<uint8_t> protocol(const Val& v) {
      const YAML::Node& n = v.node;
      if (n.IsScalar() && n.Scalar() == "any")
         return std::nullopt;
      for (auto [name, number] : kProtocolNames) {
         if (n.IsScalar() && n.Scalar() == name)
            return number;
      }
      auto p = digits(n);
      if (!p || *p > 255) {
         fail(v, fmt::format("expected any, icmp, tcp, udp, icmpv6 or a number from 0 to 255, "
                             "got {}",
                             describe(n)));
      }
      return static_cast<uint8_t>(*p);
   }

   std::string file_;
};

}  // namespace

RavelConfig parseConfigText(const std::string& text, const std::string& fileName) {
   std::vector<YAML::Node> docs;
   try {
      docs = YAML::LoadAll(text);
   } catch (const YAML::ParserException& e) {
      std::string where = fileName;
      if (e.mark.line >= 0)
         where += fmt::format(":{}", e.mark.line + 1);
      throw ConfigError(oneLine(fmt::format("{}: YAML syntax error: {}", where, e.msg)));
   }
   Parser p(fileName);
   // A second document would be ignored silently by a single-document read.
   for (size_t i = 1; i < docs.size(); ++i) {
      if (!docs[i].IsNull())
         p.fail(docs[i].Mark(), "", "more than one YAML document");
   }
   return p.parse(docs.empty() ? YAML::Node() : docs[0]);
}

RavelConfig parseConfigFile(const std::string& path) {
   auto error = [&](const char* what) {
      return ConfigError(oneLine(fmt::format("{}: cannot read: {}", path, what)));
   };
   Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
   if (!fd)
      throw error(std::strerror(errno));
   struct stat st {};
   // A directory opens and reads as nothing, which would pass for an empty configuration.
   if (::fstat(fd.get(), &st) == 0 && !S_ISREG(st.st_mode))
      throw error("not a regular file");
   std::string text;
   char buf[8192];
   for (;;) {
      ssize_t n = ::read(fd.get(), buf, sizeof buf);
      if (n < 0 && errno == EINTR)
         continue;
      if (n < 0)
         throw error(std::strerror(errno));
      if (n == 0)
         break;
      text.append(buf, static_cast<size_t>(n));
   }
   return parseConfigText(text, path);
}

}  // namespace Ravel
