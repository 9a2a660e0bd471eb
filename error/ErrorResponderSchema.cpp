#include "error/ErrorResponderSchema.h"

#include <ostream>

namespace Ravel::ErrorResponder {

std::ostream& operator<<(std::ostream& os, const TriState& t) {
   return os << t.str();
}

std::string NodeIdVrfConfig::str() const {
   return fmt::format("ipv4 {} ipv6 {} interface {}", ipv4.isV4() ? ipv4.str() : "-",
                      ipv6.isV6() ? ipv6.str() : "-", interface.empty() ? "-" : interface.str());
}

std::ostream& operator<<(std::ostream& os, const NodeIdVrfConfig& n) {
   return os << n.str();
}

RAVEL_REGISTER_ENTITY(Config);
RAVEL_REGISTER_ENTITY(EbpfConfig);

}  // namespace Ravel::ErrorResponder
