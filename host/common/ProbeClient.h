#pragma once

#include <string>
#include <vector>

namespace Ravel::host {

// `ravelctl probe ...`: an RFC 8335 client (stock ping cannot send PROBE). Returns 0 only if
// every request got a reply with code 0 (No Error), 1 otherwise.
int runProbe(const std::vector<std::string>& args);

}  // namespace Ravel::host
