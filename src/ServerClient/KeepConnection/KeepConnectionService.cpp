#include "ServerClient/KeepConnection/KeepConnectionService.h"

#include <string>
#include <utility>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Log/ServerLog.h"

namespace kel {

KeepConnectionService::KeepConnectionService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Observable<rx::Unit> KeepConnectionService::renewSession(
    const rx::BehaviorSubject<std::optional<AuthenticationData>>& userSession) {
  return renewSessionOrError(userSession).catchError([](std::exception_ptr error) {
    KEL_LOG_DEBUG("renewSession(for:)", "Session renewal failed: " + describeError(error));
    return rx::Observable<rx::Unit>::just(rx::Unit{});
  });
}

rx::Observable<rx::Unit> KeepConnectionService::renewSessionOrError(
    const rx::BehaviorSubject<std::optional<AuthenticationData>>& userSession) {
  std::optional<AuthenticationData> data;
  try {
    data = userSession.value();
  } catch (...) {
    // A failed subject holds no session to renew.
  }
  if (!data) return rx::Observable<rx::Unit>::empty();

  return fetch<rx::Unit>(
             Call<Path>{.pathname = {Path::sessions, {PathRule::append(data->session.sessionID)}},
                        .method = "PUT",
                        .body = {{"registered", data->credential.credentialId}}})
      .asObservable();
}

}  // namespace kel
