#pragma once

#include <cstdint>
#include <limits>
#include <optional>

#include <nlohmann/json.hpp>

namespace kel::detail {

/// `value` when it is a JSON integer (written without fraction or exponent) that fits a signed
/// 64-bit integer. Floating-point numbers such as 5.0 and booleans are not integers here.
inline std::optional<std::int64_t> jsonInt64(const nlohmann::json& value) noexcept {
  if (value.is_number_unsigned()) {
    const auto unsignedValue = value.get<nlohmann::json::number_unsigned_t>();
    if (unsignedValue > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return std::nullopt;
    }
    return static_cast<std::int64_t>(unsignedValue);
  }
  if (value.is_number_integer()) return value.get<nlohmann::json::number_integer_t>();
  return std::nullopt;
}

}  // namespace kel::detail
