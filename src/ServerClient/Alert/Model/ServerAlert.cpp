#include "ServerClient/Alert/Model/ServerAlert.h"

#include <nlohmann/json.hpp>

#include "ServerClient/Utils/detail/JsonFields.h"

namespace kel {

using detail::readOptional;
using detail::readRequired;

void from_json(const nlohmann::json& json, ServerAlert& alert) {
  ServerAlert decoded;
  readRequired(json, "alertId", decoded.alertId);
  readRequired(json, "from", decoded.from);
  readRequired(json, "title", decoded.title);
  readRequired(json, "payload", decoded.payload);
  readRequired(json, "createdAt", decoded.createdAt);
  decoded.resolvedAt = readOptional<double>(json, "resolvedAt");
  decoded.acceptedBy = readOptional<std::string>(json, "acceptedBy");
  readRequired(json, "cancelled", decoded.cancelled);
  alert = std::move(decoded);
}

void to_json(nlohmann::json& json, const ServerAlert& alert) {
  json = {{"alertId", alert.alertId},     {"from", alert.from},
          {"title", alert.title},         {"payload", alert.payload},
          {"createdAt", alert.createdAt}, {"cancelled", alert.cancelled}};
  if (alert.resolvedAt) json["resolvedAt"] = *alert.resolvedAt;
  if (alert.acceptedBy) json["acceptedBy"] = *alert.acceptedBy;
}

void from_json(const nlohmann::json& json, ServerAlertTemplate& alertTemplate) {
  ServerAlertTemplate decoded;
  readRequired(json, "templateId", decoded.templateId);
  readRequired(json, "title", decoded.title);
  readRequired(json, "payload", decoded.payload);
  alertTemplate = std::move(decoded);
}

void to_json(nlohmann::json& json, const ServerAlertTemplate& alertTemplate) {
  json = {{"templateId", alertTemplate.templateId},
          {"title", alertTemplate.title},
          {"payload", alertTemplate.payload}};
}

}  // namespace kel
