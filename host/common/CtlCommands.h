#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace Ravel::host {

struct UsageError : std::invalid_argument {
   using std::invalid_argument::invalid_argument;
};

// Runs one ravelctl command; returns the exit status. Throws UsageError for bad arguments and
// std::runtime_error (one line) when the daemon cannot be reached.
int runCtlCommand(const std::string& socketPath, const std::vector<std::string>& args);

}  // namespace Ravel::host
