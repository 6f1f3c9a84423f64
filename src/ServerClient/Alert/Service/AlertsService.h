#pragma once

#include <optional>
#include <vector>

#include "ServerClient/Alert/Model/ServerAlert.h"
#include "ServerClient/rx/Completable.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// Alerts: reading the templates and the alerts, raising an alert, accepting one. Each
/// operation sends one request when subscribed (again at every further subscription) and never
/// retries. Results arrive on the socket client's thread, which must not be blocked; a failure
/// found before sending arrives at once on the subscribing thread. Errors, all SDKError:
/// - ConnectionError `noSocketClient`: not signed in, or the socket is not authenticated;
///   nothing is sent;
/// - ConnectionError `timeout` (code -1): no answer within 20 s;
/// - ConnectionError mapped from the server's error code (ConnectionError::mapToOvError);
/// - GenericError `decoding`: an answer of another shape (there is no partial result);
/// - GenericError `underlying`: the socket was stopped (sign-out) while the request was pending;
///   this one arrives on the thread that stopped it.
///
/// Disposing the subscription before the answer forgets the request: the answer is dropped, but
/// the server may still carry out a change. Every member may be called from any thread.
class AlertsService {
 public:
  /// Destroying a service does not end the requests already made through it.
  virtual ~AlertsService() = default;

  /// The templates the user may raise an alert from, in the server's order.
  virtual rx::Single<std::vector<ServerAlertTemplate>> alertTemplates() = 0;
  /// The active alerts, then those accepted, then those expired; each "…InLast" limits its kind
  /// to the last that many seconds (a negative count asks the server for all of them; absent,
  /// the server's default).
  virtual rx::Single<std::vector<ServerAlert>> alerts(std::optional<int> acceptedInLast,
                                                      std::optional<int> cancelledInLast,
                                                      std::optional<int> expiredInLast) = 0;
  /// Raises an alert from `alertTemplate` under an identifier this client makes: a fresh
  /// random UUID per call (a resubscription resends the same alert). Completes once the server
  /// answered, whatever the answer holds; the other users learn of it through
  /// AlertsEventHandler::newAlert.
  virtual rx::Completable sendAlert(const ServerAlertTemplate& alertTemplate) = 0;
  /// Accepts the alert `alertId` on the user's behalf. Completes once the server answered,
  /// whatever the answer holds.
  virtual rx::Completable accept(const std::string& alertId) = 0;
};

}  // namespace kel
