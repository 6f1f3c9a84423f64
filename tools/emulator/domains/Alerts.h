#pragma once

// Alerts: notices that a user raises from one of the operator's templates, for every user of the
// raiser's domain (the "domain" of the user records). An alert is answered
//
//   {"alertId", "from": <raiser's user id>, "title", "payload", "createdAt", "resolvedAt"?,
//    "acceptedBy"?, "cancelled"}          (instants in milliseconds)
//
// and is active until another user accepts it, the operator cancels it (cancel()), or its
// lifetime (setLifetime, 5 minutes unless changed) has passed; "resolvedAt" says when.
//
//   GET  /alerts/templates       {"alertTemplates": [{"templateId", "title", "payload"}, ...]}
//   GET  /alerts?acceptedSince=&cancelledSince=&expiredSince=
//                                {"active", "accepted", "expired", "cancelled"}: lists of the
//                                domain's alerts, oldest first. Each "…Since" is a window in
//                                milliseconds back from now over the resolution time; -1 asks for
//                                all of them; a list whose key is absent is empty.
//   POST /alerts                 {"alertId", "templateId"}: raises an alert; answers it. 409 for
//                                a taken alertId, 404 for an unknown template
//   POST /alerts/accept          {"alertId"}: 404 unknown, 403 for the raiser, 409 no longer
//                                active
//
// Events, path "/alerts", body the alert, to every user of the domain: "POST" when raised, "PUT"
// when accepted, "DELETE" when it expires or is cancelled. Expiry happens at the first request to
// alerts, or the first expireDue(), after the lifetime has passed.

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/ResourceRouter.h"
#include "emulator/domains/Domain.h"

namespace kel::emulator {

class Alerts {
 public:
  Alerts(DomainContext context, const DomainClock& clock);

  Alerts(const Alerts&) = delete;
  Alerts& operator=(const Alerts&) = delete;

  void install(ResourceRouter& resources);

  /// How long an alert stays active.
  void setLifetime(std::chrono::milliseconds lifetime);
  /// Expires the active alerts whose lifetime has passed, pushing their events; returns how many.
  std::size_t expireDue();
  /// Cancels an active alert, pushing its event. False for an unknown or resolved alert.
  bool cancel(std::string_view alertId);

  std::optional<nlohmann::json> alert(std::string_view alertId) const;
  std::vector<nlohmann::json> alerts() const;
  std::vector<nlohmann::json> templates() const;
  /// Adds a template or replaces the one with its id. Throws std::invalid_argument for a
  /// malformed one.
  void addTemplate(const nlohmann::json& alertTemplate);

  /// The fixture's "alertTemplates": [{"templateId", "title", "payload"}, ...].
  static void checkFixture(const nlohmann::json& part);
  void loadFixture(const nlohmann::json& part);

 private:
  struct Alert {
    std::string id;
    std::string from;
    std::string domain;
    std::string title;
    std::string payload;
    std::int64_t createdAt = 0;
    std::optional<std::int64_t> resolvedAt;
    std::optional<std::string> acceptedBy;
    bool cancelled = false;
  };

  static void checkTemplate(const nlohmann::json& alertTemplate, std::string_view where);
  std::string domainOf(std::string_view userId) const;

  // With mutex_ held:
  static nlohmann::json toJson(const Alert& alert);
  Alert* find(std::string_view alertId);
  void push(const Alert& alert, std::string_view method);
  std::size_t expire(std::int64_t now);

  Reply list(const ResourceRequest& request);
  Reply raise(const ResourceRequest& request);
  Reply accept(const ResourceRequest& request);

  DomainContext context_;
  const DomainClock& clock_;
  mutable std::mutex mutex_;  // guards everything below
  std::chrono::milliseconds lifetime_{std::chrono::minutes(5)};
  std::vector<nlohmann::json> templates_;  // in the order added
  std::vector<Alert> alerts_;              // in the order raised
};

}  // namespace kel::emulator
