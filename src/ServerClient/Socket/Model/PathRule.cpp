#include "ServerClient/Socket/Model/PathRule.h"

namespace kel {

namespace {

constexpr std::string_view kIdPlaceholder = ":id";

// Replaces left to right and never rescans inserted text, so a value that itself contains ":id"
// is inserted as is.
void replacePlaceholders(std::string& path, std::string_view value) {
  for (std::size_t at = path.find(kIdPlaceholder); at != std::string::npos;
       at = path.find(kIdPlaceholder, at + value.size())) {
    path.replace(at, kIdPlaceholder.size(), value);
  }
}

}  // namespace

std::string_view name(PathRule::Operation operation) noexcept {
  switch (operation) {
    case PathRule::Operation::interpolation:
      return "interpolation";
    case PathRule::Operation::append:
      return "append";
    case PathRule::Operation::query:
      return "query";
  }
  return "unknown";
}

std::string applyPathRules(std::string_view rawPath, std::span<const PathRule> rules) {
  std::string path(rawPath);
  for (const auto& rule : rules) {
    switch (rule.operation) {
      case PathRule::Operation::interpolation:
        replacePlaceholders(path, rule.value);
        break;
      case PathRule::Operation::append:
        path += '/';
        path += rule.value;
        break;
      case PathRule::Operation::query:
        path += rule.value;
        break;
    }
  }
  return path;
}

}  // namespace kel
