#pragma once

/// @file
/// Alerts: notices a user raises from a predefined template, which other users can accept.
///
/// ```
/// alert    {"alertId": "6F1C...", "from": "u1", "title": "Fire", "payload": "Leave now",
///           "createdAt": 1700000000000, "resolvedAt": 1700000060000, "acceptedBy": "u2",
///           "cancelled": false}
/// template {"templateId": "t1", "title": "Fire", "payload": "Leave now"}
/// ```
///
/// An alert's "resolvedAt" and "acceptedBy" may be absent or null; every other key is required.
/// Time stamps are kept as the numbers the server wrote. Encoding writes present values only.

#include <optional>
#include <string>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

/// An alert raised by a user (JSON form in ServerAlert.h). A plain value.
struct ServerAlert {
  std::string alertId{};  ///< "alertId": the identifier its sender made (a UUID)
  std::string from{};     ///< "from": the id of the user who raised it
  std::string title{};    ///< "title", from its template
  std::string payload{};  ///< "payload": the message, from its template
  double createdAt = 0;   ///< "createdAt": when it was raised, milliseconds since the epoch
  /// "resolvedAt": when it was accepted, cancelled or expired, milliseconds since the epoch;
  /// absent while it is active.
  std::optional<double> resolvedAt{};
  std::optional<std::string> acceptedBy{};  ///< "acceptedBy": the id of the user who accepted it
  bool cancelled = false;                   ///< "cancelled": ended by cancellation
  /// Field-by-field equality.
  bool operator==(const ServerAlert&) const = default;
};
BOOST_DESCRIBE_STRUCT(ServerAlert, (),
                      (alertId, from, title, payload, createdAt, resolvedAt, acceptedBy, cancelled))

/// A predefined alert that a user may raise (AlertsService::sendAlert); the server keeps the
/// list (AlertsService::alertTemplates).
struct ServerAlertTemplate {
  std::string templateId{};  ///< "templateId": what sendAlert sends
  std::string title{};       ///< "title"
  std::string payload{};     ///< "payload": the message
  /// Field-by-field equality.
  bool operator==(const ServerAlertTemplate&) const = default;
};
BOOST_DESCRIBE_STRUCT(ServerAlertTemplate, (), (templateId, title, payload))

/// Reads an alert; throws (std::invalid_argument or nlohmann's errors) for a missing required
/// key or a value of the wrong JSON type, which kel::from reports as GenericError(decoding).
void from_json(const nlohmann::json& json, ServerAlert& alert);
/// Writes the present values only.
void to_json(nlohmann::json& json, const ServerAlert& alert);
/// Reads a template; throws as for an alert.
void from_json(const nlohmann::json& json, ServerAlertTemplate& alertTemplate);
/// Writes the three keys.
void to_json(nlohmann::json& json, const ServerAlertTemplate& alertTemplate);

}  // namespace kel
