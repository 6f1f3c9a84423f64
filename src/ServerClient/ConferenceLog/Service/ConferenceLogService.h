#pragma once

#include <chrono>
#include <optional>
#include <vector>

#include "ServerClient/ConferenceLog/Model/ConferenceEntry.h"
#include "ServerClient/rx/Observable.h"

namespace kel {

/// The user's conference log, read only. Each subscription sends one request and never retries.
/// Results arrive on the socket client's thread. Errors are SDKErrors: the socket's
/// (ConnectionError noSocketClient when not signed in, timeout after 20 s, the server's error
/// codes) and GenericError(decoding) when any one entry does not decode: there is no partial
/// list.
class ConferenceLogService {
 public:
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
