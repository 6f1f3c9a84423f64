#pragma once

// A socket client for service tests: it records every request sent through it and lets the test
// answer each one, by hand or with a reply queued in advance. With a scheduler set, a request
// left unanswered fails after its own time-out with ConnectionError(timeout), as the real client
// does, so time-outs are tested in virtual time.

#include <cstdint>
#include <deque>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ServerClient/Socket/Client/SocketClient.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Scheduler.h"
#include "ServerClient/rx/Subjects.h"

namespace kel::testing {

class FakeSocketClient final : public SocketClient,
                               public std::enable_shared_from_this<FakeSocketClient> {
 public:
  /// How a queued reply answers the next request: a body, a failure, or completion alone.
  struct Reply {
    std::optional<nlohmann::json> body;
    std::exception_ptr error;

    static Reply withBody(nlohmann::json body) { return {std::move(body), nullptr}; }
    static Reply failure(std::exception_ptr error) { return {std::nullopt, std::move(error)}; }
    static Reply empty() { return {}; }
  };

  explicit FakeSocketClient(SocketState state = SocketState::authenticated())
      : state_(std::move(state)) {}

  /// Publishes `state` as the socket's current state.
  void setState(SocketState state) { state_.onNext(state); }

  void setTimeoutScheduler(rx::SchedulerPtr scheduler) {
    std::lock_guard lock(mutex_);
    timeoutScheduler_ = std::move(scheduler);
  }

  /// Answers the next request(s) sent, in order, as soon as they are subscribed.
  void queueReply(Reply reply) {
    std::lock_guard lock(mutex_);
    replies_.push_back(std::move(reply));
  }

  /// The wire objects ("id", "path", "method", "body") of every request sent, oldest first.
  std::vector<nlohmann::json> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  /// The last request's wire object; fails the test when nothing was sent.
  nlohmann::json lastRequest() const;
  std::size_t pendingCount() const {
    std::lock_guard lock(mutex_);
    return pending_.size();
  }

  /// Answers the pending request `id` as the real client would, then completes it. False when no
  /// such request is pending.
  bool respond(std::int64_t id, const nlohmann::json& body) {
    return answer(id, Reply::withBody(body));
  }
  bool fail(std::int64_t id, std::exception_ptr error) {
    return answer(id, Reply::failure(std::move(error)));
  }

  // SocketClient
  SocketState currentStatus() const override { return state_.value(); }
  rx::Observable<SocketState> socketConnectionEventChannel() const override {
    return state_.asObservable();
  }
  rx::Observable<rx::Unit> connect(std::string) override {
    return rx::Observable<rx::Unit>::just(rx::Unit{});
  }
  void stop(platform::SocketCloseCode reason) override;
  rx::Observable<Resource> send(AnyRequest request) override;

 private:
  bool answer(std::int64_t id, const Reply& reply);
  static void deliver(const rx::Observer<Resource>& observer, std::int64_t id, const Reply& reply);

  rx::BehaviorSubject<SocketState> state_;
  mutable std::mutex mutex_;  // guards everything below
  rx::SchedulerPtr timeoutScheduler_;
  std::deque<Reply> replies_;
  std::vector<nlohmann::json> requests_;
  std::map<std::int64_t, rx::Observer<Resource>> pending_;
};

}  // namespace kel::testing
