#pragma once

// A one-to-one chat of the user's chat list, named by the peer's JID. Events carry the JID in
// their path ("/xmpp/individualChatList/<jid>"), not in their body; {"jid": ...} is the record's
// JSON form, "jid" optional.

#include <optional>
#include <string>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

struct IndividualChatListSocketDTO {
  std::optional<std::string> jid{};
  bool operator==(const IndividualChatListSocketDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(IndividualChatListSocketDTO, (), (jid))

void from_json(const nlohmann::json& json, IndividualChatListSocketDTO& chat);
void to_json(nlohmann::json& json, const IndividualChatListSocketDTO& chat);

}  // namespace kel
