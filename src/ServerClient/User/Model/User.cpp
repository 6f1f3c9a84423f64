#include "ServerClient/User/Model/User.h"

#include <nlohmann/json.hpp>

#include "ServerClient/Utils/detail/JsonFields.h"

namespace kel {

std::string User::kelUri() const {
  std::string uri(kKelUserPrefix);
  uri += userId;
  return uri;
}

void from_json(const nlohmann::json& json, User& user) {
  using detail::readOptionalText;
  using detail::readRequired;
  User decoded;
  readRequired(json, "id", decoded.userId);
  readRequired(json, "domain", decoded.domain);
  readRequired(json, "email", decoded.email);
  readRequired(json, "username", decoded.username);
  readRequired(json, "alias", decoded.alias);
  readRequired(json, "mobilePhone", decoded.mobilePhones);
  decoded.gatewayUsername = readOptionalText(json, "gatewayUsername");
  readRequired(json, "role", decoded.role);
  user = std::move(decoded);
}

void to_json(nlohmann::ordered_json& json, const User& user) {
  json = nlohmann::ordered_json{
      {"id", user.userId},   {"alias", user.alias},       {"domain", user.domain},
      {"email", user.email}, {"username", user.username}, {"mobilePhone", user.mobilePhones},
      {"role", user.role},
  };
}

void to_json(nlohmann::json& json, const User& user) {
  // The same members; an ordinary object sorts them, which the server does not mind.
  json = nlohmann::json(nlohmann::ordered_json(user));
}

}  // namespace kel
