#pragma once

// The daemon's YAML configuration file, parsed into plain values.

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>

#include "platform/Acl.h"
#include "platform/ErrorResponderSchema.h"

namespace Ravel {

// One line: "<file>:<line>: <what> (key <dotted.key>)".
struct ConfigError : std::runtime_error {
   using std::runtime_error::runtime_error;
};

struct ProbeSettings {
   // RFC 8335 section 6: the responder is off unless configured.
   bool enabled = false;
   bool ifname = false;
   bool ifindex = false;
   bool ifaddr = false;
   bool remote = false;
   uint32_t maxQueueLength = 1024;
   bool operator==(const ProbeSettings&) const = default;
};

struct ErrorVrfSettings {
   ErrorResponder::TriState enabled;
   std::string ipv4Acl;
   std::string ipv6Acl;
   ErrorResponder::NodeIdVrfConfig nodeId;
   bool operator==(const ErrorVrfSettings&) const = default;
};

struct ErrorSettings {
   ErrorResponder::TriState enabled;
   bool addHostName = false;
   uint8_t nodeIdCodePoint = 0;
   uint32_t ringBufferSize = 0;  // bytes; 0 keeps the kernel program's default
   uint32_t vrfMapSize = 0;
   std::map<VrfName, ErrorVrfSettings> vrfs;
   bool operator==(const ErrorSettings&) const = default;
};

struct RavelConfig {
   ProbeSettings probe;
   ErrorSettings errorResponder;
   std::map<std::string, AclList> ipv4Acls;
   std::map<std::string, AclList> ipv6Acls;
   bool operator==(const RavelConfig&) const = default;
};

// Throws ConfigError. A VRF may name an ACL that is not (yet) defined: it then filters
// nothing until the list appears, as on most routers.
RavelConfig parseConfigFile(const std::string& path);
RavelConfig parseConfigText(const std::string& text, const std::string& fileName);
// YAML of a configuration, every default written out.
std::string renderConfig(const RavelConfig& config);

}  // namespace Ravel
