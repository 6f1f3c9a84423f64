#pragma once

// Inbound JSON is parsed only through parseJson: it never throws, and it refuses texts nested
// deeper than kMaxJsonDepth before nlohmann builds anything. nlohmann parses very deep
// documents iteratively but copies and dumps them recursively, so a hostile 100,000-deep array
// would parse fine and then overflow the stack the first time the library copies or logs it.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace kel {

/// Deepest nesting of arrays and objects accepted from the outside. The server's records nest
/// a handful of levels; 128 leaves ample room while keeping recursion shallow.
inline constexpr std::size_t kMaxJsonDepth = 128;

/// Parses `text` as JSON (any top-level value). Nothing when it is not valid JSON, not valid
/// UTF-8, holds a NUL byte anywhere, or is nested deeper than `maxDepth`.
std::optional<nlohmann::json> parseJson(std::string_view text,
                                        std::size_t maxDepth = kMaxJsonDepth) noexcept;

/// True when `text`'s arrays and objects nest at most `maxDepth` levels (brackets inside
/// strings do not count). Stops scanning as soon as the limit is passed.
bool jsonDepthWithin(std::string_view text, std::size_t maxDepth) noexcept;

/// Serialises `value`: compact when `indent` is negative, otherwise pretty-printed with that
/// many spaces per level. Nothing when a string holds invalid UTF-8.
std::optional<std::string> dumpJson(const nlohmann::json& value, int indent = -1) noexcept;

/// True when `bytes` is well-formed UTF-8 (no overlongs, surrogates or values past U+10FFFF).
bool isValidUtf8(std::string_view bytes) noexcept;

/// `bytes` as text when it is valid UTF-8, otherwise the empty text.
std::string utf8TextOrEmpty(std::string_view bytes);

}  // namespace kel
