#pragma once

// A server user, as the sign-in answer, groups and meetings carry it.
//
//   {"id": "u1", "domain": "example.org", "email": "ann@example.org", "username": "ann",
//    "alias": "Ann", "mobilePhone": ["+100"], "role": "user", "gatewayUsername": "ann.gw"}
//
// Every key but "gatewayUsername" is required when decoding. Encoding (to nlohmann::ordered_json)
// writes "id", "alias", "domain", "email", "username", "mobilePhone" and "role", in that order,
// and never "gatewayUsername": that name is local to the device and is not sent back to the
// server. Encoding to a plain nlohmann::json gives the same members, sorted by key as that type
// always keeps them.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

/// The prefix of a user's address form.
inline constexpr std::string_view kKelUserPrefix = "kel-user:";

/// A server user (see the top of this header for its JSON). A value.
struct User {
  std::string userId;                          ///< "id"
  std::string domain;                          ///< "domain": the organisation the user belongs to
  std::string email;                           ///< "email"
  std::string username;                        ///< "username"
  std::string alias;                           ///< "alias": the name shown to people
  std::vector<std::string> mobilePhones;       ///< "mobilePhone", in the server's order
  std::string role;                            ///< "role"
  std::optional<std::string> gatewayUsername;  ///< local to the device; never sent back

  /// The address form of the user that other domains use: "kel-user:" followed by the id.
  std::string kelUri() const;

  /// Every field equal.
  bool operator==(const User&) const = default;
};
BOOST_DESCRIBE_STRUCT(User, (),
                      (userId, domain, email, username, alias, mobilePhones, role, gatewayUsername))

/// Throws nlohmann::json exceptions on a missing or mistyped key; kel::from turns them into the
/// decoding error. A null "gatewayUsername" reads as absent.
void from_json(const nlohmann::json& json, User& user);
/// "gatewayUsername" is left out (see the top of this header).
void to_json(nlohmann::ordered_json& json, const User& user);
/// The same members in a plain nlohmann::json, which sorts them by key.
void to_json(nlohmann::json& json, const User& user);

}  // namespace kel
