#pragma once

#include <string_view>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/Decoding.h"
#include "ServerClient/Common/SDKError.h"

namespace kel {

/// A record that can be decoded from JSON: nlohmann finds a from_json for it (lists of records
/// qualify as well).
template <class T>
concept ModelType = requires(const nlohmann::json& json) {
  json.template get<T>();
};

namespace detail {
/// Logs the decoder's complaint and throws GenericError(decoding(data as text)).
[[noreturn]] void failModelDecoding(std::string_view data, std::string_view reason);
}  // namespace detail

/// Decoding of records received from the server.
struct Model {
  Model() = delete;

  /// Decodes a T from JSON bytes. On failure the decoder's error text is logged at error level
  /// ("Decode error: ...") and GenericError of kind decoding is thrown, carrying `data` as text
  /// (empty when it is not valid UTF-8) and an empty description.
  template <ModelType T>
  static T from(std::string_view data) {
    try {
      return kel::from<T>(data);
    } catch (const GenericError& error) {
      detail::failModelDecoding(data, error.description());
    }
  }
};

}  // namespace kel
