#include "ServerClient/Common/Json.h"

namespace kel {

bool jsonDepthWithin(std::string_view text, std::size_t maxDepth) noexcept {
  std::size_t depth = 0;
  bool inString = false;
  bool escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    switch (c) {
      case '"':
        inString = true;
        break;
      case '[':
      case '{':
        if (++depth > maxDepth) return false;
        break;
      case ']':
      case '}':
        // Unbalanced closers are the parser's business; only the depth matters here.
        if (depth > 0) --depth;
        break;
      default:
        break;
    }
  }
  return true;
}

std::optional<nlohmann::json> parseJson(std::string_view text, std::size_t maxDepth) noexcept {
  // nlohmann stops reading at a NUL byte, which would let trailing junk pass unseen.
  if (text.find('\0') != std::string_view::npos) return std::nullopt;
  if (!jsonDepthWithin(text, maxDepth)) return std::nullopt;
  try {
    auto value = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (value.is_discarded()) return std::nullopt;
    return value;
  } catch (...) {
    // allow_exceptions=false covers syntax errors; this guards allocation failures.
    return std::nullopt;
  }
}

std::optional<std::string> dumpJson(const nlohmann::json& value, int indent) noexcept {
  try {
    return value.dump(indent, ' ', false, nlohmann::json::error_handler_t::strict);
  } catch (...) {
    return std::nullopt;
  }
}

bool isValidUtf8(std::string_view bytes) noexcept {
  const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::size_t n = bytes.size();
  std::size_t i = 0;
  while (i < n) {
    const unsigned char c = s[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t length;
    unsigned char lo = 0x80;
    unsigned char hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      length = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      length = 3;
      if (c == 0xE0) lo = 0xA0;  // overlong
      if (c == 0xED) hi = 0x9F;  // surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4;
      if (c == 0xF0) lo = 0x90;  // overlong
      if (c == 0xF4) hi = 0x8F;  // past U+10FFFF
    } else {
      return false;
    }
    if (i + length > n) return false;
    if (s[i + 1] < lo || s[i + 1] > hi) return false;
    for (std::size_t k = 2; k < length; ++k) {
      if (s[i + k] < 0x80 || s[i + k] > 0xBF) return false;
    }
    i += length;
  }
  return true;
}

std::string utf8TextOrEmpty(std::string_view bytes) {
  return isValidUtf8(bytes) ? std::string(bytes) : std::string();
}

}  // namespace kel
