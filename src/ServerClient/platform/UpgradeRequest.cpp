#include "ServerClient/platform/UpgradeRequest.h"

#include <algorithm>
#include <stdexcept>

namespace kel::platform {

namespace {

// RFC 9110 token characters.
bool isTokenChar(char c) noexcept {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isToken(std::string_view text) noexcept {
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenChar);
}

bool isSafeValue(std::string_view value) noexcept {
  return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

char lower(char c) noexcept {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool sameName(std::string_view a, std::string_view b) noexcept {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                            [](char x, char y) { return lower(x) == lower(y); });
}

}  // namespace

void UpgradeRequest::setHeaderField(std::string_view name, std::string value) {
  if (!isToken(name)) {
    throw std::invalid_argument("UpgradeRequest: invalid header field name \"" + std::string(name) +
                                "\"");
  }
  if (!isSafeValue(value)) {
    throw std::invalid_argument("UpgradeRequest: header field \"" + std::string(name) +
                                "\" has a line break or NUL in its value");
  }
  for (auto& field : fields_) {
    if (sameName(field.first, name)) {
      field.second = std::move(value);
      return;
    }
  }
  fields_.emplace_back(std::string(name), std::move(value));
}

bool UpgradeRequest::removeHeaderField(std::string_view name) {
  const auto removed =
      std::erase_if(fields_, [&](const HeaderField& field) { return sameName(field.first, name); });
  return removed > 0;
}

std::optional<std::string> UpgradeRequest::headerField(std::string_view name) const {
  for (const auto& field : fields_) {
    if (sameName(field.first, name)) return field.second;
  }
  return std::nullopt;
}

}  // namespace kel::platform
