#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace kel {

/// What a successful request yields.
struct Resource {
  /// The decimal text of the request's identifier.
  std::string requestID;
  /// The response body as compact JSON text (bytes), or empty.
  std::string data;

  /// The success payload of a response object (see ErrorCode.h for telling failures apart):
  /// - "body" is an object or a list: its compact JSON text;
  /// - "body" is missing: "{}";
  /// - "body" is a string, number, boolean or null: empty data, as the body cannot stand alone
  ///   as a JSON document the services decode.
  static Resource fromResponse(std::int64_t id, const nlohmann::json& response);

  /// Same identifier and data.
  bool operator==(const Resource&) const = default;
};

}  // namespace kel
