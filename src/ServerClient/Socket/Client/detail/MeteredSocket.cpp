#include "ServerClient/Socket/Client/detail/MeteredSocket.h"

#include <mutex>
#include <string>
#include <utility>

#include "ServerClient/platform/SocketExecutor.h"

namespace kel::detail {

namespace {

using platform::SocketCloseCode;
using platform::WebSocketConnectionDelegate;

class MeteredSocket final : public platform::Socket,
                            public platform::SocketExecutor,
                            public WebSocketConnectionDelegate {
 public:
  MeteredSocket(std::shared_ptr<platform::Socket> socket,
                std::weak_ptr<WebSocketConnectionDelegate> delegate,
                std::shared_ptr<KelMetricsRecorder> metrics)
      : socket_(std::move(socket)), metrics_(std::move(metrics)), delegate_(std::move(delegate)) {}

  const boost::urls::url& url() const noexcept override { return socket_->url(); }
  bool isConnected() const override { return socket_->isConnected(); }
  platform::UpgradeRequest request() const override { return socket_->request(); }
  void setRequest(platform::UpgradeRequest request) override {
    socket_->setRequest(std::move(request));
  }
  void setDelegate(std::weak_ptr<WebSocketConnectionDelegate> delegate) override {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
  }
  void connect() override { socket_->connect(); }
  void disconnect(SocketCloseCode closeCode) override { socket_->disconnect(closeCode); }
  void send(std::string text) override {
    metrics_->messageSent(text.size());
    socket_->send(std::move(text));
  }
  void sendPong() override { socket_->sendPong(); }

  boost::asio::any_io_executor executor() override {
    auto* thread = dynamic_cast<platform::SocketExecutor*>(socket_.get());
    return thread ? thread->executor() : boost::asio::any_io_executor();
  }

  void socketDidConnect() override {
    if (auto delegate = target()) delegate->socketDidConnect();
  }
  void socketDidDisconnect(SocketCloseCode closeCode) override {
    if (auto delegate = target()) delegate->socketDidDisconnect(closeCode);
  }
  void socketDidClose(SocketCloseCode closeCode, std::string reason) override {
    if (auto delegate = target()) delegate->socketDidClose(closeCode, std::move(reason));
  }
  void socketDidReceiveError(std::exception_ptr error) override {
    if (auto delegate = target()) delegate->socketDidReceiveError(std::move(error));
  }
  void socketDidReceiveMessage(std::string text) override {
    metrics_->messageReceived(text.size());
    if (auto delegate = target()) delegate->socketDidReceiveMessage(std::move(text));
  }
  void socketDidReceiveData(std::string bytes) override {
    metrics_->messageReceived(bytes.size());
    if (auto delegate = target()) delegate->socketDidReceiveData(std::move(bytes));
  }

 private:
  std::shared_ptr<WebSocketConnectionDelegate> target() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
  }

  const std::shared_ptr<platform::Socket> socket_;
  const std::shared_ptr<KelMetricsRecorder> metrics_;
  mutable std::mutex mutex_;  // guards delegate_
  std::weak_ptr<WebSocketConnectionDelegate> delegate_;
};

}  // namespace

std::shared_ptr<platform::Socket> meteredSocket(
    std::shared_ptr<platform::Socket> socket,
    const std::shared_ptr<WebSocketConnectionDelegate>& delegate,
    std::shared_ptr<KelMetricsRecorder> metrics) {
  auto metered = std::make_shared<MeteredSocket>(socket, delegate, std::move(metrics));
  // The socket holds its delegate weakly: whoever holds the meter keeps the calls flowing.
  if (delegate) socket->setDelegate(metered);
  return metered;
}

}  // namespace kel::detail
