#pragma once

// Golden bytes written as hex text, and addresses from their text, for packet tests.

#include <cstdint>
#include <string>
#include <vector>

#include "platform/values/Values.h"

namespace Ravel::test {

using Bytes = std::vector<uint8_t>;

// "45 00 00 1c": spaces are ignored.
inline Bytes hex(std::string s) {
   std::erase(s, ' ');
   Bytes out;
   for (size_t i = 0; i + 1 < s.size(); i += 2)
      out.push_back(static_cast<uint8_t>(std::stoi(s.substr(i, 2), nullptr, 16)));
   return out;
}

inline IpGenAddr ip(const char* text) {
   return *IpGenAddr::parse(text);
}

}  // namespace Ravel::test
