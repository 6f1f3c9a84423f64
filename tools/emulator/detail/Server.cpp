#include "emulator/detail/Server.h"

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>

#include "emulator/LogText.h"

namespace kel::emulator::detail {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {

// Closed sockets stay visible for tests and the log, but a long-running emulator with clients
// that reconnect all day must not grow without bound.
constexpr std::size_t kClosedSocketsKept = 1000;
// How long stop() lets sockets finish their closing handshake before resetting them.
constexpr auto kStopGrace = std::chrono::seconds(2);
// Retry period when accepting fails (e.g. out of file descriptors) or the listener cannot be
// reopened after a refusal.
constexpr auto kAcceptRetry = std::chrono::milliseconds(50);

std::string hostForUrl(const asio::ip::address& address) {
  return address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
}

}  // namespace

Server::Server(Options options) : options_(std::move(options)), store_(options_.sessionLifetime) {
  if (!options_.echoPath.empty()) resources_.routeAsync("*", options_.echoPath, echoHandler());
}

Server::~Server() {
  stop();
  pingTimer_.reset();
  refusalTimer_.reset();
  acceptor_.reset();
  strand_.reset();
  work_.reset();
  io_.reset();
}

Urls Server::start() {
  {
    std::lock_guard lock(mutex_);
    if (started_) throw std::logic_error("an emulator starts only once");
    started_ = true;
  }
  boost::system::error_code error;
  const auto address = asio::ip::make_address(options_.host, error);
  if (error) throw std::invalid_argument("not an IP address: " + options_.host);
  if (options_.threads == 0) throw std::invalid_argument("the emulator needs at least one thread");

  if (options_.tls) {
    try {
      tls_.emplace(asio::ssl::context::tls_server);
      tls_->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                        asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1 |
                        asio::ssl::context::no_tlsv1_1);
      tls_->use_certificate_chain(asio::buffer(options_.tls->certificateChainPem));
      tls_->use_private_key(asio::buffer(options_.tls->privateKeyPem), asio::ssl::context::pem);
    } catch (const boost::system::system_error& e) {
      tls_.reset();
      throw std::invalid_argument(std::string("cannot load the TLS certificate or key: ") +
                                  e.what());
    }
  }

  io_ = std::make_unique<asio::io_context>(static_cast<int>(options_.threads));
  work_.emplace(io_->get_executor());
  strand_.emplace(asio::make_strand(*io_));
  acceptor_.emplace(*strand_);
  pingTimer_.emplace(*strand_);
  refusalTimer_.emplace(*strand_);
  endpoint_ = tcp::endpoint(address, options_.port);
  try {
    openListener();
  } catch (const boost::system::system_error& e) {
    throw std::system_error(std::error_code(e.code()), "cannot listen on " + options_.host + ":" +
                                                           std::to_string(options_.port));
  }
  endpoint_ = acceptor_->local_endpoint();

  const bool secure = options_.tls.has_value();
  const auto authority = hostForUrl(address) + ":" + std::to_string(endpoint_.port());
  auto socketPath =
      options_.socketPath.empty() ? std::string(kDefaultSocketPath) : options_.socketPath;
  if (!socketPath.starts_with('/')) socketPath.insert(0, "/");
  Urls urls;
  urls.kelURL = (secure ? "https://" : "http://") + authority;
  urls.socketURL = (secure ? "wss://" : "ws://") + authority + socketPath;
  urls.port = endpoint_.port();
  {
    std::lock_guard lock(mutex_);
    urls_ = urls;
    running_ = true;
  }

  asio::post(*strand_, [this] {
    doAccept();
    schedulePing();
  });
  threads_.reserve(options_.threads);
  for (std::size_t i = 0; i < options_.threads; ++i) {
    threads_.emplace_back([this] { io_->run(); });
  }
  log("listening on " + urls.kelURL + " (socket " + urls.socketURL + ")");
  return urls;
}

void Server::stop() {
  {
    std::lock_guard lock(mutex_);
    if (!running_) return;
    for (const auto& thread : threads_) {
      if (thread.get_id() == std::this_thread::get_id()) {
        throw std::logic_error("the emulator cannot be stopped from its own network threads");
      }
    }
    running_ = false;
  }

  // Stop listening and close every connection politely, each on its own strand.
  asio::post(*strand_, [this] {
    boost::system::error_code ignored;
    acceptor_->close(ignored);
    pingTimer_->cancel();
    refusalTimer_->cancel();
  });
  std::vector<std::shared_ptr<Connection>> connections;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [key, weak] : connections_) {
      if (auto connection = weak.lock()) connections.push_back(std::move(connection));
    }
  }
  for (const auto& connection : connections) {
    asio::post(connection->strand(), [connection] { connection->shutdown(); });
  }
  connections.clear();
  {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kStopGrace, [this] {
      return std::none_of(sockets_.begin(), sockets_.end(),
                          [](const auto& entry) { return entry.second.connection != nullptr; });
    });
  }

  work_.reset();
  io_->stop();
  for (auto& thread : threads_) thread.join();
  threads_.clear();

  // No network thread runs any more: whatever did not finish is reset from here.
  {
    std::lock_guard lock(mutex_);
    for (const auto& [key, weak] : connections_) {
      if (auto connection = weak.lock()) connections.push_back(std::move(connection));
    }
  }
  for (const auto& connection : connections) connection->abort();
  connections.clear();
  releaseStalled();
  // The close posted above may not have run before the threads stopped; a listener left open
  // would accept connections that nobody serves, and clients would hang instead of being refused.
  {
    boost::system::error_code ignored;
    acceptor_->close(ignored);
  }
  {
    std::unique_lock lock(lifetime_->mutex);
    lifetime_->alive = false;
  }
  {
    std::lock_guard lock(mutex_);
    for (auto& [id, entry] : sockets_) entry.connection.reset();
    ++version_;
  }
  changed_.notify_all();
  log("stopped");
}

bool Server::isRunning() const {
  std::lock_guard lock(mutex_);
  return running_;
}

Urls Server::urls() const {
  std::lock_guard lock(mutex_);
  return urls_;
}

void Server::openListener() {
  acceptor_->open(endpoint_.protocol());
  acceptor_->set_option(asio::socket_base::reuse_address(true));
  acceptor_->bind(endpoint_);
  acceptor_->listen(asio::socket_base::max_listen_connections);
}

void Server::doAccept() {
  auto strand = asio::make_strand(*io_);
  acceptor_->async_accept(
      strand, [this, strand](const boost::system::error_code& error, tcp::socket socket) mutable {
        onAccept(std::move(strand), error, std::move(socket));
      });
}

void Server::onAccept(Strand strand, const boost::system::error_code& error, tcp::socket socket) {
  if (error == asio::error::operation_aborted || !acceptor_->is_open()) return;
  if (error) {
    // Out of descriptors (EMFILE, ENFILE) or memory: the pending connection stays in the backlog,
    // and the clients already served go on. Back off briefly and try again, logging the episode
    // once rather than every retry.
    bool first = false;
    {
      std::lock_guard lock(mutex_);
      first = failedAccepts_++ == 0;
      ++counters_.acceptFailures;
      ++version_;
    }
    changed_.notify_all();
    if (first) {
      log("accept failed: " + error.message() + "; retrying every " +
          std::to_string(kAcceptRetry.count()) + " ms");
    }
    auto retry = std::make_shared<asio::steady_timer>(*strand_, kAcceptRetry);
    retry->async_wait([this, retry](const boost::system::error_code& e) {
      if (!e && acceptor_->is_open()) doAccept();
    });
    return;
  }
  std::uint64_t failedBefore = 0;
  {
    std::lock_guard lock(mutex_);
    failedBefore = std::exchange(failedAccepts_, 0);
  }
  if (failedBefore > 0) {
    log("accepting again after " + std::to_string(failedBefore) + " failed accepts");
  }
  bool refuse = false;
  bool stall = false;
  {
    std::lock_guard lock(mutex_);
    refuse = refusing_;
    if (refuse) {
      ++counters_.connectionsRefused;
      stall = refusalMode_ == RefusalMode::stall;
      if (stall) stalled_.push_back(std::make_shared<tcp::socket>(std::move(socket)));
    } else {
      ++counters_.connectionsAccepted;
    }
    ++version_;
  }
  changed_.notify_all();
  if (stall) {
    log("stalling a connection");
  } else if (refuse) {
    boost::system::error_code ignored;
    socket.set_option(asio::socket_base::linger(true, 0), ignored);
    socket.close(ignored);
    log("refused a connection");
  } else {
    serveConnection(*this, std::move(strand), std::move(socket));
  }
  doAccept();
}

void Server::schedulePing() {
  if (options_.pingPeriod <= std::chrono::milliseconds::zero()) return;
  pingTimer_->expires_after(options_.pingPeriod);
  pingTimer_->async_wait([this](const boost::system::error_code& error) {
    if (error) return;
    std::vector<std::shared_ptr<WebSocketConnection>> open;
    {
      std::lock_guard lock(mutex_);
      for (auto& [id, entry] : sockets_) {
        if (!entry.connection) continue;
        ++entry.info.pingsSent;
        open.push_back(entry.connection);
      }
    }
    static const auto ping = std::make_shared<const std::string>(kPingFrame);
    for (const auto& connection : open) connection->send(ping, false);
    schedulePing();
  });
}

void Server::refuseConnections(std::optional<std::chrono::milliseconds> duration,
                               RefusalMode mode) {
  std::uint64_t generation = 0;
  {
    std::lock_guard lock(mutex_);
    // Effective at once: until the listener is closed, accepted connections are reset.
    refusing_ = true;
    refusalMode_ = mode;
    generation = ++refusalGeneration_;
    ++version_;
  }
  changed_.notify_all();
  log("refusing connections");
  if (!strand_) return;
  asio::post(*strand_, [this, duration, mode, generation] {
    if (mode == RefusalMode::closeListener && acceptor_->is_open()) {
      boost::system::error_code ignored;
      acceptor_->close(ignored);
    }
    refusalTimer_->cancel();
    if (duration) {
      refusalTimer_->expires_after(*duration);
      refusalTimer_->async_wait([this, generation](const boost::system::error_code& error) {
        if (!error) endRefusal(generation);
      });
    }
  });
}

void Server::acceptConnections() {
  std::uint64_t generation = 0;
  {
    std::lock_guard lock(mutex_);
    generation = ++refusalGeneration_;
  }
  if (!strand_) {
    std::lock_guard lock(mutex_);
    refusing_ = false;
    return;
  }
  asio::post(*strand_, [this, generation] {
    refusalTimer_->cancel();
    endRefusal(generation);
  });
}

// On the listener's strand. The refusal ends only once the listener is open again, so that a
// client that sees isRefusingConnections() turn false can connect.
void Server::endRefusal(std::uint64_t generation) {
  {
    std::lock_guard lock(mutex_);
    if (generation != refusalGeneration_ || !running_) return;
  }
  if (!acceptor_->is_open()) {
    try {
      openListener();
    } catch (const std::exception& e) {
      boost::system::error_code ignored;
      acceptor_->close(ignored);
      log(std::string("cannot listen again yet: ") + e.what());
      refusalTimer_->expires_after(kAcceptRetry);
      refusalTimer_->async_wait([this, generation](const boost::system::error_code& error) {
        if (!error) endRefusal(generation);
      });
      return;
    }
    doAccept();
  }
  {
    std::lock_guard lock(mutex_);
    refusing_ = false;
    ++version_;
  }
  changed_.notify_all();
  releaseStalled();
  log("accepting connections again");
}

void Server::releaseStalled() {
  std::vector<std::shared_ptr<tcp::socket>> stalled;
  {
    std::lock_guard lock(mutex_);
    stalled.swap(stalled_);
  }
  for (const auto& socket : stalled) {
    boost::system::error_code ignored;
    socket->set_option(asio::socket_base::linger(true, 0), ignored);
    socket->close(ignored);
  }
}

bool Server::isRefusingConnections() const {
  std::lock_guard lock(mutex_);
  return refusing_;
}

std::vector<std::shared_ptr<WebSocketConnection>> Server::select(const Recipients& which,
                                                                 bool openOnly) const {
  std::vector<std::shared_ptr<WebSocketConnection>> selected;
  for (const auto& [id, entry] : sockets_) {
    if (openOnly && !entry.connection) continue;
    if (which.includes(entry.info)) selected.push_back(entry.connection);
  }
  return selected;
}

std::size_t Server::sendTo(const Recipients& to, Outgoing::Type type, std::string data,
                           std::uint64_t SocketInfo::*counter) {
  auto frame = std::make_shared<const std::string>(std::move(data));
  std::vector<std::shared_ptr<WebSocketConnection>> targets;
  {
    std::lock_guard lock(mutex_);
    for (auto& [id, entry] : sockets_) {
      if (!entry.connection || !to.includes(entry.info)) continue;
      if (counter != nullptr) ++(entry.info.*counter);
      targets.push_back(entry.connection);
    }
  }
  for (const auto& target : targets) target->send(frame, type == Outgoing::Type::binary);
  return targets.size();
}

std::size_t Server::closeSockets(const Recipients& which, std::uint16_t code, std::string reason) {
  std::vector<std::shared_ptr<WebSocketConnection>> targets;
  {
    std::lock_guard lock(mutex_);
    targets = select(which, true);
  }
  for (const auto& target : targets) target->close(code, reason);
  return targets.size();
}

std::size_t Server::dropSockets(const Recipients& which, DropMode mode) {
  std::vector<std::shared_ptr<WebSocketConnection>> targets;
  {
    std::lock_guard lock(mutex_);
    targets = select(which, true);
  }
  for (const auto& target : targets) target->drop(mode);
  return targets.size();
}

std::size_t Server::deafenSockets(const Recipients& which) {
  std::vector<std::shared_ptr<WebSocketConnection>> targets;
  {
    std::lock_guard lock(mutex_);
    targets = select(which, true);
  }
  for (const auto& target : targets) target->deafen();
  return targets.size();
}

void Server::setUpgradeAnswer(UpgradeAnswer answer) {
  std::lock_guard lock(mutex_);
  upgradeAnswer_ = std::move(answer);
}

UpgradeAnswer Server::upgradeAnswer() const {
  std::lock_guard lock(mutex_);
  return upgradeAnswer_;
}

void Server::armFault(Fault fault, RequestFilter filter, std::optional<std::size_t> count) {
  if (count && *count == 0) return;
  std::lock_guard lock(mutex_);
  faults_.push_back(ArmedFault{std::move(fault), std::move(filter), count});
  armedCount_.store(faults_.size(), std::memory_order_release);
}

void Server::clearFaults() {
  std::lock_guard lock(mutex_);
  faults_.clear();
  armedCount_.store(0, std::memory_order_release);
}

std::size_t Server::armedFaults() const {
  std::lock_guard lock(mutex_);
  return faults_.size();
}

std::optional<Fault> Server::takeFault(SocketId id, std::string_view method,
                                       std::string_view path) {
  // Most requests meet no fault at all; they should not queue on the mutex for that.
  if (armedCount_.load(std::memory_order_acquire) == 0) return std::nullopt;
  std::lock_guard lock(mutex_);
  for (auto it = faults_.begin(); it != faults_.end(); ++it) {
    if (!it->filter.matches(id, method, path)) continue;
    Fault fault = it->fault;
    if (it->remaining && --*it->remaining == 0) {
      faults_.erase(it);
      armedCount_.store(faults_.size(), std::memory_order_release);
    }
    return fault;
  }
  return std::nullopt;
}

std::vector<SocketInfo> Server::sockets() const {
  std::lock_guard lock(mutex_);
  std::vector<SocketInfo> result;
  result.reserve(sockets_.size());
  for (const auto& [id, entry] : sockets_) result.push_back(entry.info);
  return result;
}

std::optional<SocketInfo> Server::socket(SocketId id) const {
  std::lock_guard lock(mutex_);
  auto it = sockets_.find(id);
  if (it == sockets_.end()) return std::nullopt;
  return it->second.info;
}

std::vector<ReceivedFrame> Server::receivedFrames(std::optional<SocketId> id) const {
  std::lock_guard lock(mutex_);
  std::vector<ReceivedFrame> result;
  for (const auto& frame : frames_) {
    if (!id || frame.socket == *id) result.push_back(frame);
  }
  return result;
}

void Server::clearReceivedFrames() {
  std::lock_guard lock(mutex_);
  frames_.clear();
  frameBytes_ = 0;
}

Counters Server::counters() const {
  std::lock_guard lock(mutex_);
  return counters_;
}

bool Server::waitUntil(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::unique_lock lock(mutex_);
  for (;;) {
    const auto seen = version_;
    lock.unlock();
    if (condition()) return true;
    lock.lock();
    if (!changed_.wait_until(lock, deadline, [&] { return version_ != seen; })) {
      lock.unlock();
      return condition();
    }
  }
}

std::uint64_t Server::track(const std::shared_ptr<Connection>& connection) {
  std::lock_guard lock(mutex_);
  const auto key = nextConnectionKey_++;
  connections_.emplace(key, connection);
  connection->key_ = key;
  return key;
}

void Server::untrack(std::uint64_t key) {
  std::lock_guard lock(mutex_);
  connections_.erase(key);
}

SocketId Server::nextSocketId() {
  std::lock_guard lock(mutex_);
  return nextSocketId_++;
}

void Server::socketOpened(const std::shared_ptr<WebSocketConnection>& connection, SocketInfo info) {
  if (logging()) {
    log("socket " + std::to_string(info.id) + " opened from " + info.remoteAddress + " on " +
        targetForLog(info.path) + (info.subprotocol.empty() ? "" : " (" + info.subprotocol + ")"));
  }
  {
    std::lock_guard lock(mutex_);
    ++counters_.upgrades;
    const auto id = info.id;
    sockets_.insert_or_assign(id, Entry{std::move(info), running_ ? connection : nullptr});
    ++version_;
  }
  changed_.notify_all();
  // Opened while the emulator stops: it missed the round of polite closes.
  if (!isRunning()) connection->close(1001, "server stopping");
}

void Server::socketClosed(SocketId id, ClosedBy closedBy, std::optional<std::uint16_t> code,
                          std::string reason, bool clean) {
  {
    std::lock_guard lock(mutex_);
    auto it = sockets_.find(id);
    if (it == sockets_.end()) return;  // never opened (the upgrade did not complete)
    auto& entry = it->second;
    entry.info.open = false;
    entry.info.closedBy = closedBy;
    entry.info.closeCode = code;
    entry.info.closeReason = std::move(reason);
    entry.info.cleanClose = clean;
    entry.connection.reset();
    closedSockets_.push_back(id);
    while (closedSockets_.size() > kClosedSocketsKept) {
      sockets_.erase(closedSockets_.front());
      closedSockets_.pop_front();
    }
    ++version_;
  }
  changed_.notify_all();
}

void Server::frameReceived(SocketId id, FrameKind kind, bool binary, std::string_view data,
                           bool keep) {
  {
    std::lock_guard lock(mutex_);
    if (auto it = sockets_.find(id); it != sockets_.end()) {
      auto& info = it->second.info;
      ++info.framesReceived;
      if (kind == FrameKind::request) ++info.requestsReceived;
      if (kind == FrameKind::malformed) ++info.malformedFrames;
    }
    if (kind == FrameKind::request) ++counters_.requests;
    if (kind == FrameKind::malformed) ++counters_.malformedFrames;
    if (keep && options_.recordFrames && options_.frameLogLimit > 0) {
      const auto kept =
          std::min({data.size(), options_.recordedPayloadBytes, options_.frameLogBytes});
      frames_.push_back(
          ReceivedFrame{id, kind, binary, std::string(data.substr(0, kept)), data.size()});
      frameBytes_ += kept;
      while (frames_.size() > options_.frameLogLimit || frameBytes_ > options_.frameLogBytes) {
        frameBytes_ -= frames_.front().data.size();
        frames_.pop_front();
      }
    }
    ++version_;
  }
  changed_.notify_all();
}

void Server::pongReceived(SocketId id) {
  {
    std::lock_guard lock(mutex_);
    if (auto it = sockets_.find(id); it != sockets_.end()) ++it->second.info.pongsReceived;
    ++version_;
  }
  changed_.notify_all();
}

void Server::pingReceived(SocketId id) {
  {
    std::lock_guard lock(mutex_);
    if (auto it = sockets_.find(id); it != sockets_.end()) ++it->second.info.pingsReceived;
    ++version_;
  }
  changed_.notify_all();
}

void Server::authTimedOut() {
  {
    std::lock_guard lock(mutex_);
    ++counters_.authTimeouts;
    ++version_;
  }
  changed_.notify_all();
}

void Server::upgradeRejected() {
  {
    std::lock_guard lock(mutex_);
    ++counters_.upgradesRejected;
    ++version_;
  }
  changed_.notify_all();
}

void Server::socketAuthenticated(SocketId id, const Session& session, const std::string& kapiId) {
  {
    std::lock_guard lock(mutex_);
    ++counters_.authSuccesses;
    if (auto it = sockets_.find(id); it != sockets_.end()) {
      auto& info = it->second.info;
      info.authenticated = true;
      info.userId = session.userId;
      info.sessionId = session.sessionId;
      info.sessionToken = session.token;
      info.kapiId = kapiId;
    }
    ++version_;
  }
  changed_.notify_all();
}

void Server::authenticationFailed(SocketId id) {
  {
    std::lock_guard lock(mutex_);
    ++counters_.authFailures;
    if (auto it = sockets_.find(id); it != sockets_.end()) {
      auto& info = it->second.info;
      info.authenticated = false;
      info.userId.clear();
      info.sessionId.clear();
      info.sessionToken.clear();
    }
    ++version_;
  }
  changed_.notify_all();
}

void Server::responseQueued(SocketId id) {
  // A waiter may be waiting for what the request's handler changed, which is done by now.
  {
    std::lock_guard lock(mutex_);
    if (auto it = sockets_.find(id); it != sockets_.end()) ++it->second.info.responsesSent;
    ++version_;
  }
  changed_.notify_all();
}

void Server::responseWithheld(SocketId id) {
  {
    std::lock_guard lock(mutex_);
    if (auto it = sockets_.find(id); it != sockets_.end()) ++it->second.info.responsesWithheld;
    ++version_;
  }
  changed_.notify_all();
}

void Server::httpRequestServed() {
  {
    std::lock_guard lock(mutex_);
    ++counters_.httpRequests;
    ++version_;
  }
  changed_.notify_all();
}

void Server::log(std::string_view line) const {
  if (!options_.log) return;
  try {
    options_.log(escapeForLog(line));
  } catch (...) {
    // A failing log sink must not take a network thread down.
  }
}

}  // namespace kel::emulator::detail
