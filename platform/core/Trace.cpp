#include "platform/core/Trace.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/core/Lumen.h"

namespace Ravel {

namespace {

struct Selection {
   std::string category;  // "*" for all
   uint32_t mask;
};

std::vector<Selection>& selections() {
   static std::vector<Selection> s;
   return s;
}

std::map<std::string, std::unique_ptr<TraceCategory>, std::less<>>& registry() {
   static std::map<std::string, std::unique_ptr<TraceCategory>, std::less<>> r;
   return r;
}

bool& configured() {
   static bool c = false;
   return c;
}

// "0-8", "3", "0,3,5-6"
uint32_t parseLevels(std::string_view s) {
   uint32_t mask = 0;
   while (!s.empty()) {
      auto comma = s.find(';');
      std::string_view part = s.substr(0, comma);
      auto dash = part.find('-');
      int lo = std::atoi(std::string(part.substr(0, dash)).c_str());
      int hi = dash == std::string_view::npos
                   ? lo
                   : std::atoi(std::string(part.substr(dash + 1)).c_str());
      for (int l = lo; l <= hi && l < TraceCategory::kLevels; ++l)
         mask |= 1u << l;
      if (comma == std::string_view::npos)
         break;
      s.remove_prefix(comma + 1);
   }
   return mask;
}

uint32_t maskFor(std::string_view name) {
   uint32_t mask = 0;
   for (auto& sel : selections()) {
      if (sel.category == "*" || sel.category == name)
         mask = sel.mask;
   }
   return mask;
}

}  // namespace

TraceCategory& TraceCategory::get(const char* name) {
   if (!configured())
      configureFromEnv();
   auto& r = registry();
   auto it = r.find(name);
   if (it == r.end()) {
      auto* c = new TraceCategory(name);
      c->textMask_ = maskFor(name);
      it = r.emplace(name, std::unique_ptr<TraceCategory>(c)).first;
   }
   return *it->second;
}

bool TraceCategory::enabled(int level) const {
   return textEnabled(level) || lumen::active();
}

void TraceCategory::emit(int level, const char* func, std::string_view msg) const {
   if (lumen::active())
      lumen::record(level, name_, func, msg);
   if (!textEnabled(level))
      return;
   timeval tv{};
   gettimeofday(&tv, nullptr);
   tm t{};
   localtime_r(&tv.tv_sec, &t);
   char ts[32];
   std::strftime(ts, sizeof ts, "%H:%M:%S", &t);
   std::fprintf(stderr, "%s.%06ld %d %s %d %s: %.*s\n", ts, static_cast<long>(tv.tv_usec),
                static_cast<int>(getpid()), name_, level, func, static_cast<int>(msg.size()),
                msg.data());
}

// RAVEL_TRACE="Category/levels,..." where levels is "N", "N-M" or a ';'-separated list and
// Category may be "*". Later entries override earlier ones. Default: "*/0-1".
void TraceCategory::configure(const std::string& spec) {
   configured() = true;
   auto& sels = selections();
   sels.clear();
   sels.push_back({"*", 0x3});
   std::string_view s(spec);
   while (!s.empty()) {
      auto comma = s.find(',');
      std::string_view item = s.substr(0, comma);
      auto slash = item.find('/');
      if (slash != std::string_view::npos) {
         sels.push_back({std::string(item.substr(0, slash)), parseLevels(item.substr(slash + 1))});
      } else if (!item.empty()) {
         sels.push_back({std::string(item), (1u << kLevels) - 1});
      }
      if (comma == std::string_view::npos)
         break;
      s.remove_prefix(comma + 1);
   }
   for (auto& [name, cat] : registry())
      cat->textMask_ = maskFor(name);
}

void TraceCategory::configureFromEnv() {
   const char* env = std::getenv("RAVEL_TRACE");
   configure(env ? env : "");
}

}  // namespace Ravel
