#include "emulator/domains/Alerts.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <utility>

namespace kel::emulator {

using nlohmann::json;

namespace {

constexpr std::string_view kAlertsPath = "/alerts";

/// A "…Since" window: absent, -1 for every alert, or milliseconds back from now.
std::optional<std::int64_t> window(const ResourceRequest& request, std::string_view key) {
  const auto text = request.queryValue(key);
  if (!text) return std::nullopt;
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (error != std::errc() || end != text->data() + text->size() || value < -1) {
    throw Refusal(400, std::string(key) + " must be -1 or a number of milliseconds");
  }
  return value;
}

}  // namespace

Alerts::Alerts(DomainContext context, const DomainClock& clock)
    : context_(std::move(context)), clock_(clock) {}

void Alerts::install(ResourceRouter& resources) {
  resources.route("GET", "/alerts/templates", refusing([this](const ResourceRequest& r) {
                    requireExactPath(r);
                    return Reply::ok({{"alertTemplates", templates()}});
                  }));
  resources.route("GET", "/alerts", refusing([this](const ResourceRequest& r) { return list(r); }));
  resources.route("POST", "/alerts",
                  refusing([this](const ResourceRequest& r) { return raise(r); }));
  resources.route("POST", "/alerts/accept",
                  refusing([this](const ResourceRequest& r) { return accept(r); }));
}

void Alerts::setLifetime(std::chrono::milliseconds lifetime) {
  std::lock_guard lock(mutex_);
  lifetime_ = lifetime;
}

std::string Alerts::domainOf(std::string_view userId) const {
  const auto user = context_.user(userId);
  return user ? user->value("domain", "") : "";
}

json Alerts::toJson(const Alert& alert) {
  json answer = {{"alertId", alert.id},          {"from", alert.from},
                 {"title", alert.title},         {"payload", alert.payload},
                 {"createdAt", alert.createdAt}, {"cancelled", alert.cancelled}};
  if (alert.resolvedAt) answer["resolvedAt"] = *alert.resolvedAt;
  if (alert.acceptedBy) answer["acceptedBy"] = *alert.acceptedBy;
  return answer;
}

Alerts::Alert* Alerts::find(std::string_view alertId) {
  auto found =
      std::find_if(alerts_.begin(), alerts_.end(), [&](const Alert& a) { return a.id == alertId; });
  return found == alerts_.end() ? nullptr : &*found;
}

void Alerts::push(const Alert& alert, std::string_view method) {
  const auto body = toJson(alert);
  for (const auto& user : context_.userIds()) {
    if (domainOf(user) == alert.domain) {
      context_.push(Recipients::user(user), kAlertsPath, method, body);
    }
  }
}

std::size_t Alerts::expire(std::int64_t now) {
  std::size_t expired = 0;
  for (auto& alert : alerts_) {
    const auto end = alert.createdAt + lifetime_.count();
    if (alert.resolvedAt || now < end) continue;
    alert.resolvedAt = end;
    push(alert, "DELETE");
    ++expired;
  }
  return expired;
}

std::size_t Alerts::expireDue() {
  const auto now = millis(clock_.now());
  std::lock_guard lock(mutex_);
  return expire(now);
}

bool Alerts::cancel(std::string_view alertId) {
  const auto now = millis(clock_.now());
  std::lock_guard lock(mutex_);
  expire(now);
  auto* alert = find(alertId);
  if (alert == nullptr || alert->resolvedAt) return false;
  alert->resolvedAt = now;
  alert->cancelled = true;
  push(*alert, "DELETE");
  return true;
}

Reply Alerts::list(const ResourceRequest& request) {
  requireExactPath(request);
  const auto accepted = window(request, "acceptedSince");
  const auto cancelled = window(request, "cancelledSince");
  const auto expired = window(request, "expiredSince");
  const auto domain = domainOf(request.userId);
  const auto now = millis(clock_.now());
  std::lock_guard lock(mutex_);
  expire(now);
  const auto within = [&](const std::optional<std::int64_t>& since, const Alert& alert) {
    return since && (*since == -1 || *alert.resolvedAt >= now - *since);
  };
  json answer = {{"active", json::array()},
                 {"accepted", json::array()},
                 {"expired", json::array()},
                 {"cancelled", json::array()}};
  for (const auto& alert : alerts_) {
    if (alert.domain != domain) continue;
    const char* list = nullptr;
    if (!alert.resolvedAt) {
      list = "active";
    } else if (alert.acceptedBy) {
      list = within(accepted, alert) ? "accepted" : nullptr;
    } else if (alert.cancelled) {
      list = within(cancelled, alert) ? "cancelled" : nullptr;
    } else {
      list = within(expired, alert) ? "expired" : nullptr;
    }
    if (list != nullptr) answer[list].push_back(toJson(alert));
  }
  return Reply::ok(std::move(answer));
}

Reply Alerts::raise(const ResourceRequest& request) {
  requireExactPath(request);
  onlyKnownKeys(request.body, {"alertId", "templateId"}, "");
  const auto alertId = identifier(request.body, "alertId");
  const auto templateId = text(request.body, "templateId");
  Alert alert{alertId, request.userId, domainOf(request.userId), {}, {}, 0, {}, {}, false};
  const auto now = millis(clock_.now());
  std::lock_guard lock(mutex_);
  expire(now);
  const auto found = std::find_if(templates_.begin(), templates_.end(),
                                  [&](const json& t) { return t["templateId"] == templateId; });
  if (found == templates_.end()) throw Refusal(404, "no alert template " + templateId);
  if (find(alertId) != nullptr) throw Refusal(409, "there is an alert " + alertId);
  alert.title = (*found)["title"].get<std::string>();
  alert.payload = (*found)["payload"].get<std::string>();
  alert.createdAt = now;
  alerts_.push_back(std::move(alert));
  push(alerts_.back(), "POST");
  return Reply::ok(toJson(alerts_.back()));
}

Reply Alerts::accept(const ResourceRequest& request) {
  requireExactPath(request);
  onlyKnownKeys(request.body, {"alertId"}, "");
  const auto alertId = text(request.body, "alertId");
  const auto domain = domainOf(request.userId);
  const auto now = millis(clock_.now());
  std::lock_guard lock(mutex_);
  expire(now);
  auto* alert = find(alertId);
  if (alert == nullptr || alert->domain != domain) throw Refusal(404, "no alert " + alertId);
  if (alert->from == request.userId) throw Refusal(403, "an alert is accepted by someone else");
  if (alert->resolvedAt) throw Refusal(409, "the alert " + alertId + " is no longer active");
  alert->resolvedAt = now;
  alert->acceptedBy = request.userId;
  push(*alert, "PUT");
  return Reply::ok();
}

std::optional<json> Alerts::alert(std::string_view alertId) const {
  std::lock_guard lock(mutex_);
  for (const auto& alert : alerts_) {
    if (alert.id == alertId) return toJson(alert);
  }
  return std::nullopt;
}

std::vector<json> Alerts::alerts() const {
  std::lock_guard lock(mutex_);
  std::vector<json> all;
  for (const auto& alert : alerts_) all.push_back(toJson(alert));
  return all;
}

std::vector<json> Alerts::templates() const {
  std::lock_guard lock(mutex_);
  return templates_;
}

void Alerts::checkTemplate(const json& alertTemplate, std::string_view where) {
  onlyKnownKeys(alertTemplate, {"templateId", "title", "payload"}, where);
  identifier(alertTemplate, "templateId", where);
  text(alertTemplate, "title", where);
  text(alertTemplate, "payload", where);
}

void Alerts::addTemplate(const json& alertTemplate) {
  try {
    checkTemplate(alertTemplate, "");
  } catch (const Refusal& refusal) {
    throw std::invalid_argument(refusal.what());
  }
  std::lock_guard lock(mutex_);
  std::erase_if(templates_,
                [&](const json& t) { return t["templateId"] == alertTemplate["templateId"]; });
  templates_.push_back(alertTemplate);
}

void Alerts::checkFixture(const json& part) {
  if (!part.is_array()) throw Refusal(400, "\"alertTemplates\" must be a list");
  UserIds ids;
  for (std::size_t i = 0; i < part.size(); ++i) {
    const auto where = entryWhere("", "alertTemplates", i);
    checkTemplate(part[i], where);
    if (!ids.insert(part[i]["templateId"].get<std::string>()).second) {
      throw Refusal(400, memberName(where, "templateId") + " is not unique");
    }
  }
}

void Alerts::loadFixture(const json& part) {
  for (const auto& alertTemplate : part) addTemplate(alertTemplate);
}

}  // namespace kel::emulator
