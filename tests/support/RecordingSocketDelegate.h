#pragma once

// A WebSocketConnectionDelegate that records every call, for tests of sockets and of what sits
// on them; tests wait on the recorded calls, never on time. It also checks the promises of
// Socket.h that a test cannot see from outside: calls never overlap, and nothing follows a
// socketDidDisconnect until the next socketDidConnect.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ServerClient/platform/SocketCloseCode.h"
#include "ServerClient/platform/WebSocketConnectionDelegate.h"

namespace kel::test {

/// How long the waits of the test support wait by default: far beyond anything a healthy
/// loopback exchange needs, so only a real fault reaches it.
inline constexpr std::chrono::milliseconds kDefaultWait{std::chrono::seconds(10)};

class RecordingSocketDelegate final : public platform::WebSocketConnectionDelegate {
 public:
  enum class Kind { connected, disconnected, error, message, data };

  struct Event {
    Kind kind = Kind::connected;
    platform::SocketCloseCode code = platform::SocketCloseCode::invalid;  // disconnected
    std::string text{};  // message, data; the error's what() for error
    std::exception_ptr error{};
    std::thread::id thread{};
  };

  void socketDidConnect() override { record({Kind::connected}); }
  void socketDidDisconnect(platform::SocketCloseCode code) override {
    record({Kind::disconnected, code});
  }
  void socketDidReceiveError(std::exception_ptr error) override;
  void socketDidReceiveMessage(std::string text) override {
    record({Kind::message, {}, std::move(text)});
  }
  void socketDidReceiveData(std::string bytes) override {
    record({Kind::data, {}, std::move(bytes)});
  }

  /// Runs on the calling thread after each call has been recorded.
  void setHook(std::function<void(const Event&)> hook);

  std::vector<Event> events() const;
  std::size_t count(Kind kind) const;
  std::vector<std::string> messages() const { return texts(Kind::message); }
  std::vector<std::string> errors() const { return texts(Kind::error); }
  std::vector<platform::SocketCloseCode> disconnects() const;

  bool waitFor(Kind kind, std::size_t count = 1,
               std::chrono::milliseconds timeout = kDefaultWait) const;
  /// Waits until `count` calls of any of `kinds` have been made in all, e.g. the end of an
  /// opening attempt, whichever way it went.
  bool waitForAny(std::initializer_list<Kind> kinds, std::size_t count = 1,
                  std::chrono::milliseconds timeout = kDefaultWait) const;
  bool waitForConnect(std::size_t count = 1) const { return waitFor(Kind::connected, count); }
  /// The code of the `count`-th socketDidDisconnect once it has come; none after `timeout`.
  std::optional<platform::SocketCloseCode> waitForDisconnect(
      std::size_t count = 1, std::chrono::milliseconds timeout = kDefaultWait) const;

  /// A description of what broke the promises of Socket.h, empty when nothing did.
  std::string contractViolations() const;

 private:
  void record(Event event);
  std::vector<std::string> texts(Kind kind) const;

  mutable std::mutex mutex_;  // guards the members below
  mutable std::condition_variable changed_;
  std::vector<Event> events_;
  std::size_t counts_[5] = {};
  std::function<void(const Event&)> hook_;
  bool inCall_ = false;
  bool open_ = false;
  std::string violations_;
};

const char* name(RecordingSocketDelegate::Kind kind) noexcept;

}  // namespace kel::test
