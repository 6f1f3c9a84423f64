#include "ServerClient/platform/UpgradeRequest.h"

#include <algorithm>
#include <stdexcept>

#include "ServerClient/platform/detail/HttpText.h"

namespace kel::platform {

namespace {

using detail::equalsIgnoringCase;
using detail::isFieldValue;
using detail::isToken;

}  // namespace

void UpgradeRequest::setHeaderField(std::string_view name, std::string value) {
  if (!isToken(name)) {
    throw std::invalid_argument("UpgradeRequest: invalid header field name \"" + std::string(name) +
                                "\"");
  }
  if (!isFieldValue(value)) {
    throw std::invalid_argument("UpgradeRequest: header field \"" + std::string(name) +
                                "\" has a line break or NUL in its value");
  }
  for (auto& field : fields_) {
    if (equalsIgnoringCase(field.first, name)) {
      field.second = std::move(value);
      return;
    }
  }
  fields_.emplace_back(std::string(name), std::move(value));
}

bool UpgradeRequest::removeHeaderField(std::string_view name) {
  const auto removed = std::erase_if(
      fields_, [&](const HeaderField& field) { return equalsIgnoringCase(field.first, name); });
  return removed > 0;
}

std::optional<std::string> UpgradeRequest::headerField(std::string_view name) const {
  for (const auto& field : fields_) {
    if (equalsIgnoringCase(field.first, name)) return field.second;
  }
  return std::nullopt;
}

}  // namespace kel::platform
