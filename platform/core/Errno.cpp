#include "platform/core/Errno.h"

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

namespace Ravel {

Errno::Errno(int err, const std::string& what)
    : std::runtime_error(fmt::format("{}: {}", what, std::strerror(err))), errno_(err) {}

void throwErrno(const std::string& what) {
   int err = errno;
   Errno e(err, what);
   errno = err;
   throw e;
}

}  // namespace Ravel
