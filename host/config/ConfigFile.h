#pragma once

// The daemon's YAML configuration file, parsed into plain values. Pure: no state store.

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#include "error/ErrorResponderSchema.h"
#include "platform/store/Acl.h"
#include "probe/ProbeSchema.h"

namespace Ravel {

// One line: "<file>:<line>: <what> (key <dotted.key>)"; without the line or key when there is
// none (an unreadable file, a YAML syntax error).
struct ConfigError : std::runtime_error {
   using std::runtime_error::runtime_error;
};

struct ProbeSettings {
   // RFC 8335 section 6: the responder is off unless configured, so is every request type.
   bool enabled = false;
   bool ifname = false;
   bool ifindex = false;
   bool ifaddr = false;
   bool remote = false;
   uint32_t maxQueueLength = 1024;  // the responder entity's own default
   ProbeResponder::SourceLists sources;
   ProbeResponder::RateLimitSettings rateLimit;
   std::map<VrfName, ProbeResponder::VrfOverrides> vrfs;
   bool operator==(const ProbeSettings&) const = default;
};

struct ErrorVrfSettings {
   ErrorResponder::TriState enabled;
   std::string ipv4Acl;  // empty: none
   std::string ipv6Acl;
   ErrorResponder::NodeIdVrfConfig nodeId;
   ErrorResponder::Disclosure interfaceInfo;
   bool operator==(const ErrorVrfSettings&) const = default;
};

struct ErrorSettings {
   ErrorResponder::TriState enabled;
   bool addHostName = false;
   uint8_t nodeIdCodePoint = 0;  // 0: no node identification object
   uint32_t ringBufferSize = 0;  // bytes; 0 keeps the kernel program's default
   uint32_t vrfMapSize = 0;      // entries; 0 keeps the kernel program's default
   std::map<VrfName, ErrorVrfSettings> vrfs;
   bool suppressKernelErrors = true;  // drop the kernel's own errors where ours are on
   bool operator==(const ErrorSettings&) const = default;
};

// ACL protocols that have a name in the file; the others are numbers.
inline constexpr std::pair<const char*, uint8_t> kProtocolNames[] = {
    {"icmp", 1}, {"tcp", 6}, {"udp", 17}, {"icmpv6", 58}};

struct RavelConfig {
   ProbeSettings probe;
   ErrorSettings errorResponder;
   std::map<std::string, AclList> ipv4Acls;
   std::map<std::string, AclList> ipv6Acls;
   bool operator==(const RavelConfig&) const = default;
};

// Both throw ConfigError. Decisions beyond the format itself:
// - "~" (null) means "not set" where not set is a state of its own: the tri-states, a VRF's ACL
//   names and node-id members. Elsewhere a null value is a type error.
// - A VRF may name an ACL that is not (yet) defined: it filters nothing until the list appears,
//   as on most routers.
// - Prefixes with host bits set, duplicate keys and files of several YAML documents are errors.
// - ring-buffer-size is 0 or a power of two that is a multiple of the page size, as the kernel
//   requires of BPF ring buffers.
RavelConfig parseConfigFile(const std::string& path);
RavelConfig parseConfigText(const std::string& text, const std::string& fileName);

// YAML of a configuration with every key written out, unset ones as "~"; it parses back to `c`.
std::string renderConfig(const RavelConfig& c);

}  // namespace Ravel
