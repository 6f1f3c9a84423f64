#pragma once

#include <optional>

#include "ServerClient/Auth/Model/AuthenticationData.h"
#include "ServerClient/Client/SocketService.h"
#include "ServerClient/rx/Subjects.h"

namespace kel {

/// One renewal of the signed-in session: PUT `/sessions/<session id>` with
/// `{"registered": <credential id>}`. The facade runs it every 20 s while connected, on its
/// renewal scheduler; the answer arrives on the socket's network thread. Disposing before the
/// answer unregisters the request.
class KeepConnectionService : public SocketService {
 public:
  /// The one resource, "/sessions".
  enum class Path { sessions };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::sessions, "/sessions"}});
  }

  /// A service that sends through the client in `socketClient`.
  explicit KeepConnectionService(SocketClientSlot socketClient);

  /// Renews the session held by `userSession` at the time of the call. Yields one element and
  /// completes, whether the server accepted the renewal or the request failed: a missed renewal
  /// is retried by the next one, and the loop must not stop on it. Completes at once, sending
  /// nothing, when there is no session (or the subject has failed).
  rx::Observable<rx::Unit> renewSession(
      const rx::BehaviorSubject<std::optional<AuthenticationData>>& userSession);

  /// The same renewal for a caller that needs the server's answer (a command that renews once):
  /// one element when the server accepted it; otherwise the request's failure (the mapped server
  /// error, a time-out, no socket client, or a failure when the socket was closed before the
  /// answer). Completes at once, sending nothing, when there is no session.
  rx::Observable<rx::Unit> renewSessionOrError(
      const rx::BehaviorSubject<std::optional<AuthenticationData>>& userSession);
};

}  // namespace kel
