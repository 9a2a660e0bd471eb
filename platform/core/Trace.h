#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace Ravel {

// One category per source file, levels 0-8: 0 and 1 failures, 3 entry points, 4 decisions,
// 5-8 per-packet detail. Two sinks: the text trace on stderr, selected by the RAVEL_TRACE
// environment variable (see README), and the ring-file recorder (Lumen) once initialised.
class TraceCategory {
 public:
   static constexpr int kLevels = 10;
   static TraceCategory& get(const char* name);

   const char* name() const { return name_; }
   bool textEnabled(int level) const { return (textMask_ >> level) & 1u; }
   bool enabled(int level) const;
   void emit(int level, const char* func, std::string_view msg) const;

   // Re-reads the selection (RAVEL_TRACE, or `spec` when given) for every category.
   static void configure(const std::string& spec);
   static void configureFromEnv();

 private:
   explicit TraceCategory(const char* name) : name_(name) {}
   const char* name_;
   uint32_t textMask_ = 0;
};

}  // namespace Ravel

// Declares this file's category; TRACE then writes to it.
#define RAVEL_TRACE_CATEGORY(name) \
   static ::Ravel::TraceCategory& ravelTraceCategory_ = ::Ravel::TraceCategory::get(name)

#define TRACE(level, ...)                                                       \
   do {                                                                         \
      if (ravelTraceCategory_.enabled(level)) {                                 \
         ravelTraceCategory_.emit(level, __func__, ::fmt::format(__VA_ARGS__)); \
      }                                                                         \
   } while (0)
