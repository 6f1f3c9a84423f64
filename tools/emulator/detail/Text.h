#pragma once

#include <string>
#include <string_view>

namespace kel::emulator::detail {

/// ASCII upper case; methods and header names are ASCII.
inline std::string upperCase(std::string_view text) {
  std::string result(text);
  for (auto& c : result) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return result;
}

}  // namespace kel::emulator::detail
