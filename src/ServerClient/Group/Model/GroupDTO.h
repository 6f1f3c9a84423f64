#pragma once

// A group: a named, ordered list of users owned by one user, with the ringing strategy the
// server applies when the group is called.
//
//   {"groupId": "g1", "chatId": "c1", "name": "Support", "participants": ["u1", "u2"],
//    "owner": <User>,
//    "ringingStrategy": {"type": "sequential", "properties": {"delay": 10, "steps": 2}}}
//
// Decoding requires every key but "ringingStrategy", which never fails: a missing, unknown or
// malformed strategy reads as simultaneous. Encoding writes the strategy one level deeper than
// decoding reads it ("ringingStrategy": {"ringingStrategy": {...}}), which is what the server
// expects of a ringing-strategy change; a group encoded and decoded again therefore comes back
// simultaneous.

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

#include "ServerClient/User/Model/User.h"

namespace kel {

struct SequentialRingingStrategyDTO {
  std::int64_t delay = 0;
  std::int64_t steps = 0;
  bool operator==(const SequentialRingingStrategyDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(SequentialRingingStrategyDTO, (), (delay, steps))

struct SimultaneousReducedRingingStrategyDTO {
  std::int64_t steps = 0;
  bool operator==(const SimultaneousReducedRingingStrategyDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(SimultaneousReducedRingingStrategyDTO, (), (steps))

struct SimultaneousRingingStrategyDTO {
  bool operator==(const SimultaneousRingingStrategyDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(SimultaneousRingingStrategyDTO, (), ())

/// sequential ("sequential"), simultaneousReduced ("simultaneous-reduced") or simultaneous.
using RingingStrategyDTO =
    std::variant<SequentialRingingStrategyDTO, SimultaneousReducedRingingStrategyDTO,
                 SimultaneousRingingStrategyDTO>;

/// The strategy of a strategy object {"type": ..., "properties": {...}}: simultaneous when
/// "type" is not a text or names no other strategy. Throws (nlohmann or std::invalid_argument)
/// when a sequential or simultaneous-reduced strategy lacks its properties.
RingingStrategyDTO decodeRingingStrategy(const nlohmann::json& json);
/// {"ringingStrategy": {"type": ..., "properties": {...}}}; simultaneous has no properties.
nlohmann::json encodeRingingStrategy(const RingingStrategyDTO& strategy);

struct GroupDTO {
  std::string groupId{};
  std::optional<std::string> chatId{};
  std::string name{};
  std::vector<std::string> participants{};
  User owner{};
  RingingStrategyDTO ringingStrategy = SimultaneousRingingStrategyDTO{};

  bool operator==(const GroupDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(GroupDTO, (), (groupId, chatId, name, participants, owner, ringingStrategy))

void from_json(const nlohmann::json& json, GroupDTO& group);
void to_json(nlohmann::json& json, const GroupDTO& group);

}  // namespace kel
