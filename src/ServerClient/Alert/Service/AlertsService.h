#pragma once

#include <optional>
#include <vector>

#include "ServerClient/Alert/Model/ServerAlert.h"
#include "ServerClient/rx/Completable.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// Alerts: each operation sends one request per subscription and never retries. Results arrive
/// on the socket client's thread. Errors are SDKErrors: the socket's (ConnectionError
/// noSocketClient when not signed in, timeout after 20 s, the server's error codes) and
/// GenericError(decoding) for an answer of another shape: there is no partial result.
class AlertsService {
 public:
  virtual ~AlertsService() = default;

  virtual rx::Single<std::vector<ServerAlertTemplate>> alertTemplates() = 0;
  /// The active alerts, then those accepted, then those expired; each "…InLast" limits its kind
  /// to the last that many seconds (a negative count asks the server for all of them; absent,
  /// the server's default).
  virtual rx::Single<std::vector<ServerAlert>> alerts(std::optional<int> acceptedInLast,
                                                      std::optional<int> cancelledInLast,
                                                      std::optional<int> expiredInLast) = 0;
  /// Raises an alert from `alertTemplate` under an identifier this client makes: a fresh
  /// random UUID per call (a resubscription resends the same alert).
  virtual rx::Completable sendAlert(const ServerAlertTemplate& alertTemplate) = 0;
  virtual rx::Completable accept(const std::string& alertId) = 0;
};

}  // namespace kel
