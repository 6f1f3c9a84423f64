#pragma once

// The calls a user missed. A fetch answers {"data": {"items": [{"id": "c9"}, ...]}}; a pushed
// event carries {"items": [{"id": "c9"}, ...]} directly. Every key may be absent or null; other
// keys are ignored. A present value of another type ("items" not a list, a numeric "id") fails.

#include <optional>
#include <string>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

/// Whose missed calls to fetch.
struct MissedCallsRequest {
  std::string userId{};
  bool operator==(const MissedCallsRequest&) const = default;
};
BOOST_DESCRIBE_STRUCT(MissedCallsRequest, (), (userId))

/// Marks the user's missed calls as read up to and including the call `callId`.
struct MissedCallsReadRequest {
  std::string userId{};
  std::string callId{};
  bool operator==(const MissedCallsReadRequest&) const = default;
};
BOOST_DESCRIBE_STRUCT(MissedCallsReadRequest, (), (userId, callId))

struct MissedCallItemDTO {
  std::optional<std::string> id{};
  bool operator==(const MissedCallItemDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(MissedCallItemDTO, (), (id))

struct MissedCallsDTO {
  struct MissedCallData {
    // No default member initializer: clang would then judge the nested type not default
    // constructible inside the enclosing class, and JSON decoding of it would not compile.
    std::optional<std::vector<MissedCallItemDTO>> items;
    bool operator==(const MissedCallData&) const = default;
  };
  std::optional<MissedCallData> data{};
  bool operator==(const MissedCallsDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(MissedCallsDTO::MissedCallData, (), (items))
BOOST_DESCRIBE_STRUCT(MissedCallsDTO, (), (data))

/// The body of a missed-calls event.
struct MissedCallsSocketDTO {
  std::optional<std::vector<MissedCallItemDTO>> items{};
  bool operator==(const MissedCallsSocketDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(MissedCallsSocketDTO, (), (items))

// Encoding writes present values only.
void from_json(const nlohmann::json& json, MissedCallItemDTO& item);
void to_json(nlohmann::json& json, const MissedCallItemDTO& item);
void from_json(const nlohmann::json& json, MissedCallsDTO::MissedCallData& data);
void to_json(nlohmann::json& json, const MissedCallsDTO::MissedCallData& data);
void from_json(const nlohmann::json& json, MissedCallsDTO& calls);
void to_json(nlohmann::json& json, const MissedCallsDTO& calls);
void from_json(const nlohmann::json& json, MissedCallsSocketDTO& calls);
void to_json(nlohmann::json& json, const MissedCallsSocketDTO& calls);

}  // namespace kel
