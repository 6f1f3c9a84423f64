#include "ServerClient/KeepConnection/KeepConnectionService.h"

#include <map>
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

  Request<std::map<std::string, std::string>, Path> request{
      .pathname = {Path::sessions, {PathRule::append(data->session.sessionID)}},
      .body = std::map<std::string, std::string>{{"registered", data->credential.credentialId}},
      .method = "PUT",
  };
  return firstResource(sendRequestOrError(std::move(request)))
      .asObservable()
      .map([](const Resource&) { return rx::Unit{}; });
}

}  // namespace kel
