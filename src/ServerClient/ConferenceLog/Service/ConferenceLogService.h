#pragma once

#include <chrono>
#include <optional>
#include <vector>

#include "ServerClient/ConferenceLog/Model/ConferenceEntry.h"
#include "ServerClient/rx/Observable.h"

namespace kel {

/// The user's conference log, read only. Each subscription sends one request and never retries.
/// Results arrive on the socket client's thread, which must not be blocked; a failure found
/// before sending arrives at once on the subscribing thread. Errors, all SDKError:
/// - ConnectionError `noSocketClient`: not signed in, or the socket is not authenticated;
///   nothing is sent;
/// - ConnectionError `timeout` (code -1): no answer within 20 s;
/// - ConnectionError mapped from the server's error code (ConnectionError::mapToOvError);
/// - GenericError `decoding`: an answer that is not a list, or any one entry that does not
///   decode: there is no partial list.
///
/// A sign-out while the request is pending completes the stream without a list (on the thread
/// that signed out). Disposing the subscription before the answer forgets the request: the
/// answer is dropped. Every member may be called from any thread.
class ConferenceLogService {
 public:
  /// Destroying a service does not end the requests already made through it.
  virtual ~ConferenceLogService() = default;

  /// At most `limit` entries created before `before` and since `after` (each bound only when
  /// given, to the millisecond), newest first when `sortDescending`. The stream emits the list
  /// once and completes.
  virtual rx::Observable<std::vector<ConferenceEntry>> conferencesEntries(
      std::optional<std::chrono::system_clock::time_point> before,
      std::optional<std::chrono::system_clock::time_point> after, int limit,
      bool sortDescending) = 0;
};

}  // namespace kel
