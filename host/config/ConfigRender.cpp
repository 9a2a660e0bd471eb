#include "host/config/ConfigFile.h"

// The configuration written back as YAML ("ravelctl show config").

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

namespace Ravel {

using ErrorResponder::TriState;

namespace {

void emitTriState(YAML::Emitter& out, const TriState& t) {
   if (t.isSet)
      out << t.value;
   else
      out << YAML::Null;
}

void emitOptional(YAML::Emitter& out, const std::string& s) {
   if (s.empty())
      out << YAML::Null;
   else
      out << s;
}

std::string protocolText(const std::optional<uint8_t>& p) {
   if (!p)
      return "any";
   for (auto [name, number] : kProtocolNames) {
      if (number == *p)
         return name;
   }
   return std::to_string(*p);
}

}  // namespace

std::string renderConfig(const RavelConfig& c) {
   YAML::Emitter out;
   out << YAML::BeginMap;
   const auto& p = c.probe;
   out << YAML::Key << "probe" << YAML::Value << YAML::BeginMap;
   out << YAML::Key << "enabled" << YAML::Value << p.enabled;
   out << YAML::Key << "ifname" << YAML::Value << p.ifname;
   out << YAML::Key << "ifindex" << YAML::Value << p.ifindex;
   out << YAML::Key << "ifaddr" << YAML::Value << p.ifaddr;
   out << YAML::Key << "remote" << YAML::Value << p.remote;
   out << YAML::Key << "max-queue-length" << YAML::Value << p.maxQueueLength;
   out << YAML::Key << "sources" << YAML::Value << YAML::Flow << YAML::BeginMap;
   for (auto [name, list] :
        {std::pair{"ifname", &p.sources.ifname}, std::pair{"ifindex", &p.sources.ifindex},
         std::pair{"ifaddr", &p.sources.ifaddr}, std::pair{"remote", &p.sources.remote}}) {
      out << YAML::Key << name << YAML::Value;
      emitOptional(out, *list);
   }
   out << YAML::EndMap;
   const auto& l = p.rateLimit;
   out << YAML::Key << "rate-limit" << YAML::Value << YAML::Flow << YAML::BeginMap;
   out << YAML::Key << "rate" << YAML::Value << l.rate;
   out << YAML::Key << "burst" << YAML::Value << l.burst;
   out << YAML::Key << "per-source-rate" << YAML::Value << l.perSourceRate;
   out << YAML::Key << "per-source-burst" << YAML::Value << l.perSourceBurst;
   out << YAML::Key << "ipv4-prefix-length" << YAML::Value << unsigned{l.ipv4PrefixLength};
   out << YAML::Key << "ipv6-prefix-length" << YAML::Value << unsigned{l.ipv6PrefixLength};
   out << YAML::EndMap;
   out << YAML::Key << "vrfs" << YAML::Value << YAML::BeginMap;
   for (auto& [vrf, o] : p.vrfs) {
      out << YAML::Key << vrf.str() << YAML::Value << YAML::Flow << YAML::BeginMap;
      for (auto [key, v] : {std::pair{"enabled", o.enabled}, std::pair{"ifname", o.ifname},
                            std::pair{"ifindex", o.ifindex}, std::pair{"ifaddr", o.ifaddr},
                            std::pair{"remote", o.remote}}) {
         out << YAML::Key << key << YAML::Value;
         if (v)
            out << *v;
         else
            out << YAML::Null;
      }
      out << YAML::EndMap;
   }
   out << YAML::EndMap;
   out << YAML::EndMap;

   const auto& e = c.errorResponder;
   out << YAML::Key << "error-responder" << YAML::Value << YAML::BeginMap;
   out << YAML::Key << "enabled" << YAML::Value;
   emitTriState(out, e.enabled);
   out << YAML::Key << "add-host-name" << YAML::Value << e.addHostName;
   out << YAML::Key << "node-id-code-point" << YAML::Value << unsigned{e.nodeIdCodePoint};
   out << YAML::Key << "ring-buffer-size" << YAML::Value << e.ringBufferSize;
   out << YAML::Key << "vrf-map-size" << YAML::Value << e.vrfMapSize;
   out << YAML::Key << "suppress-kernel-errors" << YAML::Value << e.suppressKernelErrors;
   out << YAML::Key << "vrfs" << YAML::Value << YAML::BeginMap;
   for (auto& [name, v] : e.vrfs) {
      out << YAML::Key << name.str() << YAML::Value << YAML::BeginMap;
      out << YAML::Key << "enabled" << YAML::Value;
      emitTriState(out, v.enabled);
      out << YAML::Key << "ipv4-acl" << YAML::Value;
      emitOptional(out, v.ipv4Acl);
      out << YAML::Key << "ipv6-acl" << YAML::Value;
      emitOptional(out, v.ipv6Acl);
      out << YAML::Key << "node-id" << YAML::Value << YAML::Flow << YAML::BeginMap;
      out << YAML::Key << "ipv4" << YAML::Value;
      emitOptional(out, v.nodeId.ipv4.str());
      out << YAML::Key << "ipv6" << YAML::Value;
      emitOptional(out, v.nodeId.ipv6.str());
      out << YAML::Key << "interface" << YAML::Value;
      emitOptional(out, v.nodeId.interface.str());
      out << YAML::EndMap;
      out << YAML::Key << "interface-info" << YAML::Value << YAML::Flow << YAML::BeginMap;
      for (auto [role, d] : {std::pair{"incoming", v.interfaceInfo.incoming},
                             std::pair{"outgoing", v.interfaceInfo.outgoing},
                             std::pair{"next-hop", v.interfaceInfo.nextHop}}) {
         out << YAML::Key << role << YAML::Value << YAML::Flow << YAML::BeginSeq;
         for (auto [on, name] : {std::pair{d.ifIndex, "ifindex"}, std::pair{d.address, "address"},
                                 std::pair{d.name, "name"}, std::pair{d.mtu, "mtu"}}) {
            if (on)
               out << name;
         }
         out << YAML::EndSeq;
      }
      out << YAML::EndMap << YAML::EndMap;
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
            out << YAML::Key << "protocol" << YAML::Value << protocolText(r.protocol);
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
