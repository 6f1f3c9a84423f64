#pragma once

/// @file
/// A one-to-one chat of the user's chat list, named by the peer's JID. Events carry the JID in
/// their path (`/xmpp/individualChatList/<jid>`), not in their body; `{"jid": ...}` is the
/// record's JSON form, "jid" optional.

#include <optional>
#include <string>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

/// One chat added to or removed from the user's list, as IndividualChatListEventHandler
/// announces it. A plain value.
struct IndividualChatListSocketDTO {
  std::optional<std::string> jid{};  ///< the peer's JID; absent for an event without one
  /// Field-by-field equality.
  bool operator==(const IndividualChatListSocketDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(IndividualChatListSocketDTO, (), (jid))

/// Reads `{"jid": ...}`; "jid" may be absent or null. Throws (nlohmann's errors) for a value of
/// another JSON type, which kel::from reports as GenericError(decoding).
void from_json(const nlohmann::json& json, IndividualChatListSocketDTO& chat);
/// Writes "jid" when present.
void to_json(nlohmann::json& json, const IndividualChatListSocketDTO& chat);

}  // namespace kel
