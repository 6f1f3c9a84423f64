#pragma once

// Everything behind Emulator: the network (io_context, threads, listener, ping timer), the state
// that connections and tests share (sockets, frames, counters, faults), and the accounts and
// routers. The shared state is guarded by one mutex, mutex_; connections report to it, tests
// read it, and every change wakes waitUntil.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>

#include "emulator/Emulator.h"
#include "emulator/detail/Connection.h"
#include "emulator/detail/Responder.h"

namespace kel::emulator::detail {

class Server {
 public:
  explicit Server(Options options);
  ~Server();

  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  Urls start();
  void stop();
  bool isRunning() const;
  Urls urls() const;
  const Options& options() const noexcept { return options_; }

  SessionStore& store() noexcept { return store_; }
  ResourceRouter& resources() noexcept { return resources_; }
  HttpRouter& http() noexcept { return http_; }
  const std::shared_ptr<Lifetime>& lifetime() const noexcept { return lifetime_; }
  boost::asio::ssl::context* tlsContext() noexcept { return tls_ ? &*tls_ : nullptr; }

  // --- For Emulator (any thread) ------------------------------------------------------------

  /// Queues the frame for every open socket among `to`, adding one to each one's `counter`.
  std::size_t sendTo(const Recipients& to, Outgoing::Type type, std::string data,
                     std::uint64_t SocketInfo::*counter = nullptr);
  std::size_t closeSockets(const Recipients& which, std::uint16_t code, std::string reason);
  std::size_t dropSockets(const Recipients& which, DropMode mode);
  std::size_t deafenSockets(const Recipients& which);
  void setUpgradeAnswer(UpgradeAnswer answer);
  UpgradeAnswer upgradeAnswer() const;

  void armFault(Fault fault, RequestFilter filter, std::optional<std::size_t> count);
  void clearFaults();
  std::size_t armedFaults() const;

  void refuseConnections(std::optional<std::chrono::milliseconds> duration, RefusalMode mode);
  void acceptConnections();
  bool isRefusingConnections() const;

  std::vector<SocketInfo> sockets() const;
  std::optional<SocketInfo> socket(SocketId id) const;
  std::vector<ReceivedFrame> receivedFrames(std::optional<SocketId> id) const;
  void clearReceivedFrames();
  Counters counters() const;
  bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) const;

  // --- For connections (network threads) ----------------------------------------------------

  std::uint64_t track(const std::shared_ptr<Connection>& connection);
  void untrack(std::uint64_t key);
  SocketId nextSocketId();
  void socketOpened(const std::shared_ptr<WebSocketConnection>& connection, SocketInfo info);
  void socketClosed(SocketId id, ClosedBy closedBy, std::optional<std::uint16_t> code,
                    std::string reason, bool clean);
  /// `keep`: whether the frame may be kept (it comes from an authenticated socket).
  void frameReceived(SocketId id, FrameKind kind, bool binary, std::string_view data, bool keep);
  void pongReceived(SocketId id);
  void pingReceived(SocketId id);
  void authTimedOut();
  void upgradeRejected();
  void socketAuthenticated(SocketId id, const Session& session, const std::string& kapiId);
  void authenticationFailed(SocketId id);
  void responseQueued(SocketId id);
  void responseWithheld(SocketId id);
  void httpRequestServed();
  /// The fault armed for this request, if any; uses one of its count.
  std::optional<Fault> takeFault(SocketId id, std::string_view method, std::string_view path);

  bool logging() const noexcept { return static_cast<bool>(options_.log); }
  void log(std::string_view line) const;

 private:
  struct Entry {
    SocketInfo info;
    std::shared_ptr<WebSocketConnection> connection;  // null once closed
  };
  struct ArmedFault {
    Fault fault;
    RequestFilter filter;
    std::optional<std::size_t> remaining;  // nothing: until cleared
  };

  void changed();  // call without mutex_ held, after a change made under it
  std::vector<std::shared_ptr<WebSocketConnection>> select(const Recipients& which,
                                                           bool openOnly) const;
  void openListener();
  void doAccept();
  void onAccept(Strand strand, const boost::system::error_code& error,
                boost::asio::ip::tcp::socket socket);
  void schedulePing();
  void endRefusal(std::uint64_t generation);
  void releaseStalled();

  const Options options_;
  SessionStore store_;
  ResourceRouter resources_;
  HttpRouter http_;
  std::shared_ptr<Lifetime> lifetime_ = std::make_shared<Lifetime>();
  std::optional<boost::asio::ssl::context> tls_;

  mutable std::mutex mutex_;  // guards everything down to the network section
  mutable std::condition_variable changed_;
  std::uint64_t version_ = 0;
  bool started_ = false;
  bool running_ = false;
  Urls urls_;
  std::map<SocketId, Entry> sockets_;
  std::deque<SocketId> closedSockets_;  // oldest first, for forgetting
  std::deque<ReceivedFrame> frames_;
  std::size_t frameBytes_ = 0;  // the payload bytes in frames_
  UpgradeAnswer upgradeAnswer_;
  // Connections held without a word while refusing with RefusalMode::stall.
  std::vector<std::shared_ptr<boost::asio::ip::tcp::socket>> stalled_;
  std::uint64_t failedAccepts_ = 0;  // in a row; logged when they start and end
  Counters counters_;
  std::vector<ArmedFault> faults_;
  std::atomic<std::size_t> armedCount_{0};  // faults_.size(), readable without the mutex
  bool refusing_ = false;
  RefusalMode refusalMode_ = RefusalMode::reset;
  std::uint64_t refusalGeneration_ = 0;
  std::uint64_t nextSocketId_ = 1;
  std::uint64_t nextConnectionKey_ = 1;
  std::unordered_map<std::uint64_t, std::weak_ptr<Connection>> connections_;

  // The network. The io_context goes first when the server is destroyed: pending handlers hold
  // connections, whose destructors still report to the members above.
  std::unique_ptr<boost::asio::io_context> io_;
  std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work_;
  std::optional<Strand> strand_;  // listener, ping timer, refusal timer
  std::optional<boost::asio::ip::tcp::acceptor> acceptor_;
  std::optional<boost::asio::steady_timer> pingTimer_;
  std::optional<boost::asio::steady_timer> refusalTimer_;
  boost::asio::ip::tcp::endpoint endpoint_;
  std::vector<std::thread> threads_;
};

}  // namespace kel::emulator::detail
