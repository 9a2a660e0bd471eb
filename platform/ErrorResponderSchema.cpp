#include "platform/ErrorResponderSchema.h"

namespace Ravel::ErrorResponder {

std::string NodeIdVrfConfig::str() const {
   return fmt::format("ipv4 {} ipv6 {} interface {}", ipv4.str().empty() ? "-" : ipv4.str(),
                      ipv6.str().empty() ? "-" : ipv6.str(),
                      interface.empty() ? "-" : interface.str());
}

RAVEL_REGISTER_ENTITY(Config);
RAVEL_REGISTER_ENTITY(EbpfConfig);

}  // namespace Ravel::ErrorResponder
