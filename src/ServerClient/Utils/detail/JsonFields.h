#pragma once

// Strict field readers for the session records: a missing key or a value of another JSON type
// throws, and kel::from turns the exception into the decoding error. Integers must be written as
// integers: 5.0 or "5" is a mistyped value, not a 5. Floating numbers take any JSON number, but
// neither a text nor a truth value.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include <nlohmann/json.hpp>

#include "ServerClient/Socket/Model/detail/JsonInteger.h"

namespace kel::detail {

inline const nlohmann::json& requiredMember(const nlohmann::json& json, std::string_view key) {
  if (!json.is_object())
    throw std::invalid_argument("expected an object holding \"" + std::string(key) + "\"");
  const auto it = json.find(key);
  if (it == json.end()) throw std::invalid_argument("missing key \"" + std::string(key) + "\"");
  return *it;
}

template <class T>
void readRequired(const nlohmann::json& json, std::string_view key, T& out) {
  const auto& value = requiredMember(json, key);
  if constexpr (std::is_same_v<T, std::int64_t>) {
    const auto integer = jsonInt64(value);
    if (!integer) throw std::invalid_argument("\"" + std::string(key) + "\" is not an integer");
    out = *integer;
  } else if constexpr (std::is_same_v<T, double>) {
    // nlohmann would read true as 1.
    if (!value.is_number())
      throw std::invalid_argument("\"" + std::string(key) + "\" is not a number");
    out = value.template get<double>();
  } else {
    value.get_to(out);
  }
}

/// The member's value when present and not null; throws when it holds something else than T.
template <class T>
std::optional<T> readOptional(const nlohmann::json& json, std::string_view key) {
  if (!json.is_object()) throw std::invalid_argument("expected an object");
  const auto it = json.find(key);
  if (it == json.end() || it->is_null()) return std::nullopt;
  if constexpr (std::is_same_v<T, double>) {
    if (!it->is_number())
      throw std::invalid_argument("\"" + std::string(key) + "\" is not a number");
  }
  return it->template get<T>();
}

inline std::optional<std::string> readOptionalText(const nlohmann::json& json,
                                                   std::string_view key) {
  return readOptional<std::string>(json, key);
}

}  // namespace kel::detail
