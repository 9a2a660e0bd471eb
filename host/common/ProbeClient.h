#pragma once

#include <string>
#include <vector>

#include "platform/values/Values.h"

namespace Ravel::host {

// `ravelctl probe ...`: an RFC 8335 client (stock ping cannot send PROBE). Returns 0 only if
// every request got a reply with code 0 (No Error), 1 otherwise.
int runProbe(const std::vector<std::string>& args);

// An address from its text, or a host name through getaddrinfo; `family` is AF_INET, AF_INET6
// or AF_UNSPEC. Throws UsageError when an address does not fit `family`, std::runtime_error
// when a name does not resolve.
IpGenAddr resolveHost(const std::string& target, int family);

}  // namespace Ravel::host
