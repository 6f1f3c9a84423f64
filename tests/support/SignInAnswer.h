#pragma once

// A server's answer to a sign-in, for unit tests that play the server: user "u1", session "S1",
// access token "T1", and the given domain capabilities.

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace kel::testing {

inline std::string signInAnswer(const std::vector<std::string>& domainCapabilities = {}) {
  auto answer = nlohmann::json::parse(R"({
    "access_token": "T1", "token_type": "Bearer",
    "session": {"token": "T1", "from": 1700000000000, "id": "S1", "registered": "C1",
                "to": 1700003600000,
                "userObj": {"id": "u1", "domain": "d", "email": "e", "username": "n",
                            "alias": "a", "mobilePhone": [], "role": "user"}},
    "credential": {"source": "s", "user": "u1", "lease": 1, "type": "sip", "id": "C1",
                   "data": {}},
    "capabilities": {"domain": [], "user": []}})");
  answer["capabilities"]["domain"] = domainCapabilities;
  return answer.dump();
}

}  // namespace kel::testing
