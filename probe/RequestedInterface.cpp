#include "probe/RequestedInterface.h"

#include <charconv>
#include <stdexcept>

#include <fmt/format.h>

namespace Ravel::ProbeResponder {

std::string RequestedInterface::str() const {
   std::string core;
   if (containsIfIndex()) {
      core = fmt::format("ifIndex={}", ifIndexValue());
   } else if (containsIfName()) {
      core = "ifName=" + ifNameValue();
   } else {
      core = "ifAddr=" + ifAddrValue().str();
   }
   return "Value('Ravel::ProbeResponder::RequestedInterface', " + core + ")";
}

RequestedInterface RequestedInterface::fromString(std::string_view text) {
   constexpr std::string_view prefix = "Value('Ravel::ProbeResponder::RequestedInterface', ";
   if (text.starts_with(prefix) && text.ends_with(")")) {
      text = text.substr(prefix.size(), text.size() - prefix.size() - 1);
   }
   auto eq = text.find('=');
   if (eq == std::string_view::npos) {
      throw std::invalid_argument("Invalid string rep for RequestedInterface");
   }
   std::string_view alt = text.substr(0, eq);
   std::string_view value = text.substr(eq + 1);
   if (alt == "ifIndex") {
      int32_t i = 0;
      auto [p, ec] = std::from_chars(value.data(), value.data() + value.size(), i);
      if (ec != std::errc() || p != value.data() + value.size()) {
         throw std::invalid_argument("Invalid string rep for RequestedInterface");
      }
      return ifIndex(i);
   }
   if (alt == "ifName")
      return ifName(std::string(value));
   if (alt == "ifAddr") {
      auto a = IpGenAddr::parse(value);
      if (!a)
         throw std::invalid_argument("Invalid string rep for RequestedInterface");
      return ifAddr(*a);
   }
   throw std::invalid_argument(
       fmt::format("Invalid string rep for RequestedInterface: unknown alternative {}", alt));
}

}  // namespace Ravel::ProbeResponder
