#include "probe/PacketParserResult.h"

#include <stdexcept>

#include <fmt/format.h>

namespace Ravel::ProbeResponder {

const char* toString(ParseResultCode c) {
   switch (c) {
      case ParseResultCode::good:
         return "good";
      case ParseResultCode::malformedPacket:
         return "malformedPacket";
      case ParseResultCode::malformedRequest:
         return "malformedRequest";
   }
   return "unknown";
}

ParseResultCode parseResultCodeFromString(std::string_view name) {
   for (auto c : {ParseResultCode::good, ParseResultCode::malformedPacket,
                  ParseResultCode::malformedRequest}) {
      if (name == toString(c))
         return c;
   }
   throw std::invalid_argument(fmt::format("Invalid ParseResultCode {}", name));
}

}  // namespace Ravel::ProbeResponder
