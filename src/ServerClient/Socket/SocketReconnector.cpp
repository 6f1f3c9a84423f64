#include "ServerClient/Socket/SocketReconnector.h"

#include <utility>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/rx/Schedulers.h"

namespace kel {

std::shared_ptr<SocketReconnector> SocketReconnector::create(
    std::shared_ptr<platform::Socket> socket, std::shared_ptr<SocketConnector> socketConnector,
    std::shared_ptr<SocketAuthenticator> socketAuthenticator, rx::Duration reconnectionAttempt,
    Options options) {
  return std::make_shared<SocketReconnector>(
      Passkey{}, std::move(socket), std::move(socketConnector), std::move(socketAuthenticator),
      reconnectionAttempt, std::move(options));
}

SocketReconnector::SocketReconnector(Passkey, std::shared_ptr<platform::Socket> socket,
                                     std::shared_ptr<SocketConnector> socketConnector,
                                     std::shared_ptr<SocketAuthenticator> socketAuthenticator,
                                     rx::Duration reconnectionAttempt, Options options)
    : reconnectionScheduler_(
          options.reconnectionScheduler
              ? std::move(options.reconnectionScheduler)
              : std::make_shared<rx::SerialDispatchQueueScheduler>("SocketReconnector")),
      onAttempt_(std::move(options.onAttempt)),
      socketConnector_(std::move(socketConnector)),
      socketAuthenticator_(std::move(socketAuthenticator)),
      socket_(std::move(socket)),
      reconnectionAttempt_(reconnectionAttempt) {}

StopByUser SocketReconnector::stopByUser() const {
  std::lock_guard lock(mutex_);
  return stopByUser_;
}

void SocketReconnector::setStopByUser(StopByUser stopByUser) {
  std::lock_guard lock(mutex_);
  stopByUser_ = std::move(stopByUser);
}

bool SocketReconnector::isStoppedByUser() const {
  // Asked outside the lock: the function reads the socket client's state.
  auto stopByUser = this->stopByUser();
  return stopByUser && stopByUser().isStopped;
}

void SocketReconnector::finish(std::uint64_t number) noexcept {
  reconnection_.compare_exchange_strong(number, 0, std::memory_order_acq_rel);
}

rx::Observable<std::int64_t> SocketReconnector::reconnectPulse() const {
  std::weak_ptr<const SocketReconnector> weak = weak_from_this();
  return rx::interval(reconnectionAttempt_, reconnectionScheduler_).takeWhile([weak](std::int64_t) {
    auto self = weak.lock();
    return self && !self->socket_->isConnected() && !self->isStoppedByUser();
  });
}

bool SocketReconnector::launchReconnection(std::string token) {
  const std::uint64_t number = launches_.fetch_add(1, std::memory_order_relaxed) + 1;
  std::uint64_t idle = 0;
  if (!reconnection_.compare_exchange_strong(idle, number, std::memory_order_acq_rel)) {
    return false;
  }

  std::weak_ptr<SocketReconnector> weak = weak_from_this();
  rx::SingleAssignmentDisposable reconnection;
  // A pulse that ends because the user stopped the socket takes the attempts in flight with it:
  // a stopped socket is closed as soon as it opens, so they could only time out. One that ends
  // because the socket is connected leaves them be, as the open that connected it is about to
  // reach them.
  // The chain reaches its own handle weakly, or the handle would keep the chain alive.
  std::weak_ptr<rx::detail::DisposableState> handle = reconnection.asDisposable().state();
  auto pulse = reconnectPulse().doOnCompleted([weak, handle] {
    auto self = weak.lock();
    if (self && !self->isStoppedByUser()) return;
    if (auto running = handle.lock()) running->dispose();
  });
  auto attempts = pulse.flatMap([weak, number](std::int64_t) {
    auto self = weak.lock();
    if (!self) return rx::Observable<rx::Unit>::empty();
    if (self->isStoppedByUser()) {
      self->finish(number);
      return rx::Observable<rx::Unit>::empty();
    }
    if (self->onAttempt_) self->onAttempt_();
    // A refused key ends the reconnection: every further attempt would be refused the same way.
    return self->socketConnector_->connect().asObservable().catchError(
        [](std::exception_ptr error) {
          if (isCertificatePinMismatch(error)) return rx::Observable<rx::Unit>::error(error);
          return rx::Observable<rx::Unit>::empty();
        });
  });
  reconnection.set(attempts.take(1).subscribe(
      [weak, number, token = std::move(token)](rx::Unit) {
        if (auto self = weak.lock()) {
          self->finish(number);
          self->authenticate(token);
        }
      },
      [weak, number](std::exception_ptr error) {
        KEL_LOG_ERROR("launchReconnection(token:)",
                      "Reconnection stopped: " + describeError(error));
        if (auto self = weak.lock()) self->finish(number);
      },
      {},
      [weak, number] {
        if (auto self = weak.lock()) self->finish(number);
      }));
  disposeBag_.insert(reconnection);
  return true;
}

void SocketReconnector::authenticate(const std::string& token) {
  disposeBag_.insert(socketAuthenticator_->authenticate(token).subscribe(
      [](rx::Unit) {},
      [](std::exception_ptr error) {
        KEL_LOG_ERROR("launchReconnection(token:)",
                      "Authentication after reconnection failed: " + describeError(error));
      }));
}

}  // namespace kel
