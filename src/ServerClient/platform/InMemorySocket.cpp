#include "ServerClient/platform/InMemorySocket.h"

#include <stdexcept>
#include <string>
#include <utility>

namespace kel::platform {

InMemorySocket::InMemorySocket(boost::urls::url url, std::vector<std::string> protocols)
    : InMemorySocket(std::move(url), std::move(protocols), Options{}) {}

InMemorySocket::InMemorySocket(boost::urls::url url, std::vector<std::string> protocols,
                               Options options)
    : url_(std::move(url)), protocols_(std::move(protocols)), options_(options) {}

bool InMemorySocket::isConnected() const {
  std::lock_guard lock(mutex_);
  return state_ == State::open;
}

UpgradeRequest InMemorySocket::request() const {
  std::lock_guard lock(mutex_);
  return request_;
}

void InMemorySocket::setRequest(UpgradeRequest request) {
  std::lock_guard lock(mutex_);
  request_ = std::move(request);
}

void InMemorySocket::setDelegate(std::weak_ptr<WebSocketConnectionDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void InMemorySocket::connect() {
  std::unique_lock lock(mutex_);
  ++connectCount_;
  if (state_ != State::closed) return;
  ++connection_;
  connectRequests_.push_back(request_);
  state_ = State::opening;
  if (options_.openOnConnect) {
    state_ = State::open;
    deliver(lock, [](WebSocketConnectionDelegate& delegate) { delegate.socketDidConnect(); });
  }
}

void InMemorySocket::disconnect(SocketCloseCode closeCode) {
  std::unique_lock lock(mutex_);
  disconnectCodes_.push_back(closeCode);
  switch (state_) {
    case State::closing:
      return;  // the report of the disconnect() under way is the only one
    case State::closed:
      deliver(lock, [closeCode](WebSocketConnectionDelegate& delegate) {
        delegate.socketDidDisconnect(closeCode);
      });
      return;
    case State::opening:
    case State::open:
      // Once the client has asked to close, the connection has nothing more to say.
      std::erase_if(pendingCalls_, [this](const PendingCall& pending) {
        return pending.connection == connection_;
      });
      if (options_.closeOnDisconnect) {
        finish(lock, closeCode);
      } else {
        state_ = State::closing;
        closingCode_ = closeCode;
      }
      return;
  }
}

void InMemorySocket::send(std::string text) {
  std::unique_lock lock(mutex_);
  if (state_ != State::open) {
    droppedTexts_.push_back(std::move(text));
    return;
  }
  sentTexts_.push_back(text);
  auto handler = sendHandler_;
  lock.unlock();
  if (handler) handler(text);
}

void InMemorySocket::sendPong() {
  std::lock_guard lock(mutex_);
  if (state_ == State::open) ++pongCount_;
}

boost::asio::any_io_executor InMemorySocket::executor() {
  std::lock_guard lock(mutex_);
  return options_.executor;
}

void InMemorySocket::open() {
  std::unique_lock lock(mutex_);
  require(state_ == State::opening, "open");
  state_ = State::open;
  deliver(lock, [](WebSocketConnectionDelegate& delegate) { delegate.socketDidConnect(); });
}

void InMemorySocket::close(SocketCloseCode closeCode) {
  std::unique_lock lock(mutex_);
  require(state_ != State::closed, "close");
  finish(lock, state_ == State::closing ? closingCode_ : closeCode);
}

void InMemorySocket::completeDisconnect() {
  std::unique_lock lock(mutex_);
  require(state_ == State::closing, "completeDisconnect");
  finish(lock, closingCode_);
}

void InMemorySocket::receiveMessage(std::string text) {
  std::unique_lock lock(mutex_);
  require(state_ == State::open, "receiveMessage");
  deliver(lock, [text = std::move(text)](WebSocketConnectionDelegate& delegate) {
    delegate.socketDidReceiveMessage(text);
  });
}

void InMemorySocket::receiveData(std::string bytes) {
  std::unique_lock lock(mutex_);
  require(state_ == State::open, "receiveData");
  deliver(lock, [bytes = std::move(bytes)](WebSocketConnectionDelegate& delegate) {
    delegate.socketDidReceiveData(bytes);
  });
}

void InMemorySocket::receiveError(std::exception_ptr error) {
  std::unique_lock lock(mutex_);
  if (state_ == State::closing) return;  // silent after disconnect(), like a real connection
  deliver(lock, [error = std::move(error)](WebSocketConnectionDelegate& delegate) {
    delegate.socketDidReceiveError(error);
  });
}

void InMemorySocket::setSendHandler(std::function<void(const std::string&)> handler) {
  std::lock_guard lock(mutex_);
  sendHandler_ = std::move(handler);
}

void InMemorySocket::setOptions(Options options) {
  std::lock_guard lock(mutex_);
  options_ = std::move(options);
}

InMemorySocket::State InMemorySocket::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

std::vector<std::string> InMemorySocket::sentTexts() const {
  std::lock_guard lock(mutex_);
  return sentTexts_;
}

std::vector<std::string> InMemorySocket::droppedTexts() const {
  std::lock_guard lock(mutex_);
  return droppedTexts_;
}

std::size_t InMemorySocket::pongCount() const {
  std::lock_guard lock(mutex_);
  return pongCount_;
}

std::size_t InMemorySocket::connectCount() const {
  std::lock_guard lock(mutex_);
  return connectCount_;
}

std::vector<UpgradeRequest> InMemorySocket::connectRequests() const {
  std::lock_guard lock(mutex_);
  return connectRequests_;
}

std::vector<SocketCloseCode> InMemorySocket::disconnectCodes() const {
  std::lock_guard lock(mutex_);
  return disconnectCodes_;
}

void InMemorySocket::finish(std::unique_lock<std::mutex>& lock, SocketCloseCode closeCode) {
  state_ = State::closed;
  closingCode_ = SocketCloseCode::invalid;
  deliver(lock, [closeCode](WebSocketConnectionDelegate& delegate) {
    delegate.socketDidDisconnect(closeCode);
  });
}

void InMemorySocket::deliver(std::unique_lock<std::mutex>& lock, Call call) {
  pendingCalls_.push_back({connection_, std::move(call)});
  if (delivering_) return;
  delivering_ = true;
  while (!pendingCalls_.empty()) {
    Call next = std::move(pendingCalls_.front().call);
    pendingCalls_.pop_front();
    auto delegate = delegate_.lock();
    lock.unlock();
    try {
      if (delegate) next(*delegate);
    } catch (...) {
      // A delegate must not throw; should one do so anyway, later calls still get delivered.
      lock.lock();
      delivering_ = false;
      throw;
    }
    lock.lock();
  }
  delivering_ = false;
}

void InMemorySocket::require(bool allowed, const char* operation) const {
  if (!allowed) {
    throw std::logic_error(std::string("InMemorySocket::") + operation + " in state " +
                           name(state_));
  }
}

const char* name(InMemorySocket::State state) noexcept {
  switch (state) {
    case InMemorySocket::State::closed:
      return "closed";
    case InMemorySocket::State::opening:
      return "opening";
    case InMemorySocket::State::open:
      return "open";
    case InMemorySocket::State::closing:
      return "closing";
  }
  return "unknown";
}

}  // namespace kel::platform
