#pragma once

#include <stdexcept>
#include <string>

namespace Ravel {

// Thrown by platform operations that fail with an operating-system error. The process errno is
// left set to the same value, so callers can inspect either.
class Errno : public std::runtime_error {
 public:
   Errno(int err, const std::string& what);
   int errnoValue() const noexcept { return errno_; }

 private:
   int errno_;
};

// Throws Errno for the current errno, prefixed with `what`.
[[noreturn]] void throwErrno(const std::string& what);

}  // namespace Ravel
