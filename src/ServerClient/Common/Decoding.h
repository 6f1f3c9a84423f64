#pragma once

// Record decoding for data received from the server. A record is any type with an nlohmann
// from_json; every failure becomes GenericError(decoding(the data as text)), never a crash.

#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/Json.h"
#include "ServerClient/Common/SDKError.h"

namespace kel {

namespace detail {
[[noreturn]] void throwDecodingError(std::string_view data, std::string reason);
}  // namespace detail

/// Decodes one record from `json`, already parsed from `data` (which only names it in errors).
template <class T>
T from(const nlohmann::json& json, std::string_view data) {
  try {
    return json.template get<T>();
  } catch (const std::exception& e) {
    detail::throwDecodingError(data, e.what());
  }
}

/// Decodes one record from JSON bytes.
template <class T>
T from(std::string_view data) {
  auto json = parseJson(data);
  if (!json) detail::throwDecodingError(data, "not valid JSON");
  return from<T>(*json, data);
}

/// Decodes a JSON list of records, keeping the list's order.
template <class T>
std::vector<T> fromArray(std::string_view data) {
  auto json = parseJson(data);
  if (!json) detail::throwDecodingError(data, "not valid JSON");
  if (!json->is_array()) detail::throwDecodingError(data, "not a JSON list");
  try {
    return json->template get<std::vector<T>>();
  } catch (const std::exception& e) {
    detail::throwDecodingError(data, e.what());
  }
}

}  // namespace kel
