#pragma once

/// @file
/// A Socket without a network, for unit tests of the code above it. It keeps every promise of
/// Socket.h, records what the code under test does with it, and lets the test play the server
/// and the network:
///
/// ```
///   auto socket = std::make_shared<InMemorySocket>(url);
///   socket->setDelegate(handler);
///   client.connect(...);                 // connect() opens at once by default
///   socket->receiveMessage(R"({"kapiId": "k"})");
///   EXPECT_EQ(socket->sentTexts(), ...);
///   socket->close(SocketCloseCode::abnormalClosure);   // the network is lost
/// ```
///
/// Delegate calls are made on the thread that causes them (the test's thread, or the thread
/// calling connect() or disconnect() when those open or close at once). A call caused while
/// another delegate call is running, on any thread, is queued and made by the thread already
/// delivering once the running call returns, so calls never nest or overlap. All members are
/// thread-safe.
///
/// Driving the socket in a state where a real peer could not act (open() without a pending
/// connect(), receiveMessage() on a closed socket) is a mistake in the test and throws
/// std::logic_error.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/url/url.hpp>

#include "ServerClient/platform/Socket.h"
#include "ServerClient/platform/SocketCloseCode.h"
#include "ServerClient/platform/SocketExecutor.h"
#include "ServerClient/platform/UpgradeRequest.h"
#include "ServerClient/platform/WebSocketConnectionDelegate.h"

namespace kel::platform {

/// A Socket without a network, for unit tests: the test plays the server and the network and
/// checks what the code under test sent. See InMemorySocket.h for the threads of its delegate
/// calls; all members are thread-safe.
class InMemorySocket final : public Socket, public SocketExecutor {
 public:
  /// How much the socket does on its own; the defaults open and close at once.
  struct Options {
    /// connect() opens at once (socketDidConnect); otherwise the test calls open() or close().
    bool openOnConnect = true;
    /// disconnect(code) reports socketDidDisconnect(code) at once; otherwise the closing
    /// handshake stays under way until the test calls completeDisconnect() or close().
    bool closeOnDisconnect = true;
    /// What executor() returns: a thread of the test's standing in for a network thread.
    boost::asio::any_io_executor executor{};
  };

  /// Where the socket is in the lifecycle of Socket.h.
  enum class State {
    closed,   ///< no connection; connect() starts one
    opening,  ///< connect() was called; open() or close() decides
    open,     ///< connected: sends are recorded, frames may be received
    closing   ///< disconnect() was called without Options::closeOnDisconnect
  };

  /// A closed socket for `url` with the default Options.
  explicit InMemorySocket(boost::urls::url url, std::vector<std::string> protocols = {});
  /// A closed socket for `url` with `options`.
  InMemorySocket(boost::urls::url url, std::vector<std::string> protocols, Options options);

  // Socket
  const boost::urls::url& url() const noexcept override { return url_; }
  bool isConnected() const override;
  UpgradeRequest request() const override;
  void setRequest(UpgradeRequest request) override;
  void setDelegate(std::weak_ptr<WebSocketConnectionDelegate> delegate) override;
  void connect() override;
  void disconnect(SocketCloseCode closeCode) override;
  void send(std::string text) override;
  void sendPong() override;
  // SocketExecutor
  /// Options::executor; none by default.
  boost::asio::any_io_executor executor() override;

  // Playing the server and the network.

  /// The pending connection opens: socketDidConnect. Requires state opening.
  void open();
  /// The connection ends without the client asking: the peer closed with `closeCode`, or the
  /// network was lost (abnormalClosure), or the pending connection failed. Reports
  /// socketDidDisconnect(closeCode); while a disconnect() is under way it completes that one with
  /// the client's code instead. Requires state opening, open or closing.
  void close(SocketCloseCode closeCode);
  /// Completes the closing handshake of a disconnect() under way: socketDidDisconnect with the
  /// code given to disconnect(). Requires state closing.
  void completeDisconnect();
  /// A text frame arrives. Requires state open. Any bytes are delivered, so that tests can feed
  /// frames a real socket would have refused.
  void receiveMessage(std::string text);
  /// A binary frame arrives. Requires state open.
  void receiveData(std::string bytes);
  /// Something failed; state is unchanged (follow with close() to end the connection).
  void receiveError(std::exception_ptr error);

  /// Called with every text written on an open connection, after it is recorded, on the
  /// sender's thread and without any lock held, so that a test can answer, e.g. the "AUTH "
  /// frame with an acknowledgement. Null to stop.
  void setSendHandler(std::function<void(const std::string&)> handler);
  /// Replaces the Options; affects the calls made from now on.
  void setOptions(Options options);

  // What the code under test did.

  /// Where the socket is now.
  State state() const;
  /// The sub-protocols the socket was made with.
  const std::vector<std::string>& protocols() const noexcept { return protocols_; }
  /// Texts written on an open connection, in order.
  std::vector<std::string> sentTexts() const;
  /// Texts passed to send() while no connection was open; a real socket drops them.
  std::vector<std::string> droppedTexts() const;
  /// Pongs written on an open connection.
  std::size_t pongCount() const;
  /// Every call of connect(), whatever the state.
  std::size_t connectCount() const;
  /// The upgrade request in force at each connect() that started a connection.
  std::vector<UpgradeRequest> connectRequests() const;
  /// The codes of every call of disconnect(), in order.
  std::vector<SocketCloseCode> disconnectCodes() const;

 private:
  using Call = std::function<void(WebSocketConnectionDelegate&)>;
  struct PendingCall {
    std::uint64_t connection;  // the connection the call is about
    Call call;
  };

  // Queues `call` and, unless another thread is already delivering, makes the queued calls one
  // by one with `lock` released around each.
  void deliver(std::unique_lock<std::mutex>& lock, Call call);
  // Ends the current connection and reports it with `closeCode`.
  void finish(std::unique_lock<std::mutex>& lock, SocketCloseCode closeCode);
  void require(bool allowed, const char* operation) const;

  const boost::urls::url url_;
  const std::vector<std::string> protocols_;

  mutable std::mutex mutex_;  // guards every member below
  Options options_;
  State state_ = State::closed;
  SocketCloseCode closingCode_ = SocketCloseCode::invalid;  // the disconnect() under way
  UpgradeRequest request_;
  std::weak_ptr<WebSocketConnectionDelegate> delegate_;
  std::function<void(const std::string&)> sendHandler_;
  std::uint64_t connection_ = 0;  // counts the connections started
  std::deque<PendingCall> pendingCalls_;
  bool delivering_ = false;

  std::vector<std::string> sentTexts_;
  std::vector<std::string> droppedTexts_;
  std::size_t pongCount_ = 0;
  std::size_t connectCount_ = 0;
  std::vector<UpgradeRequest> connectRequests_;
  std::vector<SocketCloseCode> disconnectCodes_;
};

/// The state's name, e.g. "closing".
const char* name(InMemorySocket::State state) noexcept;

}  // namespace kel::platform
