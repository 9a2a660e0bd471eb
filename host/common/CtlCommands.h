#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace Ravel::host {

struct UsageError : std::invalid_argument {
   using std::invalid_argument::invalid_argument;
};

// The value of option `opt`: a whole number from lo to hi, else UsageError saying so. A sign,
// spaces or trailing text are errors ("-1" does not wrap around).
unsigned optionNumber(const std::string& opt, const std::string& text, unsigned lo, unsigned hi);

// Runs one ravelctl command; returns the exit status. Throws UsageError for bad arguments and
// std::runtime_error (one line) when the daemon cannot be reached.
int runCtlCommand(const std::string& socketPath, const std::vector<std::string>& args);

}  // namespace Ravel::host
