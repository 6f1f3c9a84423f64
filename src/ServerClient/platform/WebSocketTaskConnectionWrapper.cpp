#include "ServerClient/platform/WebSocketTaskConnectionWrapper.h"

#include <algorithm>
#include <array>
#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/stream_traits.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/websocket/error.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/url/scheme.hpp>

#if defined(__linux__)
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#endif

#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Version.h"
#include "ServerClient/platform/TlsClientContext.h"
#include "ServerClient/platform/detail/HttpText.h"
#include "ServerClient/platform/detail/NetworkThread.h"

namespace kel::platform {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Executor = asio::io_context::executor_type;
using detail::equalsIgnoringCase;
using detail::isToken;

std::string_view trimmed(std::string_view text) noexcept {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// The handshake's own fields; a request may not override them.
bool isHandshakeField(std::string_view name) noexcept {
  static constexpr std::array<std::string_view, 7> kFields{"Host",
                                                           "Connection",
                                                           "Upgrade",
                                                           "Sec-WebSocket-Key",
                                                           "Sec-WebSocket-Version",
                                                           "Sec-WebSocket-Extensions",
                                                           "Sec-WebSocket-Protocol"};
  return std::any_of(kFields.begin(), kFields.end(),
                     [&](std::string_view field) { return equalsIgnoringCase(field, name); });
}

// The value of a Cookie field that holds `existing` and then every cookie of `cookies` whose name
// `existing` does not hold yet.
std::string mergedCookieField(std::string existing, const std::vector<HTTPCookie>& cookies) {
  std::vector<std::string_view> names;
  for (std::string_view rest = existing; !rest.empty();) {
    const auto end = rest.find(';');
    const auto pair = rest.substr(0, end);
    names.push_back(trimmed(pair.substr(0, pair.find('='))));
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
  }
  std::string added;
  for (const auto& cookie : cookies) {
    if (std::find(names.begin(), names.end(), cookie.name) != names.end()) continue;
    if (!added.empty()) added += "; ";
    added += cookie.name;
    added += '=';
    added += cookie.value;
  }
  if (added.empty()) return existing;
  if (trimmed(existing).empty()) return added;
  return existing + "; " + added;
}

std::exception_ptr makeError(const beast::error_code& ec, const std::string& what) {
  return std::make_exception_ptr(std::system_error(ec, what));
}

// Calls into the delegate, which must not throw; should one throw anyway, the network thread
// carries on.
template <typename Call>
void callDelegate(const std::shared_ptr<WebSocketConnectionDelegate>& delegate, Call&& call) {
  if (!delegate) return;
  try {
    call(*delegate);
  } catch (const std::exception& e) {
    KEL_LOG_ERROR("notify(_:)", std::string("WebSocket delegate threw: ") + e.what());
  } catch (...) {
    KEL_LOG_ERROR("notify(_:)", "WebSocket delegate threw");
  }
}

// What the wrapper needs of its URL, worked out once.
struct Endpoint {
  bool tls = false;
  std::string host;  // to resolve or parse; IPv6 without brackets
  bool hostIsAddress = false;
  std::uint16_t port = 0;
  std::string hostField;  // the Host field: host as in the URL, and the port when it has one
  std::string target;     // path and query
  std::string text;       // the URL for log lines and errors
};

Endpoint endpointOf(const boost::urls::url& url) {
  Endpoint endpoint;
  switch (url.scheme_id()) {
    case boost::urls::scheme::ws:
      endpoint.tls = false;
      break;
    case boost::urls::scheme::wss:
      endpoint.tls = true;
      break;
    default:
      throw std::invalid_argument("WebSocket: the URL \"" + std::string(url.buffer()) +
                                  "\" is neither ws:// nor wss://");
  }
  endpoint.host = url.host_address();
  if (!url.has_authority() || endpoint.host.empty()) {
    throw std::invalid_argument("WebSocket: the URL \"" + std::string(url.buffer()) +
                                "\" has no host");
  }
  endpoint.hostIsAddress = url.host_type() == boost::urls::host_type::ipv4 ||
                           url.host_type() == boost::urls::host_type::ipv6;
  endpoint.port = url.has_port() ? url.port_number() : (endpoint.tls ? 443 : 80);
  endpoint.hostField = url.encoded_host_and_port();
  endpoint.target = url.encoded_target();
  if (endpoint.target.empty() || endpoint.target.front() != '/') {
    endpoint.target.insert(0, "/");
  }
  endpoint.text = url.buffer();
  return endpoint;
}

std::shared_ptr<ssl::context> makeTlsContext(const WebSocketTaskConnectionWrapper::Options& o) {
  return makeTlsClientContext(TlsTrust{o.useSystemTrustStore, o.extraCertificateAuthoritiesPem,
                                       o.extraCertificateAuthoritiesFile, o.pins},
                              "WebSocket");
}

}  // namespace

// ------------------------------------------------------------------------------------------------

struct WebSocketTaskConnectionWrapper::Runtime {
  detail::NetworkContext ioContext{1};
  asio::executor_work_guard<Executor> work = asio::make_work_guard(ioContext);
};

namespace {

class SocketCore;

// A frame waiting to be written.
struct Outgoing {
  std::string payload;
  bool pong = false;
};

// What one connection attempt sends in its upgrade.
struct Handshake {
  std::vector<UpgradeRequest::HeaderField> fields;
  std::shared_ptr<HTTPCookieStorage> cookieStorage;  // stores the answer's cookies when set
};

// One connection, from connect() to its report. Everything but enqueue() runs on the network
// thread; each handler holds the connection through shared_from_this().
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  virtual ~Connection() = default;

  virtual void start() = 0;
  // The client asked to close (disconnect()).
  virtual void close(SocketCloseCode code) = 0;
  // The wrapper is going away: drop the transport, report nothing.
  virtual void abort() = 0;

  // Any thread. Queues a frame; frames after close() are dropped.
  void enqueue(Outgoing frame) {
    {
      std::lock_guard lock(outMutex_);
      if (outClosed_) return;
      outbox_.push_back(std::move(frame));
      if (writing_) return;
      writing_ = true;
    }
    // Sent from work on the network thread itself (the socket client's queue runs there): no
    // hand-over, write at once.
    if (executor_.running_in_this_thread()) return writeNext();
    asio::post(executor_, [self = shared_from_this()] { self->writeNext(); });
  }

 protected:
  explicit Connection(Executor executor) : executor_(executor) {}

  virtual void writeNext() = 0;

  Executor executor_;
  std::mutex outMutex_;           // guards the three members below
  std::vector<Outgoing> outbox_;  // frames not yet taken by the writer
  bool writing_ = false;          // the writer is busy or a hand-over is under way
  bool outClosed_ = false;        // no more frames are taken
};

// The state that the wrapper's callers see, and the only place that calls the delegate.
class SocketCore : public std::enable_shared_from_this<SocketCore> {
 public:
  enum class State { closed, opening, open, closing };

  SocketCore(boost::urls::url url, std::vector<std::string> protocols,
             WebSocketTaskConnectionWrapper::Options options, Executor executor)
      : url_(std::move(url)),
        endpoint_(endpointOf(url_)),
        protocols_(std::move(protocols)),
        options_(std::move(options)),
        executor_(executor) {
    for (const auto& protocol : protocols_) {
      if (!isToken(protocol)) {
        throw std::invalid_argument("WebSocket: \"" + protocol + "\" is not a valid sub-protocol");
      }
    }
    if (!options_.cookieStorage) options_.cookieStorage = HTTPCookieStorage::shared();
    if (endpoint_.tls) tlsContext_ = makeTlsContext(options_);
  }

  const boost::urls::url& url() const noexcept { return url_; }
  const Endpoint& endpoint() const noexcept { return endpoint_; }
  const std::vector<std::string>& protocols() const noexcept { return protocols_; }
  const WebSocketTaskConnectionWrapper::Options& options() const noexcept { return options_; }

  // --- Called by the wrapper, on any thread ---

  bool isConnected() const {
    std::lock_guard lock(mutex_);
    return state_ == State::open;
  }

  UpgradeRequest request() const {
    std::lock_guard lock(mutex_);
    return request_;
  }

  void setRequest(UpgradeRequest request) {
    std::lock_guard lock(mutex_);
    request_ = std::move(request);
  }

  void setDelegate(std::weak_ptr<WebSocketConnectionDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
  }

  void connect();

  void disconnect(SocketCloseCode code) {
    std::shared_ptr<Connection> connection;
    {
      std::lock_guard lock(mutex_);
      if (destroyed_) return;
      switch (state_) {
        case State::closing:
          return;
        case State::closed:
          break;
        case State::opening:
        case State::open:
          state_ = State::closing;
          closingCode_ = code;
          connection = connection_;
          break;
      }
    }
    KEL_LOG_DEBUG("disconnect(closeCode:)",
                  "WebSocket " + endpoint_.text + " closing with " + name(code));
    if (connection) {
      asio::post(executor_, [connection, code] { connection->close(code); });
    } else {
      // Nothing is open: report at once, though from the network thread like every report.
      asio::post(executor_, [self = shared_from_this(), code] {
        std::shared_ptr<WebSocketConnectionDelegate> delegate;
        {
          std::lock_guard lock(self->mutex_);
          if (self->destroyed_) return;
          delegate = self->delegate_.lock();
        }
        callDelegate(delegate, [code](auto& d) { d.socketDidDisconnect(code); });
      });
    }
  }

  void send(Outgoing frame) {
    std::shared_ptr<Connection> connection;
    {
      std::lock_guard lock(mutex_);
      if (state_ != State::open) return;
      connection = connection_;
    }
    connection->enqueue(std::move(frame));
  }

  // The wrapper is being destroyed: drop the connection, make no further delegate call.
  void shutdown() {
    std::shared_ptr<Connection> connection;
    {
      std::lock_guard lock(mutex_);
      destroyed_ = true;
      state_ = State::closed;
      connection = std::move(connection_);
    }
    if (connection) asio::post(executor_, [connection] { connection->abort(); });
  }

  // --- Called by the current connection, on the network thread ---

  // The upgrade succeeded. False when the connection is no longer wanted (disconnect() or the
  // wrapper's destruction came first); it is then being closed.
  bool opened(const Connection* connection) {
    std::shared_ptr<WebSocketConnectionDelegate> delegate;
    {
      std::lock_guard lock(mutex_);
      if (connection_.get() != connection || state_ != State::opening) return false;
      state_ = State::open;
      delegate = delegate_.lock();
    }
    KEL_LOG_DEBUG("didOpen()", "WebSocket " + endpoint_.text + " open");
    callDelegate(delegate, [](auto& d) { d.socketDidConnect(); });
    return true;
  }

  void failed(const Connection* connection, std::exception_ptr error) {
    std::shared_ptr<WebSocketConnectionDelegate> delegate;
    {
      std::lock_guard lock(mutex_);
      if (connection_.get() != connection || state_ == State::closing) return;
      delegate = delegate_.lock();
    }
    callDelegate(delegate, [&error](auto& d) { d.socketDidReceiveError(error); });
  }

  void received(const Connection* connection, std::string payload, bool text) {
    std::shared_ptr<WebSocketConnectionDelegate> delegate;
    {
      std::lock_guard lock(mutex_);
      if (connection_.get() != connection || state_ != State::open) return;
      delegate = delegate_.lock();
    }
    if (text) {
      callDelegate(delegate,
                   [&payload](auto& d) { d.socketDidReceiveMessage(std::move(payload)); });
    } else {
      callDelegate(delegate, [&payload](auto& d) { d.socketDidReceiveData(std::move(payload)); });
    }
  }

  void ended(const Connection* connection, SocketCloseCode code, std::string reason) {
    std::shared_ptr<WebSocketConnectionDelegate> delegate;
    std::shared_ptr<Connection> ending;  // released once the lock is gone
    {
      std::lock_guard lock(mutex_);
      if (connection_.get() != connection) return;
      if (state_ == State::closing) code = closingCode_;
      state_ = State::closed;
      ending = std::move(connection_);
      delegate = delegate_.lock();
    }
    KEL_LOG_DEBUG("didClose(closeCode:)",
                  "WebSocket " + endpoint_.text + " closed with " + name(code));
    callDelegate(delegate, [code, &reason](auto& d) { d.socketDidClose(code, std::move(reason)); });
  }

 private:
  Handshake handshakeFor(const UpgradeRequest& request) const;

  const boost::urls::url url_;
  const Endpoint endpoint_;
  const std::vector<std::string> protocols_;
  WebSocketTaskConnectionWrapper::Options options_;
  std::shared_ptr<ssl::context> tlsContext_;  // wss only; shared with the connections' streams
  const Executor executor_;

  mutable std::mutex mutex_;  // guards every member below
  State state_ = State::closed;
  SocketCloseCode closingCode_ = SocketCloseCode::invalid;  // the disconnect() under way
  std::shared_ptr<Connection> connection_;                  // while not closed
  UpgradeRequest request_;
  std::weak_ptr<WebSocketConnectionDelegate> delegate_;
  bool destroyed_ = false;
};

// ------------------------------------------------------------------------------------------------

template <bool Tls>
class ConnectionOver final : public Connection {
  using Transport = std::conditional_t<Tls, ssl::stream<tcp::socket>, tcp::socket>;
  using Stream = websocket::stream<Transport>;
  using StringBuffer =
      asio::dynamic_string_buffer<char, std::char_traits<char>, std::allocator<char>>;

 public:
  template <typename... TransportArgs>
  ConnectionOver(std::shared_ptr<SocketCore> core, Executor executor, Handshake handshake,
                 TransportArgs&... transportArgs)
      : Connection(executor),
        core_(std::move(core)),
        endpoint_(core_->endpoint()),
        handshake_(std::move(handshake)),
        resolver_(executor),
        stream_(executor, transportArgs...),
        timer_(executor) {}

  void start() override {
    if (phase_ != Phase::idle) return;  // closed before it started
    phase_ = Phase::opening;
    timer_.expires_after(core_->options().openTimeout);
    timer_.async_wait([self = shared()](beast::error_code ec) {
      if (!ec) self->openTimedOut();
    });
    if (endpoint_.hostIsAddress) {
      beast::error_code ec;
      const auto address = asio::ip::make_address(endpoint_.host, ec);
      if (ec) return fail(ec, "address " + endpoint_.host, SocketCloseCode::abnormalClosure);
      endpoints_.emplace_back(address, endpoint_.port);
      return connectTcp();
    }
    resolver_.async_resolve(
        endpoint_.host, std::to_string(endpoint_.port),
        [self = shared()](beast::error_code ec, const tcp::resolver::results_type& results) {
          self->resolved(ec, results);
        });
  }

  void close(SocketCloseCode code) override {
    if (phase_ == Phase::ended || closeCode_) return;
    closeCode_ = code;
    {
      std::lock_guard lock(outMutex_);
      outClosed_ = true;
    }
    if (phase_ != Phase::open) return end(code);  // still opening: just drop it
    phase_ = Phase::closing;
    timer_.expires_after(core_->options().closeTimeout);
    timer_.async_wait([self = shared()](beast::error_code ec) {
      if (!ec && self->phase_ == Phase::closing) self->end(*self->closeCode_);
    });
    bool writerIdle = false;
    {
      std::lock_guard lock(outMutex_);
      writerIdle = !writing_;
      writing_ = true;
    }
    // A busy writer sends the close frame after the frames that came before it.
    if (writerIdle) startClosingHandshake();
  }

  void abort() override { end(SocketCloseCode::abnormalClosure); }

 private:
  enum class Phase { idle, opening, open, closing, ended };

  std::shared_ptr<ConnectionOver> shared() {
    return std::static_pointer_cast<ConnectionOver>(shared_from_this());
  }

  tcp::socket& socket() noexcept { return beast::get_lowest_layer(stream_); }

  // --- Opening ---

  void resolved(beast::error_code ec, const tcp::resolver::results_type& results) {
    if (phase_ != Phase::opening) return;
    if (ec) return fail(ec, "resolving " + endpoint_.host, SocketCloseCode::abnormalClosure);
    for (const auto& entry : results) endpoints_.push_back(entry.endpoint());
    connectTcp();
  }

  void connectTcp() {
    asio::async_connect(
        socket(), endpoints_,
        [self = shared()](beast::error_code ec, const tcp::endpoint&) { self->tcpConnected(ec); });
  }

  void tcpConnected(beast::error_code ec) {
    if (phase_ != Phase::opening) return;
    if (ec) return fail(ec, "connecting to " + endpoint_.text, SocketCloseCode::abnormalClosure);
    socket().set_option(tcp::no_delay(true), ec);  // requests are small and want no delay
    if constexpr (Tls) {
      expectServerName(stream_.next_layer().native_handle(), endpoint_.host,
                       endpoint_.hostIsAddress);
      stream_.next_layer().async_handshake(ssl::stream_base::client,
                                           [self = shared()](beast::error_code handshakeError) {
                                             self->tlsHandshaken(handshakeError);
                                           });
    } else {
      upgrade();
    }
  }

  void tlsHandshaken(beast::error_code ec) {
    if (phase_ != Phase::opening) return;
    if (ec) {
      std::string what = "TLS handshake with " + endpoint_.text + " failed";
      if constexpr (Tls) {
        const auto* handle = stream_.next_layer().native_handle();
        const auto why = certificateVerificationFailure(handle);
        if (!why.empty()) what += ": " + why;
        if (isCertificatePinMismatch(handle)) {
          if (!closeCode_)
            core_->failed(this, std::make_exception_ptr(CertificatePinMismatch(what)));
          return end(SocketCloseCode::tlsHandshakeFailure);
        }
      }
      return fail(ec, what, SocketCloseCode::tlsHandshakeFailure);
    }
    upgrade();
  }

  void upgrade() {
    // The opening deadline bounds the upgrade; Beast's own timer takes over once open.
    stream_.set_option(websocket::stream_base::timeout{websocket::stream_base::none(),
                                                       websocket::stream_base::none(), false});
    stream_.set_option(websocket::stream_base::decorator(
        [fields = std::move(handshake_.fields)](websocket::request_type& request) {
          for (const auto& [name, value] : fields) request.set(name, value);
        }));
    stream_.read_message_max(core_->options().maxMessageSize);
    stream_.auto_fragment(false);
    stream_.async_handshake(response_, endpoint_.hostField, endpoint_.target,
                            [self = shared()](beast::error_code ec) { self->upgraded(ec); });
  }

  void upgraded(beast::error_code ec) {
    if (phase_ != Phase::opening) return;
    if (ec == websocket::error::upgrade_declined) {
      return fail(ec,
                  "the upgrade to " + endpoint_.text + " was declined with HTTP " +
                      std::to_string(response_.result_int()),
                  SocketCloseCode::abnormalClosure);
    }
    if (ec) return fail(ec, "upgrading " + endpoint_.text, SocketCloseCode::abnormalClosure);
    if (const auto chosen = response_.find(http::field::sec_websocket_protocol);
        chosen != response_.end()) {
      const auto& offered = core_->protocols();
      const std::string value(chosen->value());
      if (std::find(offered.begin(), offered.end(), value) == offered.end()) {
        return fail(websocket::error::upgrade_declined,
                    "the server of " + endpoint_.text + " chose the sub-protocol \"" + value +
                        "\", which was not asked for",
                    SocketCloseCode::abnormalClosure);
      }
    }
    if (handshake_.cookieStorage) {
      std::vector<std::string> cookies;
      for (const auto& field : response_) {
        if (field.name() == http::field::set_cookie) cookies.emplace_back(field.value());
      }
      handshake_.cookieStorage->setCookies(cookies, core_->url());
    }
    response_ = {};
    timer_.cancel();

    websocket::stream_base::timeout timeouts{};
    timeouts.handshake_timeout = websocket::stream_base::none();  // closeTimeout bounds closing
    timeouts.idle_timeout = core_->options().keepAliveTimeout;
    timeouts.keep_alive_pings = true;
    stream_.set_option(timeouts);

    phase_ = Phase::open;
    core_->opened(this);
    read();
  }

  void openTimedOut() {
    if (phase_ != Phase::opening) return;
    fail(beast::error::timeout, "opening " + endpoint_.text + " timed out",
         SocketCloseCode::abnormalClosure);
  }

  // --- Open ---

  void read() {
    if (phase_ == Phase::ended) return;
    readBuffer_.emplace(incoming_);
    stream_.async_read(*readBuffer_, [self = shared()](beast::error_code ec, std::size_t) {
      self->receivedMessage(ec);
    });
  }

  void receivedMessage(beast::error_code ec) {
    if (phase_ == Phase::ended) return;
    if (ec) return readFailed(ec);
    std::string payload = std::exchange(incoming_, std::string());
    // Once the client has asked to close, what still arrives is read only to reach the close.
    if (phase_ == Phase::open) core_->received(this, std::move(payload), stream_.got_text());
    // Once the close frame is out, Beast's close operation reads up to the peer's answer by
    // itself. A read started now could take that answer from Beast's buffer while the close
    // operation holds the write side, and the two would wait for each other for ever.
    if (closingHandshakeStarted_) return;
    read();
  }

  void readFailed(beast::error_code ec) {
    if (closeCode_) return end(*closeCode_);
    if (ec == websocket::error::closed) {
      const auto code = stream_.reason().code;
      return end(code == websocket::close_code::none ? SocketCloseCode::noStatusReceived
                                                     : socketCloseCodeFrom(code),
                 std::string(stream_.reason().reason.data(), stream_.reason().reason.size()));
    }
    auto code = SocketCloseCode::abnormalClosure;
    if (ec == websocket::error::message_too_big) {
      code = SocketCloseCode::messageTooBig;
    } else if (ec == websocket::error::bad_frame_payload) {
      code = SocketCloseCode::invalidFramePayloadData;
    } else if (ec == websocket::condition::protocol_violation) {
      code = SocketCloseCode::protocolError;
    }
    fail(ec, "reading from " + endpoint_.text, code);
  }

  void writeNext() override {
    if (phase_ == Phase::ended) return;
    if (next_ == batch_.size()) {
      if (corked_) cork(false);
      batch_.clear();
      next_ = 0;
      {
        std::lock_guard lock(outMutex_);
        if (outbox_.empty()) {
          // writing_ stays set once closing, so that nothing more is handed over.
          if (!closeCode_) {
            writing_ = false;
            return;
          }
        } else {
          std::swap(batch_, outbox_);
        }
      }
      if (batch_.empty()) return startClosingHandshake();
      if (batch_.size() > 1) cork(true);
    }
    auto& frame = batch_[next_++];
    if (frame.pong) {
      stream_.async_pong({}, [self = shared()](beast::error_code ec) { self->written(ec); });
    } else {
      stream_.text(true);
      stream_.async_write(
          asio::buffer(frame.payload),
          [self = shared()](beast::error_code ec, std::size_t) { self->written(ec); });
    }
  }

  // Holds back partial segments while a batch is written, frame by frame, and sends them when
  // the batch is done: a burst of small frames then leaves in a few segments instead of one
  // segment (and, on a loopback, one receive) per frame. A socket that refuses only loses that.
  void cork(bool on) {
#if defined(TCP_CORK)
    const int value = on ? 1 : 0;
    ::setsockopt(socket().native_handle(), IPPROTO_TCP, TCP_CORK, &value, sizeof value);
#endif
    corked_ = on;
  }

  void written(beast::error_code ec) {
    if (phase_ == Phase::ended) return;
    if (!ec) return writeNext();
    // A stream that is closing or closed stops the writer; the reader reports the end.
    if (ec == websocket::error::closed || ec == asio::error::operation_aborted) return;
    fail(ec, "writing to " + endpoint_.text, SocketCloseCode::abnormalClosure);
  }

  // --- Closing ---

  void startClosingHandshake() {
    if (phase_ != Phase::closing || closingHandshakeStarted_) return;
    closingHandshakeStarted_ = true;
    const auto code = canBeSent(*closeCode_) ? *closeCode_ : SocketCloseCode::normalClosure;
    stream_.async_close(websocket::close_reason(wireCode(code)),
                        [self = shared()](beast::error_code) { self->end(*self->closeCode_); });
  }

  // Reports `error` unless the client asked to close, then ends.
  void fail(beast::error_code ec, const std::string& what, SocketCloseCode code) {
    if (phase_ == Phase::ended) return;
    if (!closeCode_) core_->failed(this, makeError(ec, what));
    end(code);
  }

  void end(SocketCloseCode code, std::string reason = {}) {
    if (phase_ == Phase::ended) return;
    phase_ = Phase::ended;
    {
      std::lock_guard lock(outMutex_);
      outClosed_ = true;
      outbox_.clear();
    }
    timer_.cancel();
    resolver_.cancel();
    beast::error_code ignored;
    socket().close(ignored);
    core_->ended(this, code, std::move(reason));
  }

  const std::shared_ptr<SocketCore> core_;
  const Endpoint& endpoint_;  // lives in core_
  Handshake handshake_;
  tcp::resolver resolver_;
  std::vector<tcp::endpoint> endpoints_;
  Stream stream_;
  asio::steady_timer timer_;  // the opening deadline, then the closing one
  websocket::response_type response_;
  std::string incoming_;
  std::optional<StringBuffer> readBuffer_;  // over incoming_, for the read under way
  std::vector<Outgoing> batch_;             // frames taken from the outbox, written in order
  std::size_t next_ = 0;                    // the next frame of batch_ to write
  bool corked_ = false;                     // while a batch of several frames is written
  Phase phase_ = Phase::idle;
  std::optional<SocketCloseCode> closeCode_;  // set by close()
  bool closingHandshakeStarted_ = false;
};

Handshake SocketCore::handshakeFor(const UpgradeRequest& request) const {
  Handshake handshake;
  handshake.fields.emplace_back("User-Agent", std::string("ServerClient/") + libraryVersion());
  if (!protocols_.empty()) {
    std::string list;
    for (const auto& protocol : protocols_) {
      if (!list.empty()) list += ", ";
      list += protocol;
    }
    handshake.fields.emplace_back("Sec-WebSocket-Protocol", std::move(list));
  }
  std::optional<std::string> cookieField;
  for (const auto& [name, value] : request.headerFields()) {
    if (isHandshakeField(name)) continue;
    if (equalsIgnoringCase(name, "Cookie")) {
      cookieField = value;
      continue;
    }
    handshake.fields.emplace_back(name, value);
  }
  if (request.shouldHandleCookies()) {
    const auto cookies = options_.cookieStorage->cookies(url_);
    if (!cookies.empty()) cookieField = mergedCookieField(cookieField.value_or(""), cookies);
    handshake.cookieStorage = options_.cookieStorage;
  }
  if (cookieField) handshake.fields.emplace_back("Cookie", std::move(*cookieField));
  return handshake;
}

void SocketCore::connect() {
  std::shared_ptr<Connection> connection;
  {
    std::lock_guard lock(mutex_);
    if (destroyed_ || state_ != State::closed) return;
    auto handshake = handshakeFor(request_);
    if (endpoint_.tls) {
      connection = std::make_shared<ConnectionOver<true>>(shared_from_this(), executor_,
                                                          std::move(handshake), *tlsContext_);
    } else {
      connection = std::make_shared<ConnectionOver<false>>(shared_from_this(), executor_,
                                                           std::move(handshake));
    }
    connection_ = connection;
    state_ = State::opening;
  }
  KEL_LOG_DEBUG("connect()", "WebSocket " + endpoint_.text + " opening");
  asio::post(executor_, [connection] { connection->start(); });
}

}  // namespace

// ------------------------------------------------------------------------------------------------

class WebSocketTaskConnectionWrapper::Core : public SocketCore {
  using SocketCore::SocketCore;
};

WebSocketTaskConnectionWrapper::WebSocketTaskConnectionWrapper(boost::urls::url url,
                                                               std::vector<std::string> protocols)
    : WebSocketTaskConnectionWrapper(std::move(url), std::move(protocols), Options{}) {}

WebSocketTaskConnectionWrapper::WebSocketTaskConnectionWrapper(boost::urls::url url,
                                                               std::vector<std::string> protocols,
                                                               Options options)
    : url_(url), protocols_(protocols), runtime_(std::make_shared<Runtime>()) {
  core_ = std::make_shared<Core>(std::move(url), std::move(protocols), std::move(options),
                                 runtime_->ioContext.get_executor());
}

WebSocketTaskConnectionWrapper::~WebSocketTaskConnectionWrapper() {
  core_->shutdown();
  if (!thread_) return;
  asio::post(runtime_->ioContext, [runtime = runtime_] { runtime->work.reset(); });
  // Destroyed from a delegate call, the thread finishes the clean-up by itself and keeps the
  // io_context alive through its own reference until then.
  thread_.reset();
}

void WebSocketTaskConnectionWrapper::ensureRunning() {
  std::call_once(started_, [this] {
    thread_ =
        std::make_unique<detail::NetworkThread>("kel-websocket", runtime_->ioContext, runtime_);
  });
}

bool WebSocketTaskConnectionWrapper::isConnected() const {
  return core_->isConnected();
}

UpgradeRequest WebSocketTaskConnectionWrapper::request() const {
  return core_->request();
}

void WebSocketTaskConnectionWrapper::setRequest(UpgradeRequest request) {
  core_->setRequest(std::move(request));
}

void WebSocketTaskConnectionWrapper::setDelegate(
    std::weak_ptr<WebSocketConnectionDelegate> delegate) {
  core_->setDelegate(std::move(delegate));
}

void WebSocketTaskConnectionWrapper::connect() {
  ensureRunning();
  core_->connect();
}

void WebSocketTaskConnectionWrapper::disconnect(SocketCloseCode closeCode) {
  ensureRunning();
  core_->disconnect(closeCode);
}

void WebSocketTaskConnectionWrapper::send(std::string text) {
  core_->send(Outgoing{std::move(text), false});
}

void WebSocketTaskConnectionWrapper::sendPong() {
  core_->send(Outgoing{{}, true});
}

boost::asio::any_io_executor WebSocketTaskConnectionWrapper::executor() {
  ensureRunning();
  return runtime_->ioContext.get_executor();
}

}  // namespace kel::platform
