#pragma once

#include "ServerClient/Alert/Service/AlertsService.h"
#include "ServerClient/Client/SocketService.h"

namespace kel {

/// Alerts over the socket (body `{}` where none is given):
/// - alertTemplates(): `GET /alerts/templates`; the list under "alertTemplates".
/// - alerts(a, c, e): `GET /alerts?acceptedSince=..&cancelledSince=..&expiredSince=..`; the
///   lists under "active", "accepted" and "expired", in that order (each key required; others,
///   "cancelled" too, ignored).
/// - sendAlert(t): `POST /alerts`, body `{"alertId": <UUID>, "templateId": t.templateId}`.
/// - accept(id): `POST /alerts/accept`, body `{"alertId": id}`.
///
/// Each "…Since" is the argument in milliseconds, -1 for a negative argument, and left out when
/// the argument is absent. A list that fails to decode is logged ("Decode error: ...").
/// Threads, errors and disposal: see AlertsService.
class KelAlertsService : public SocketService, public AlertsService {
 public:
  /// The server resources this service addresses (see pathTable).
  enum class Path { templates, alerts, accept };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::templates, "/alerts/templates"},
                                {Path::alerts, "/alerts"},
                                {Path::accept, "/alerts/accept"}});
  }

  /// A service that sends through whichever client `socketClient` holds at each request; made
  /// with std::make_shared (see SocketService).
  explicit KelAlertsService(SocketClientSlot socketClient);

  rx::Single<std::vector<ServerAlertTemplate>> alertTemplates() override;
  rx::Single<std::vector<ServerAlert>> alerts(std::optional<int> acceptedInLast,
                                              std::optional<int> cancelledInLast,
                                              std::optional<int> expiredInLast) override;
  rx::Completable sendAlert(const ServerAlertTemplate& alertTemplate) override;
  rx::Completable accept(const std::string& alertId) override;
};

}  // namespace kel
