#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "platform/values/Values.h"

namespace Ravel::ProbeResponder {

// The interface an Interface Identification Object names (RFC 8335 section 2.1).
class RequestedInterface {
 public:
   using Value = std::variant<int32_t, std::string, IpGenAddr>;  // ifIndex, ifName, ifAddr

   RequestedInterface() : v_(int32_t{0}) {}
   static RequestedInterface ifIndex(int32_t i) { return RequestedInterface(Value(i)); }
   static RequestedInterface ifName(std::string n) {
      return RequestedInterface(Value(std::move(n)));
   }
   static RequestedInterface ifAddr(IpGenAddr a) { return RequestedInterface(Value(a)); }

   bool containsIfIndex() const { return v_.index() == 0; }
   bool containsIfName() const { return v_.index() == 1; }
   bool containsIfAddr() const { return v_.index() == 2; }
   // Reading an alternative that is not held throws std::bad_variant_access.
   int32_t ifIndexValue() const { return std::get<0>(v_); }
   const std::string& ifNameValue() const { return std::get<1>(v_); }
   const IpGenAddr& ifAddrValue() const { return std::get<2>(v_); }

   // "Value('Ravel::ProbeResponder::RequestedInterface', ifName=eth0)"
   std::string str() const;
   // Accepts the text form or its "<alternative>=<value>" core; throws std::invalid_argument.
   static RequestedInterface fromString(std::string_view text);

   auto operator<=>(const RequestedInterface&) const = default;
   bool operator==(const RequestedInterface&) const = default;

 private:
   explicit RequestedInterface(Value v) : v_(std::move(v)) {}
   Value v_;
};

}  // namespace Ravel::ProbeResponder
