#pragma once

/// @file
/// The calls a user missed. A fetch answers `{"data": {"items": [{"id": "c9"}, ...]}}`; a pushed
/// event carries `{"items": [{"id": "c9"}, ...]}` directly. Every key may be absent or null;
/// other keys are ignored. A present value of another type ("items" not a list, a numeric "id")
/// fails.

#include <optional>
#include <string>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

/// Whose missed calls to fetch.
struct MissedCallsRequest {
  std::string userId{};  ///< the user, normally the signed-in one; goes into the path as it is
  /// Field-by-field equality.
  bool operator==(const MissedCallsRequest&) const = default;
};
BOOST_DESCRIBE_STRUCT(MissedCallsRequest, (), (userId))

/// Marks the user's missed calls as read up to and including the call `callId`.
struct MissedCallsReadRequest {
  std::string userId{};  ///< the user, normally the signed-in one; goes into the path as it is
  std::string callId{};  ///< the last call read: a MissedCallItemDTO::id
  /// Field-by-field equality.
  bool operator==(const MissedCallsReadRequest&) const = default;
};
BOOST_DESCRIBE_STRUCT(MissedCallsReadRequest, (), (userId, callId))

/// One missed call; only its id is read.
struct MissedCallItemDTO {
  std::optional<std::string> id{};  ///< "id": what MissedCallsReadRequest::callId takes
  /// Field-by-field equality.
  bool operator==(const MissedCallItemDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(MissedCallItemDTO, (), (id))

/// The answer of MissedCallsService::getMissedCalls: `{"data": {"items": [...]}}`.
struct MissedCallsDTO {
  /// The "data" object.
  struct MissedCallData {
    // No default member initializer: clang would then judge the nested type not default
    // constructible inside the enclosing class, and JSON decoding of it would not compile.
    /// "items": the missed calls, in the server's order.
    std::optional<std::vector<MissedCallItemDTO>> items;
    /// Field-by-field equality.
    bool operator==(const MissedCallData&) const = default;
  };
  std::optional<MissedCallData> data{};  ///< "data"
  /// Field-by-field equality.
  bool operator==(const MissedCallsDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(MissedCallsDTO::MissedCallData, (), (items))
BOOST_DESCRIBE_STRUCT(MissedCallsDTO, (), (data))

/// The body of a missed-calls event (MissedCallsEventHandler): `{"items": [...]}`.
struct MissedCallsSocketDTO {
  std::optional<std::vector<MissedCallItemDTO>> items{};  ///< "items": the calls just missed
  /// Field-by-field equality.
  bool operator==(const MissedCallsSocketDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(MissedCallsSocketDTO, (), (items))

// Encoding writes present values only.
/// Reads an item; throws (nlohmann's errors or std::invalid_argument) for a value of another
/// type, which kel::from reports as GenericError(decoding); so do the readers below.
void from_json(const nlohmann::json& json, MissedCallItemDTO& item);
/// Writes "id" when present.
void to_json(nlohmann::json& json, const MissedCallItemDTO& item);
/// Reads the "data" object.
void from_json(const nlohmann::json& json, MissedCallsDTO::MissedCallData& data);
/// Writes "items" when present.
void to_json(nlohmann::json& json, const MissedCallsDTO::MissedCallData& data);
/// Reads a fetch's answer.
void from_json(const nlohmann::json& json, MissedCallsDTO& calls);
/// Writes "data" when present.
void to_json(nlohmann::json& json, const MissedCallsDTO& calls);
/// Reads an event's body.
void from_json(const nlohmann::json& json, MissedCallsSocketDTO& calls);
/// Writes "items" when present.
void to_json(nlohmann::json& json, const MissedCallsSocketDTO& calls);

}  // namespace kel
