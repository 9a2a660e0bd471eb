#include "platform/core/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Ravel {

void assertFailed(const char* cond, const char* file, int line, const char* msg) {
   if (msg) {
      std::fprintf(stderr, "%s\n", msg);
   }
   std::fprintf(stderr, "assertion failed: %s (%s:%d)\n", cond, file, line);
   std::fflush(stderr);
   std::abort();
}

}  // namespace Ravel
