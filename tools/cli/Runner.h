#pragma once

// What every server command shares: a facade for the command line's server, the main loop that
// waits for its answers within the command's time bound, the stored session, and the printing
// of readable lines.

#include <memory>
#include <optional>
#include <string>

#include "ServerClient/Client/KelServer.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Socket/Client/SocketClient.h"
#include "cli/CommandLine.h"
#include "cli/MainLoop.h"

namespace kel::cli {

/// Ends a command: the error's kind and text.
struct CommandError {
  std::string kind;
  std::string message;
};

/// What else ends a wait before the command's time bound.
enum class Watch {
  /// The server refused the socket (see socketEnded()).
  refusal,
  /// That, or the server closed the session's socket as the end of the session.
  sessionEnd,
};

class Runner {
 public:
  explicit Runner(const CommandLine& line);
  /// Closes the socket as for the background, so that the stored session stays valid.
  ~Runner();
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  /// The value of `single`, or a CommandError: the library's error (a time-out of its own names
  /// the socket's last failure), the socket's refusal or end as soon as it is known, or this
  /// command's time bound with the socket's last failure.
  template <class T>
  T await(const std::string& what, const rx::Single<T>& single, Watch watch = Watch::refusal) {
    std::optional<CommandError> ended;
    auto outcome = loop_.await(single, line_.timeout, [&] {
      ended = socketEnded(what, watch);
      return ended.has_value();
    });
    if (outcome.error) {
      throw CommandError{errorKind(outcome.error),
                         describeErrorWithSocketFailure(outcome.error, client())};
    }
    if (outcome.value) return std::move(*outcome.value);
    if (ended) throw std::move(*ended);
    throw timedOut(what);
  }
  void await(const std::string& what, const rx::Completable& completable);

  /// The stored session, signed in again; refused at once when the server refuses it.
  AuthenticationData restore();

  KelServer& server() { return *server_; }
  MainLoop& loop() { return loop_; }
  const CommandLine& line() const { return line_; }

  /// The client in the facade's slot, if any.
  std::shared_ptr<SocketClient> client() const;
  /// A CommandError when the socket was refused, or (with Watch::sessionEnd) the server ended the
  /// session.
  std::optional<CommandError> socketEnded(const std::string& what, Watch watch) const;

  /// A line for people: on stdout unless --json, through printable().
  void human(const std::string& text) const;

 private:
  CommandError timedOut(const std::string& what) const;

  const CommandLine& line_;
  MainLoop loop_;
  std::shared_ptr<KelServer> server_;
};

}  // namespace kel::cli
