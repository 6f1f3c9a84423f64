#pragma once

// Records as the server writes them, for unit tests that play the server.

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace kel::testing {

inline nlohmann::json userRecord(const std::string& id) {
  return {{"id", id},        {"domain", "d"}, {"email", "e"},
          {"username", "n"}, {"alias", "a"},  {"mobilePhone", nlohmann::json::array()},
          {"role", "user"}};
}

/// A sign-in of user "u1": session "S1", access token "T1", and the given domain capabilities.
inline std::string signInAnswer(const std::vector<std::string>& domainCapabilities = {}) {
  auto answer = nlohmann::json::parse(R"({
    "access_token": "T1", "token_type": "Bearer",
    "session": {"token": "T1", "from": 1700000000000, "id": "S1", "registered": "C1",
                "to": 1700003600000},
    "credential": {"source": "s", "user": "u1", "lease": 1, "type": "sip", "id": "C1",
                   "data": {}},
    "capabilities": {"domain": [], "user": []}})");
  answer["session"]["userObj"] = userRecord("u1");
  answer["capabilities"]["domain"] = domainCapabilities;
  return answer.dump();
}

}  // namespace kel::testing
