#include "emulator/detail/Connection.h"

#include <algorithm>
#include <type_traits>
#include <utility>

#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "ServerClient/Common/Random.h"
#include "ServerClient/Socket/Model/AuthFrame.h"
#include "emulator/HttpRouter.h"
#include "emulator/LogText.h"
#include "emulator/detail/Server.h"

namespace kel::emulator::detail {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

namespace {

using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

constexpr auto kHandshakeTimeout = std::chrono::seconds(10);
constexpr auto kHttpIdleTimeout = std::chrono::seconds(30);
// A close handshake that takes longer than this on loopback will not complete; the connection is
// reset instead, so stopping never hangs on a client that stopped reading.
constexpr auto kCloseTimeout = std::chrono::seconds(1);
constexpr std::size_t kHttpBodyLimit = 1024 * 1024;
constexpr std::size_t kMaxCloseReason = 123;  // what fits in a close frame

template <class Stream>
constexpr bool kIsTls = std::is_same_v<Stream, TlsStream>;

template <class Stream>
tcp::socket& tcpSocket(Stream& stream) {
  return beast::get_lowest_layer(stream).socket();
}

// A reset rather than an orderly close: SO_LINGER with a zero time-out makes close() send RST.
// DropMode::finish ends the connection in order instead (FIN), still without any goodbye of the
// layers above (close frame, TLS close_notify).
void resetSocket(tcp::socket& socket, DropMode mode = DropMode::reset) {
  boost::system::error_code ignored;
  if (!socket.is_open()) return;
  if (mode == DropMode::reset) {
    socket.set_option(asio::socket_base::linger(true, 0), ignored);
  } else {
    socket.shutdown(tcp::socket::shutdown_both, ignored);
  }
  socket.close(ignored);
}

std::string remoteAddress(tcp::socket& socket) {
  boost::system::error_code error;
  auto endpoint = socket.remote_endpoint(error);
  if (error) return {};
  auto address = endpoint.address().to_string();
  if (endpoint.address().is_v6()) address = "[" + address + "]";
  return address + ":" + std::to_string(endpoint.port());
}

std::string firstSubprotocol(std::string_view offered) {
  auto end = offered.find(',');
  auto first = offered.substr(0, end);
  while (!first.empty() && (first.front() == ' ' || first.front() == '\t')) first.remove_prefix(1);
  while (!first.empty() && (first.back() == ' ' || first.back() == '\t')) first.remove_suffix(1);
  return std::string(first);
}

std::string describeFrame(std::string_view data, bool binary) {
  return binary ? "binary(" + std::to_string(data.size()) + " bytes)" : frameForLog(data);
}

// The host name of the client's TLS handshake (SNI).
template <class Stream>
std::string serverName(Stream& stream) {
  if constexpr (kIsTls<Stream>) {
    const char* name = SSL_get_servername(stream.native_handle(), TLSEXT_NAMETYPE_host_name);
    return name != nullptr ? std::string(name) : std::string();
  } else {
    return {};
  }
}

// ---------------------------------------------------------------------------------------------
// WebSocket stream half.

template <class Stream>
class WebSocketSession final : public WebSocketConnection {
 public:
  WebSocketSession(Server& server, Strand strand, SocketId id, Stream&& stream)
      : WebSocketConnection(server, std::move(strand), id), ws_(std::move(stream)) {}

  // On the strand.
  void start(http::request<http::string_body> request, const UpgradeAnswer& answer,
             std::string sni) {
    websocket::stream_base::timeout timeouts{};
    timeouts.handshake_timeout = kHandshakeTimeout;
    timeouts.idle_timeout = websocket::stream_base::none();
    timeouts.keep_alive_pings = false;
    ws_.set_option(timeouts);
    ws_.read_message_max(server_.options().maxMessageBytes);

    SocketInfo info;
    info.id = id_;
    info.tls = kIsTls<Stream>;
    info.path = std::string(request.target());
    info.subprotocol = answer.subprotocol
                           ? *answer.subprotocol
                           : firstSubprotocol(request[http::field::sec_websocket_protocol]);
    for (const auto& field : request) {
      info.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    }
    info.cookieHeader = std::string(request[http::field::cookie]);
    info.cookies = parseCookieHeader(info.cookieHeader);
    info.remoteAddress = remoteAddress(tcpSocket(ws_));
    info.serverName = std::move(sni);
    info.kapiId = kapiId_;

    ws_.set_option(websocket::stream_base::decorator(
        [subprotocol = info.subprotocol,
         cookies = answer.setCookies](websocket::response_type& response) {
          response.set(http::field::server, "kel-emulator");
          if (!subprotocol.empty()) response.set(http::field::sec_websocket_protocol, subprotocol);
          for (const auto& cookie : cookies) response.insert(http::field::set_cookie, cookie);
        }));
    // The callback is owned by ws_, which this object owns: `this` cannot dangle.
    ws_.control_callback([this](websocket::frame_type kind, beast::string_view) {
      if (kind == websocket::frame_type::pong) onPong();
      if (kind == websocket::frame_type::ping) onPing();
    });
    ws_.async_accept(request, [self = self(), info = std::move(info)](
                                  const boost::system::error_code& error) mutable {
      self->onAccept(error, std::move(info));
    });
  }

 private:
  std::shared_ptr<WebSocketSession> self() {
    return std::static_pointer_cast<WebSocketSession>(shared_from_this());
  }

  void onAccept(const boost::system::error_code& error, SocketInfo info) {
    if (error) {
      if (server_.logging()) server_.log("upgrade failed: " + error.message());
      resetSocket(tcpSocket(ws_));
      return;
    }
    accepted_ = true;
    server_.socketOpened(std::static_pointer_cast<WebSocketConnection>(shared_from_this()),
                         std::move(info));
    startAuthTimer();
    read();
  }

  void shutdown() override {
    // Before the upgrade completes there is no WebSocket to close politely.
    if (!accepted_) {
      resetSocket(tcpSocket(ws_));
      return;
    }
    WebSocketConnection::shutdown();
  }

  void read() {
    ws_.async_read(buffer_, [self = self()](const boost::system::error_code& error, std::size_t) {
      self->onRead(error);
    });
  }

  void onRead(const boost::system::error_code& error) {
    if (error) {
      onReadFailed(error);
      return;
    }
    const auto bytes = buffer_.cdata();
    const std::string_view frame(static_cast<const char*>(bytes.data()), bytes.size());
    if (ws_.got_text()) {
      onText(frame);
    } else {
      onBinary(frame);
    }
    buffer_.consume(buffer_.size());
    if (!isFinished() && !isDeaf()) read();
  }

  void onReadFailed(const boost::system::error_code& error) {
    if (isFinished()) return;
    if (error == websocket::error::closed) {
      if (closeSent_) {
        onFinished(ClosedBy::server, sentCode(), closeReason_, true);
      } else {
        const auto& reason = ws_.reason();
        // A close frame without a payload carries no code; Beast reports that as "none" (0).
        const auto code = static_cast<std::uint16_t>(reason.code);
        onFinished(ClosedBy::client, code == 0 ? std::nullopt : std::optional<std::uint16_t>(code),
                   std::string(reason.reason.c_str()), true);
      }
      return;
    }
    onFinished(ClosedBy::network, std::nullopt, error.message());
    resetSocket(tcpSocket(ws_));
  }

  void startWrite(const Outgoing& frame) override {
    ws_.text(frame.type == Outgoing::Type::text);
    ws_.async_write(asio::buffer(*frame.data),
                    [self = self()](const boost::system::error_code& error, std::size_t) {
                      self->onWritten(!error, error.message());
                    });
  }

  void startClose(std::uint16_t code, const std::string& reason) override {
    closeSent_ = true;
    closeCode_ = code;
    closeReason_ = reason.substr(0, kMaxCloseReason);
    websocket::stream_base::timeout timeouts{};
    timeouts.handshake_timeout = kCloseTimeout;
    timeouts.idle_timeout = websocket::stream_base::none();
    timeouts.keep_alive_pings = false;
    ws_.set_option(timeouts);
    ws_.async_close(
        websocket::close_reason(static_cast<websocket::close_code>(code), closeReason_),
        [self = self()](const boost::system::error_code& error) { self->onCloseDone(error); });
  }

  void onCloseDone(const boost::system::error_code& error) {
    if (!isFinished()) onFinished(ClosedBy::server, sentCode(), closeReason_, !error);
    if (error) resetSocket(tcpSocket(ws_));
  }

  // Code 0 sends a close frame without a code.
  std::optional<std::uint16_t> sentCode() const {
    return closeCode_ == 0 ? std::nullopt : std::optional<std::uint16_t>(closeCode_);
  }

  void resetStream(DropMode mode) override { resetSocket(tcpSocket(ws_), mode); }

  websocket::stream<Stream> ws_;
  beast::flat_buffer buffer_;
  bool accepted_ = false;
  bool closeSent_ = false;
  std::uint16_t closeCode_ = 0;
  std::string closeReason_;
};

// ---------------------------------------------------------------------------------------------
// HTTP: everything on the port that is not (yet) a WebSocket.

template <class Stream>
class HttpSession final : public Connection,
                          public std::enable_shared_from_this<HttpSession<Stream>> {
 public:
  HttpSession(Server& server, Strand strand, Stream&& stream)
      : Connection(server, std::move(strand)), stream_(std::move(stream)) {}

  // On the strand.
  void start() {
    if constexpr (kIsTls<Stream>) {
      beast::get_lowest_layer(stream_).expires_after(kHandshakeTimeout);
      stream_.async_handshake(asio::ssl::stream_base::server,
                              [self = this->shared_from_this()](
                                  const boost::system::error_code& e) { self->onHandshake(e); });
    } else {
      read();
    }
  }

  void shutdown() override {
    boost::system::error_code ignored;
    auto& socket = tcpSocket(stream_);
    if (!socket.is_open()) return;
    socket.shutdown(tcp::socket::shutdown_both, ignored);
    socket.close(ignored);
  }

  void abort() override { resetSocket(tcpSocket(stream_)); }

 private:
  void onHandshake(const boost::system::error_code& error) {
    if (error) {
      if (server_.logging()) server_.log("TLS handshake failed: " + error.message());
      resetSocket(tcpSocket(stream_));
      return;
    }
    read();
  }

  void read() {
    parser_.emplace();
    parser_->body_limit(kHttpBodyLimit);
    beast::get_lowest_layer(stream_).expires_after(kHttpIdleTimeout);
    http::async_read(stream_, buffer_, *parser_,
                     [self = this->shared_from_this()](const boost::system::error_code& error,
                                                       std::size_t) { self->onRead(error); });
  }

  void onRead(const boost::system::error_code& error) {
    if (error) {
      // The client went away, idled out or sent something that is not HTTP.
      shutdown();
      return;
    }
    auto request = parser_->release();
    if (websocket::is_upgrade(request)) {
      auto upgrade = server_.upgradeAnswer();
      if (upgrade.rejectStatus != 0) {
        reject(request, upgrade);
        return;
      }
      beast::get_lowest_layer(stream_).expires_never();
      auto sni = serverName(stream_);
      const auto id = server_.nextSocketId();
      auto session =
          std::make_shared<WebSocketSession<Stream>>(server_, strand_, id, std::move(stream_));
      server_.track(session);
      session->start(std::move(request), upgrade, std::move(sni));
      return;
    }
    answer(std::move(request));
  }

  // An upgrade turned down with UpgradeAnswer::rejectStatus; the connection ends after it.
  void reject(const http::request<http::string_body>& request, const UpgradeAnswer& upgrade) {
    if (server_.logging()) {
      server_.log("upgrade on " + targetForLog(request.target()) + " rejected with " +
                  std::to_string(upgrade.rejectStatus));
    }
    server_.upgradeRejected();
    auto response = std::make_shared<http::response<http::string_body>>();
    response->version(request.version());
    response->result(upgrade.rejectStatus);
    response->set(http::field::server, "kel-emulator");
    for (const auto& cookie : upgrade.setCookies) response->insert(http::field::set_cookie, cookie);
    response->keep_alive(false);
    response->prepare_payload();
    http::async_write(stream_, *response,
                      [self = this->shared_from_this(), response](
                          const boost::system::error_code&, std::size_t) { self->shutdown(); });
  }

  void answer(http::request<http::string_body> request) {
    HttpRequest incoming;
    incoming.method = std::string(request.method_string());
    incoming.path = std::string(request.target());
    for (const auto& field : request) {
      incoming.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    }
    incoming.cookies = parseCookieHeader(request[http::field::cookie]);
    incoming.body = std::move(request.body());
    if (server_.logging()) {
      server_.log("HTTP " + incoming.method + " " + targetForLog(incoming.path));
    }
    auto outgoing = server_.http().handle(std::move(incoming));
    server_.httpRequestServed();

    auto response = std::make_shared<http::response<http::string_body>>();
    response->version(request.version());
    response->result(static_cast<unsigned>(outgoing.status));
    response->set(http::field::server, "kel-emulator");
    if (!outgoing.contentType.empty())
      response->set(http::field::content_type, outgoing.contentType);
    for (const auto& [name, value] : outgoing.headers) response->insert(name, value);
    response->body() = std::move(outgoing.body);
    response->keep_alive(request.keep_alive());
    response->prepare_payload();
    http::async_write(stream_, *response,
                      [self = this->shared_from_this(), response](
                          const boost::system::error_code& error, std::size_t) {
                        if (error || !response->keep_alive()) {
                          self->shutdown();
                          return;
                        }
                        self->read();
                      });
  }

  Stream stream_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
};

}  // namespace

// ---------------------------------------------------------------------------------------------

Connection::Connection(Server& server, Strand strand)
    : server_(server), strand_(std::move(strand)), key_(0) {}

Connection::~Connection() {
  if (key_ != 0) server_.untrack(key_);
}

void serveConnection(Server& server, Strand strand, tcp::socket socket) {
  boost::system::error_code ignored;
  socket.set_option(tcp::no_delay(true), ignored);
  if (auto* tls = server.tlsContext()) {
    auto session = std::make_shared<HttpSession<TlsStream>>(
        server, strand, TlsStream(beast::tcp_stream(std::move(socket)), *tls));
    server.track(session);
    session->start();
  } else {
    auto session =
        std::make_shared<HttpSession<PlainStream>>(server, strand, PlainStream(std::move(socket)));
    server.track(session);
    session->start();
  }
}

WebSocketConnection::WebSocketConnection(Server& server, Strand strand, SocketId id)
    : Connection(server, std::move(strand)), id_(id), kapiId_(makeUUIDString()) {}

template <class F>
void WebSocketConnection::onStrand(F&& work) {
  if (strand_.running_in_this_thread()) {
    work();
  } else {
    asio::post(strand_, std::forward<F>(work));
  }
}

void WebSocketConnection::send(std::shared_ptr<const std::string> data, bool binary) {
  onStrand([self = shared_from_this(), data = std::move(data), binary]() mutable {
    self->enqueue(
        Outgoing{binary ? Outgoing::Type::binary : Outgoing::Type::text, std::move(data), 0, {}});
  });
}

void WebSocketConnection::close(std::uint16_t code, std::string reason) {
  onStrand([self = shared_from_this(), code, reason = std::move(reason)]() mutable {
    self->enqueue(Outgoing{Outgoing::Type::close, nullptr, code, std::move(reason)});
  });
}

void WebSocketConnection::drop(DropMode mode) {
  onStrand([self = shared_from_this(), mode] { self->dropNow(mode); });
}

void WebSocketConnection::deafen() {
  onStrand([self = shared_from_this()] { self->deaf_ = true; });
}

void WebSocketConnection::dropNow(DropMode mode) {
  if (!finished_) onFinished(ClosedBy::dropped, std::nullopt, "dropped");
  queue_.clear();
  resetStream(mode);
}

void WebSocketConnection::deliver(std::int64_t requestId, Reply reply,
                                  std::chrono::milliseconds delay) {
  auto self = shared_from_this();
  if (delay > std::chrono::milliseconds::zero()) {
    auto timer = std::make_shared<asio::steady_timer>(strand_, delay);
    timer->async_wait(
        [self, timer, requestId, reply = std::move(reply)](const boost::system::error_code& error) {
          if (!error) self->sendResponse(requestId, reply);
        });
    return;
  }
  if (strand_.running_in_this_thread()) {
    sendResponse(requestId, reply);
    return;
  }
  asio::post(strand_,
             [self, requestId, reply = std::move(reply)] { self->sendResponse(requestId, reply); });
}

void WebSocketConnection::shutdown() {
  enqueue(Outgoing{Outgoing::Type::close, nullptr, 1001, "server stopping"});
}

void WebSocketConnection::abort() {
  dropNow(DropMode::reset);
}

void WebSocketConnection::onText(std::string_view frame) {
  if (closing_ || finished_) return;
  if (server_.options().logFrames && server_.logging()) {
    server_.log("socket " + std::to_string(id_) + " <- " + describeFrame(frame, false));
  }
  if (frame.starts_with(kAuthFramePrefix)) {
    handleAuth(frame);
    return;
  }
  if (frame.starts_with('2')) {
    if (auto request = parseRequestFrame(frame)) {
      server_.frameReceived(id_, FrameKind::request, false, frame, authenticated_);
      handleRequest(std::move(*request));
      return;
    }
  }
  server_.frameReceived(id_, FrameKind::malformed, false, frame, authenticated_);
  if (server_.logging()) {
    server_.log("socket " + std::to_string(id_) +
                " ignored a malformed frame: " + describeFrame(frame, false));
  }
}

void WebSocketConnection::onBinary(std::string_view frame) {
  if (closing_ || finished_) return;
  server_.frameReceived(id_, FrameKind::malformed, true, frame, authenticated_);
  if (server_.logging()) {
    server_.log("socket " + std::to_string(id_) + " ignored a " + describeFrame(frame, true) +
                " frame");
  }
}

void WebSocketConnection::onPong() {
  server_.pongReceived(id_);
}

void WebSocketConnection::onPing() {
  server_.pingReceived(id_);
}

void WebSocketConnection::startAuthTimer() {
  const auto timeout = server_.options().authTimeout;
  if (timeout <= std::chrono::milliseconds::zero()) return;
  authTimer_.emplace(strand_, timeout);
  authTimer_->async_wait([self = shared_from_this()](const boost::system::error_code& error) {
    if (error || self->authenticated_ || self->closing_ || self->finished_) return;
    self->server_.authTimedOut();
    if (self->server_.logging()) {
      self->server_.log("socket " + std::to_string(self->id_) + ": no authentication within " +
                        std::to_string(self->server_.options().authTimeout.count()) + " ms");
    }
    self->enqueue(
        Outgoing{Outgoing::Type::close, nullptr, kAuthTimeoutCloseCode, "authentication timeout"});
  });
}

void WebSocketConnection::handleAuth(std::string_view frame) {
  auto session = server_.store().validSession(frame.substr(kAuthFramePrefix.size()));
  // Only a frame that authenticated is kept: anonymous clients leave nothing but counts behind.
  server_.frameReceived(id_, FrameKind::auth, false, frame, session.has_value());
  if (!session) {
    authenticated_ = false;
    server_.authenticationFailed(id_);
    if (server_.logging()) server_.log("socket " + std::to_string(id_) + ": invalid token");
    close(server_.options().invalidTokenCloseCode, "invalid session token");
    return;
  }
  authenticated_ = true;
  if (authTimer_) authTimer_->cancel();
  sessionToken_ = session->token;
  userId_ = session->userId;
  sessionId_ = session->sessionId;
  // Recorded before the acknowledgement goes out, so a client that has read it finds the socket
  // authenticated.
  server_.socketAuthenticated(id_, *session, kapiId_);
  if (server_.logging()) {
    server_.log("socket " + std::to_string(id_) + " authenticated as " + userId_);
  }
  enqueue(Outgoing{Outgoing::Type::text,
                   std::make_shared<const std::string>(authAcknowledgementFrame(kapiId_)),
                   0,
                   {}});
}

void WebSocketConnection::handleRequest(RequestFrame request) {
  if (!authenticated_ || !server_.store().isValid(sessionToken_)) {
    sendResponse(request.id, Reply::message(401, "not authenticated"));
    return;
  }
  auto state = std::make_shared<ResponderState>();
  state->requestId = request.id;
  state->socket = id_;
  state->sink = std::weak_ptr<WebSocketConnection>(shared_from_this());
  state->lifetime = server_.lifetime();

  if (auto fault = server_.takeFault(id_, request.method, request.path)) {
    if (server_.logging()) {
      server_.log("socket " + std::to_string(id_) + ": fault " + std::string(name(fault->kind())) +
                  " on request " + std::to_string(request.id) + " " + request.method + " " +
                  targetForLog(request.path));
    }
    switch (fault->kind()) {
      case Fault::Kind::delay:
        state->delay = fault->duration();
        break;
      case Fault::Kind::withhold:
        state->withhold = true;
        server_.responseWithheld(id_);
        break;
      case Fault::Kind::status:
      case Fault::Kind::errorCode:
        sendResponse(request.id, fault->reply());
        return;
      case Fault::Kind::dropSocket:
        dropNow(DropMode::reset);
        return;
      case Fault::Kind::closeSocket:
        enqueue(Outgoing{Outgoing::Type::close, nullptr, fault->closeCode(), fault->closeReason()});
        return;
      case Fault::Kind::malformedResponse: {
        auto frame = malformedFrame(fault->malformed(), request.id, fault->hugeFrameBytes());
        enqueue(Outgoing{frame.binary ? Outgoing::Type::binary : Outgoing::Type::text,
                         std::make_shared<const std::string>(std::move(frame.data)),
                         0,
                         {}});
        return;
      }
    }
  }

  ResourceRequest resourceRequest;
  resourceRequest.id = request.id;
  resourceRequest.method = std::move(request.method);
  resourceRequest.path = std::move(request.path);
  resourceRequest.body = std::move(request.body);
  resourceRequest.socket = id_;
  resourceRequest.userId = userId_;
  resourceRequest.sessionId = sessionId_;
  resourceRequest.sessionToken = sessionToken_;
  server_.resources().dispatch(std::move(resourceRequest), Responder(std::move(state)));
}

void WebSocketConnection::sendResponse(std::int64_t requestId, const Reply& reply) {
  if (closing_ || finished_) return;
  auto frame = std::make_shared<const std::string>(responseFrame(requestId, reply));
  server_.responseQueued(id_);
  enqueue(Outgoing{Outgoing::Type::text, std::move(frame), 0, {}});
}

void WebSocketConnection::enqueue(Outgoing frame) {
  if (closing_ || finished_) return;
  if (frame.type == Outgoing::Type::close) closing_ = true;
  if (frame.data && server_.options().logFrames && server_.logging()) {
    server_.log("socket " + std::to_string(id_) + " -> " +
                describeFrame(*frame.data, frame.type == Outgoing::Type::binary));
  }
  queue_.push_back(std::move(frame));
  pump();
}

void WebSocketConnection::pump() {
  if (writing_ || finished_ || queue_.empty()) return;
  writing_ = true;
  const auto& next = queue_.front();
  if (next.type == Outgoing::Type::close) {
    startClose(next.code, next.reason);
  } else {
    startWrite(next);
  }
}

void WebSocketConnection::onWritten(bool ok, std::string_view error) {
  writing_ = false;
  if (finished_) return;
  if (!ok) {
    onFinished(ClosedBy::network, std::nullopt, "write failed: " + std::string(error));
    queue_.clear();
    resetStream(DropMode::reset);
    return;
  }
  queue_.pop_front();
  pump();
}

void WebSocketConnection::onFinished(ClosedBy closedBy, std::optional<std::uint16_t> code,
                                     std::string reason, bool clean) {
  if (finished_) return;
  finished_ = true;
  if (authTimer_) authTimer_->cancel();
  if (server_.logging()) {
    std::string line =
        "socket " + std::to_string(id_) + " closed by " + std::string(name(closedBy));
    if (code) line += " (" + std::to_string(*code) + ")";
    if (!reason.empty()) line += ": " + reason;
    server_.log(line);
  }
  server_.socketClosed(id_, closedBy, code, std::move(reason), clean);
}

}  // namespace kel::emulator::detail
