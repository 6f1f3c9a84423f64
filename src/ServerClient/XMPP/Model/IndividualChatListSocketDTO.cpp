#include "ServerClient/XMPP/Model/IndividualChatListSocketDTO.h"

#include <nlohmann/json.hpp>

#include "ServerClient/Utils/detail/JsonFields.h"

namespace kel {

void from_json(const nlohmann::json& json, IndividualChatListSocketDTO& chat) {
  chat.jid = detail::readOptional<std::string>(json, "jid");
}

void to_json(nlohmann::json& json, const IndividualChatListSocketDTO& chat) {
  json = nlohmann::json::object();
  if (chat.jid) json["jid"] = *chat.jid;
}

}  // namespace kel
