#pragma once

// The bits of HTTP's text rules that the cookie storage, the upgrade request, the WebSocket and
// the HTTP client all apply: field names compare without regard to ASCII case, names are tokens,
// and a value may not carry a line break or NUL (it would end the field early and let the value
// inject fields of its own).

#include <algorithm>
#include <string_view>

namespace kel::platform::detail {

constexpr char asciiLower(char c) noexcept {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return asciiLower(x) == asciiLower(y);
         });
}

constexpr bool isTokenChar(char c) noexcept {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

constexpr bool isToken(std::string_view text) noexcept {
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenChar);
}

constexpr bool isFieldValue(std::string_view text) noexcept {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

}  // namespace kel::platform::detail
