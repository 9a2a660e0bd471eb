#pragma once

#include <netinet/in.h>

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace Ravel {

enum class AddressFamily : uint8_t { ipunknown = 0, ipv4 = 1, ipv6 = 2 };
const char* toString(AddressFamily af);

// A VRF's name; the default VRF is "default". Longer than kMaxLen is a range error.
class VrfName {
 public:
   static constexpr size_t kMaxLen = 100;
   VrfName() = default;
   VrfName(std::string name);  // throws std::out_of_range
   VrfName(const char* name) : VrfName(std::string(name)) {}
   static VrfName defaultVrf() { return VrfName("default"); }

   const std::string& str() const { return name_; }
   bool isDefault() const { return name_ == "default"; }
   // Name of the network namespace the VRF lives in: empty for the default VRF (the agent's own).
   std::string nsName() const;

   auto operator<=>(const VrfName&) const = default;
   bool operator==(const VrfName&) const = default;

 private:
   std::string name_;
};

using NsInode = uint64_t;

// An IPv4 or IPv6 address with its family; the unknown family is the empty address.
class IpGenAddr {
 public:
   IpGenAddr() = default;
   explicit IpGenAddr(const in_addr& a);
   explicit IpGenAddr(const in6_addr& a);
   static IpGenAddr v4(uint32_t hostOrder);
   // Parses dotted-quad or RFC 4291 text; nullopt on failure.
   static std::optional<IpGenAddr> parse(std::string_view text);
   // From raw bytes in network order: 4 bytes IPv4, 16 bytes IPv6.
   static std::optional<IpGenAddr> fromBytes(std::span<const uint8_t> bytes);

   AddressFamily af() const { return af_; }
   bool isV4() const { return af_ == AddressFamily::ipv4; }
   bool isV6() const { return af_ == AddressFamily::ipv6; }
   std::span<const uint8_t> bytes() const;  // 4, 16 or 0 bytes
   in_addr v4Addr() const;
   in6_addr v6Addr() const;
   bool isZero() const;
   std::string str() const;

   auto operator<=>(const IpGenAddr&) const = default;
   bool operator==(const IpGenAddr&) const = default;

 private:
   AddressFamily af_ = AddressFamily::ipunknown;
   std::array<uint8_t, 16> b_{};
};

// Interface identifier, made from an interface name. The empty IntfId means "none".
class IntfId {
 public:
   IntfId() = default;
   // Parses and normalises an interface name: a Linux device name for the default VRF, or
   // "<vrf>/<device>" for a device in VRF <vrf>'s namespace ("default/eth0" is "eth0").
   // Throws std::invalid_argument with a message when the name cannot be one.
   explicit IntfId(std::string_view name);
   static IntfId forDevice(const VrfName& vrf, std::string_view device);
   static IntfId fromKernelName(std::string name);  // trusted: the kernel gave it

   std::string deviceName() const;

   const std::string& str() const { return name_; }
   bool empty() const { return name_.empty(); }
   auto operator<=>(const IntfId&) const = default;
   bool operator==(const IntfId&) const = default;

 private:
   std::string name_;
};

struct VrfNameAndAddressFamily {
   VrfName vrf;
   AddressFamily af = AddressFamily::ipunknown;
   std::string str() const;
   auto operator<=>(const VrfNameAndAddressFamily&) const = default;
   bool operator==(const VrfNameAndAddressFamily&) const = default;
};

}  // namespace Ravel

template <>
struct fmt::formatter<Ravel::AddressFamily> : fmt::formatter<std::string_view> {
   auto format(Ravel::AddressFamily v, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(Ravel::toString(v), ctx);
   }
};
#define RAVEL_STR_FORMATTER(T)                                                       \
   template <>                                                                       \
   struct fmt::formatter<T> : fmt::formatter<std::string_view> {                     \
      auto format(const T& v, format_context& ctx) const {                           \
         return fmt::formatter<std::string_view>::format(std::string(v.str()), ctx); \
      }                                                                              \
   }
RAVEL_STR_FORMATTER(Ravel::VrfName);
RAVEL_STR_FORMATTER(Ravel::IpGenAddr);
RAVEL_STR_FORMATTER(Ravel::IntfId);
RAVEL_STR_FORMATTER(Ravel::VrfNameAndAddressFamily);
