#pragma once

#include <string>

namespace Ravel {

// Feature toggles live in JSON files ("Ravel.json") in the toggle directory: $RAVEL_TOGGLE_DIR,
// default kDefaultToggleDir. A file maps toggle names to booleans, e.g.
// {"IcmpExtendedErrorResponderNdVrf": false}. A missing file, toggle or unreadable value
// gives the default.
constexpr const char* kDefaultToggleDir = "/etc/ravel/toggles";
std::string featureToggleDir();
bool featureToggleEnabled(const std::string& file, const std::string& toggle, bool dflt);

}  // namespace Ravel
