#pragma once

/// @file
/// A group: a named, ordered list of users owned by one user, with the ringing strategy the
/// server applies when the group is called.
///
/// ```
/// {"groupId": "g1", "chatId": "c1", "name": "Support", "participants": ["u1", "u2"],
///  "owner": <User>,
///  "ringingStrategy": {"type": "sequential", "properties": {"delay": 10, "steps": 2}}}
/// ```
///
/// Decoding requires every key but "ringingStrategy", which never fails: a missing, unknown or
/// malformed strategy reads as simultaneous. Encoding writes the strategy one level deeper than
/// decoding reads it (`"ringingStrategy": {"ringingStrategy": {...}}`), which is what the server
/// expects of a ringing-strategy change; a group encoded and decoded again therefore comes back
/// simultaneous.

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

#include "ServerClient/User/Model/User.h"

namespace kel {

/// The sequential strategy, which rings the participants in steps:
/// `{"type": "sequential", "properties": {"delay", "steps"}}`.
struct SequentialRingingStrategyDTO {
  std::int64_t delay = 0;  ///< "delay": the pause between steps, in the server's unit
  std::int64_t steps = 0;  ///< "steps": how many steps
  /// Field-by-field equality.
  bool operator==(const SequentialRingingStrategyDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(SequentialRingingStrategyDTO, (), (delay, steps))

/// The simultaneous-reduced strategy:
/// `{"type": "simultaneous-reduced", "properties": {"steps"}}`.
struct SimultaneousReducedRingingStrategyDTO {
  std::int64_t steps = 0;  ///< "steps"
  /// Field-by-field equality.
  bool operator==(const SimultaneousReducedRingingStrategyDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(SimultaneousReducedRingingStrategyDTO, (), (steps))

/// The simultaneous strategy, which rings every participant at once: `{"type": "simultaneous"}`;
/// also what any strategy that does not decode reads as.
struct SimultaneousRingingStrategyDTO {
  /// Always equal.
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

/// One group (JSON form in GroupDTO.h), as GroupService answers it and GroupEventHandler
/// announces it. A plain value.
struct GroupDTO {
  std::string groupId{};  ///< "groupId": the id every group operation takes
  /// "chatId": the group's chat; always present in a decoded group (the key is required).
  std::optional<std::string> chatId{};
  std::string name{};                       ///< "name", for display
  std::vector<std::string> participants{};  ///< "participants": user ids, in the group's order
  User owner{};                             ///< "owner": the user record of its owner
  /// "ringingStrategy": how a call to the group rings its participants.
  RingingStrategyDTO ringingStrategy = SimultaneousRingingStrategyDTO{};

  /// Field-by-field equality.
  bool operator==(const GroupDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(GroupDTO, (), (groupId, chatId, name, participants, owner, ringingStrategy))

/// Reads a group; throws (std::invalid_argument or nlohmann's errors) for a missing key other
/// than "ringingStrategy" or a value of the wrong JSON type, which kel::from reports as
/// GenericError(decoding).
void from_json(const nlohmann::json& json, GroupDTO& group);
/// Writes every key, the strategy as encodeRingingStrategy does and "chatId" only when present.
void to_json(nlohmann::json& json, const GroupDTO& group);

}  // namespace kel
