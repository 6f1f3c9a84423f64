#pragma once

// Alerts: notices a user raises from a predefined template, which other users can accept.
//
//   alert    {"alertId": "6F1C...", "from": "u1", "title": "Fire", "payload": "Leave now",
//             "createdAt": 1700000000000, "resolvedAt": 1700000060000, "acceptedBy": "u2",
//             "cancelled": false}
//   template {"templateId": "t1", "title": "Fire", "payload": "Leave now"}
//
// An alert's "resolvedAt" and "acceptedBy" may be absent or null; every other key is required.
// Time stamps are kept as the numbers the server wrote. Encoding writes present values only.

#include <optional>
#include <string>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

struct ServerAlert {
  std::string alertId{};
  std::string from{};
  std::string title{};
  std::string payload{};
  double createdAt = 0;
  std::optional<double> resolvedAt{};
  std::optional<std::string> acceptedBy{};
  bool cancelled = false;
  bool operator==(const ServerAlert&) const = default;
};
BOOST_DESCRIBE_STRUCT(ServerAlert, (),
                      (alertId, from, title, payload, createdAt, resolvedAt, acceptedBy, cancelled))

struct ServerAlertTemplate {
  std::string templateId{};
  std::string title{};
  std::string payload{};
  bool operator==(const ServerAlertTemplate&) const = default;
};
BOOST_DESCRIBE_STRUCT(ServerAlertTemplate, (), (templateId, title, payload))

void from_json(const nlohmann::json& json, ServerAlert& alert);
void to_json(nlohmann::json& json, const ServerAlert& alert);
void from_json(const nlohmann::json& json, ServerAlertTemplate& alertTemplate);
void to_json(nlohmann::json& json, const ServerAlertTemplate& alertTemplate);

}  // namespace kel
