#pragma once

// Broken invariants stop the process with the condition text; operational failures never use
// these (they count and trace instead).

namespace Ravel {
[[noreturn]] void assertFailed(const char* cond, const char* file, int line, const char* msg);
}  // namespace Ravel

#define RAVEL_ASSERT(cond) \
   ((cond) ? (void)0 : ::Ravel::assertFailed(#cond, __FILE__, __LINE__, nullptr))
#define RAVEL_ASSERT_MSG(cond, msg) \
   ((cond) ? (void)0 : ::Ravel::assertFailed(#cond, __FILE__, __LINE__, (msg)))
