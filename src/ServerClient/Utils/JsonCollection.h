#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/SDKError.h"

namespace kel {

namespace detail {
/// Throws GenericError(encoding("")) unless `json` is an object that serialises to valid JSON:
/// every text valid UTF-8 and every number finite (nlohmann would silently write NaN as null).
void requireEncodedObject(const nlohmann::json& json);
}  // namespace detail

/// The JSON object a value encodes to (through its nlohmann to_json). Throws GenericError of kind
/// encoding, with empty text and description, when encoding fails or the value does not encode
/// to an object; the underlying failure is dropped. There are no encoding options: nlohmann
/// objects are always mutable.
template <class T>
nlohmann::json toCollection(const T& value) {
  nlohmann::json json;
  try {
    json = value;
  } catch (const std::exception&) {
    throw GenericError(GenericErrorType::encoding({}));
  }
  detail::requireEncodedObject(json);
  return json;
}

/// The object or array held under `key` in the JSON object `data`, serialised again
/// pretty-printed (two spaces per level). Throws GenericError of kind decoding, carrying the
/// whole of `data` as text (empty when it is not valid UTF-8) and an empty description, when
/// `data` is not JSON, not an object, lacks `key`, or holds a number, text, truth value or null
/// under it.
std::string dataFor(std::string_view data, std::string_view key);

}  // namespace kel
