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

const char* toString(AfCounterId id) {
   switch (id) {
      case AfCounterId::ringBufQueued:
         return "ringBufQueued";
      case AfCounterId::pktInfoReceived:
         return "pktInfoReceived";
      case AfCounterId::ringBufDropped:
         return "ringBufDropped";
      case AfCounterId::invalidDataSize:
         return "invalidDataSize";
      case AfCounterId::insufficientDataLen:
         return "insufficientDataLen";
      case AfCounterId::nsValidationFailed:
         return "nsValidationFailed";
      case AfCounterId::pktInfoProcessed:
         return "pktInfoProcessed";
   }
   return "unknown";
}

const char* toString(VrfCounterId id) {
   switch (id) {
      case VrfCounterId::replyAttempted:
         return "replyAttempted";
      case VrfCounterId::pamNotFound:
         return "pamNotFound";
      case VrfCounterId::rfc792ErrorSent:
         return "rfc792ErrorSent";
      case VrfCounterId::extendedErrorSent:
         return "extendedErrorSent";
      case VrfCounterId::replySendFailed:
         return "replySendFailed";
      case VrfCounterId::leftToKernel:
         return "leftToKernel";
   }
   return "unknown";
}

RAVEL_REGISTER_ENTITY(Config);
RAVEL_REGISTER_ENTITY(Status);
RAVEL_REGISTER_ENTITY(EbpfConfig);

}  // namespace Ravel::ErrorResponder
