#include "platform/config/FeatureToggle.h"

#include <cstdlib>
#include <fstream>

#include <nlohmann/json.hpp>

#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("FeatureToggle");

namespace Ravel {

std::string featureToggleDir() {
   const char* env = std::getenv("RAVEL_TOGGLE_DIR");
   return env && *env ? env : kDefaultToggleDir;
}

bool featureToggleEnabled(const std::string& file, const std::string& toggle, bool dflt) {
   std::string path = featureToggleDir() + "/" + file;
   std::ifstream in(path);
   if (!in)
      return dflt;
   try {
      auto j = nlohmann::json::parse(in);
      auto it = j.find(toggle);
      if (it != j.end() && it->is_boolean())
         return it->get<bool>();
   } catch (const std::exception& e) {
      TRACE(1, "{}: {}", path, e.what());
   }
   return dflt;
}

}  // namespace Ravel
