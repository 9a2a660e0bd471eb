#include "platform/values/Values.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <cstring>
#include <stdexcept>

namespace Ravel {

const char* toString(AddressFamily af) {
   switch (af) {
      case AddressFamily::ipv4:
         return "ipv4";
      case AddressFamily::ipv6:
         return "ipv6";
      default:
         return "ipunknown";
   }
}

VrfName::VrfName(std::string name) : name_(std::move(name)) {
   if (name_.size() > kMaxLen) {
      throw std::out_of_range(
          fmt::format("VRF name longer than {} bytes: {}...", kMaxLen, name_.substr(0, 16)));
   }
}

std::string VrfName::nsName() const {
   return isDefault() ? std::string() : "ns-" + name_;
}

IpGenAddr::IpGenAddr(const in_addr& a) : af_(AddressFamily::ipv4) {
   std::memcpy(b_.data(), &a, 4);
}
IpGenAddr::IpGenAddr(const in6_addr& a) : af_(AddressFamily::ipv6) {
   std::memcpy(b_.data(), &a, 16);
}
IpGenAddr IpGenAddr::v4(uint32_t hostOrder) {
   in_addr a{htonl(hostOrder)};
   return IpGenAddr(a);
}

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text) {
   std::string s(text);
   in_addr a4{};
   if (inet_pton(AF_INET, s.c_str(), &a4) == 1)
      return IpGenAddr(a4);
   in6_addr a6{};
   if (inet_pton(AF_INET6, s.c_str(), &a6) == 1)
      return IpGenAddr(a6);
   return std::nullopt;
}

std::optional<IpGenAddr> IpGenAddr::fromBytes(std::span<const uint8_t> bytes) {
   IpGenAddr r;
   if (bytes.size() == 4) {
      r.af_ = AddressFamily::ipv4;
   } else if (bytes.size() == 16) {
      r.af_ = AddressFamily::ipv6;
   } else {
      return std::nullopt;
   }
   std::memcpy(r.b_.data(), bytes.data(), bytes.size());
   return r;
}

std::span<const uint8_t> IpGenAddr::bytes() const {
   return {b_.data(), isV4() ? 4u : isV6() ? 16u : 0u};
}
in_addr IpGenAddr::v4Addr() const {
   in_addr a{};
   std::memcpy(&a, b_.data(), 4);
   return a;
}
in6_addr IpGenAddr::v6Addr() const {
   in6_addr a{};
   std::memcpy(&a, b_.data(), 16);
   return a;
}
bool IpGenAddr::isZero() const {
   for (uint8_t b : bytes()) {
      if (b)
         return false;
   }
   return true;
}

std::string IpGenAddr::str() const {
   char buf[INET6_ADDRSTRLEN] = {};
   if (isV4())
      return inet_ntop(AF_INET, b_.data(), buf, sizeof buf);
   if (isV6())
      return inet_ntop(AF_INET6, b_.data(), buf, sizeof buf);
   return "";
}

namespace {
void checkDeviceName(std::string_view name) {
   if (name.empty())
      throw std::invalid_argument("empty interface name");
   if (name.size() >= IFNAMSIZ) {
      throw std::invalid_argument(fmt::format("interface name longer than {} bytes", IFNAMSIZ - 1));
   }
   if (name == "." || name == "..")
      throw std::invalid_argument("interface name is . or ..");
   for (unsigned char c : name) {
      if (c <= ' ' || c == '/' || c == ':' || c == 0x7f) {
         throw std::invalid_argument(
             fmt::format("invalid character 0x{:02x} in interface name", c));
      }
   }
}
}  // namespace

IntfId::IntfId(std::string_view name) {
   // Trailing NULs come from fixed-size fields (RFC 8335 pads names to 4 bytes).
   while (!name.empty() && name.back() == '\0')
      name.remove_suffix(1);
   // "<vrf>/<device>" names an interface of a VRF's namespace. Linux forbids '/' in device
   // names, so the qualified form can never collide with a real device of the default VRF.
   if (auto slash = name.find('/'); slash != std::string_view::npos) {
      std::string_view vrf = name.substr(0, slash);
      if (vrf.empty() || vrf.size() > VrfName::kMaxLen) {
         throw std::invalid_argument("invalid VRF part in interface name");
      }
      if (vrf == "default") {
         name.remove_prefix(slash + 1);  // the default VRF's interfaces are unqualified
      } else {
         checkDeviceName(name.substr(slash + 1));
         name_ = name;
         return;
      }
   }
   checkDeviceName(name);
   name_ = name;
}

IntfId IntfId::forDevice(const VrfName& vrf, std::string_view device) {
   IntfId r;
   r.name_ = vrf.isDefault() ? std::string(device) : vrf.str() + "/" + std::string(device);
   return r;
}

std::string IntfId::deviceName() const {
   auto slash = name_.find('/');
   return slash == std::string::npos ? name_ : name_.substr(slash + 1);
}

IntfId IntfId::fromKernelName(std::string name) {
   IntfId r;
   r.name_ = std::move(name);
   return r;
}

std::string VrfNameAndAddressFamily::str() const {
   return fmt::format("{} {}", vrf.str(), toString(af));
}

}  // namespace Ravel
