#include "support/WebSocketTestServer.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include <boost/asio/buffer.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/stream_traits.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/error.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>

#include <openssl/ssl.h>

#include "ServerClient/platform/detail/HttpText.h"

namespace kel::test {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Executor = asio::io_context::executor_type;

using platform::detail::equalsIgnoringCase;

std::string firstOffered(std::string_view list) {
  auto first = list.substr(0, list.find(','));
  while (!first.empty() && first.front() == ' ') first.remove_prefix(1);
  while (!first.empty() && first.back() == ' ') first.remove_suffix(1);
  return std::string(first);
}

}  // namespace

namespace {

// A server-side connection; lives on the server's thread.
class Session : public std::enable_shared_from_this<Session> {
 public:
  virtual ~Session() = default;
  virtual void start() = 0;
  virtual void send(WebSocketTestServer::Frame frame) = 0;
  virtual void close(std::optional<std::uint16_t> code, std::string reason) = 0;
  virtual void dropTransport() = 0;
  virtual void reset() = 0;
};

// Whether the server still runs, for Connection objects that tests may keep longer.
struct Link {
  explicit Link(Executor e) : executor(e) {}
  std::mutex mutex;  // guards alive
  bool alive = true;
  const Executor executor;
};

}  // namespace

struct WebSocketTestServer::Connection::State {
  State(std::shared_ptr<Link> l, std::weak_ptr<Session> s) : link(std::move(l)), session(s) {}

  const std::shared_ptr<Link> link;
  const std::weak_ptr<Session> session;

  mutable std::mutex mutex;  // guards the members below
  mutable std::condition_variable changed;
  std::string target;
  std::vector<std::pair<std::string, std::string>> headers;
  std::vector<Frame> frames;
  std::optional<std::string> serverName;
  std::size_t pongs = 0;
  std::size_t pings = 0;
  bool stopReading = false;
  std::optional<End> end;

  void post(std::function<void(Session&)> command) {
    std::lock_guard lock(link->mutex);
    if (!link->alive) return;
    asio::post(link->executor, [weak = session, command = std::move(command)] {
      if (auto s = weak.lock()) command(*s);
    });
  }
};

struct detail::WebSocketTestServerImpl {
  using Connection = WebSocketTestServer::Connection;
  using MessageHandler = WebSocketTestServer::MessageHandler;
  using Options = WebSocketTestServer::Options;
  using Frame = WebSocketTestServer::Frame;

  explicit WebSocketTestServerImpl(Options o) : options(std::move(o)) {}

  Options options;
  asio::io_context ioContext{1};
  asio::executor_work_guard<Executor> work = asio::make_work_guard(ioContext);
  std::optional<ssl::context> tlsContext;
  tcp::acceptor acceptor{ioContext};
  std::shared_ptr<Link> link;
  std::thread thread;

  // Server thread only.
  std::vector<std::weak_ptr<Session>> sessions;
  std::vector<std::shared_ptr<Session>> stalled;  // kept open on purpose

  mutable std::mutex mutex;  // guards the members below
  mutable std::condition_variable changed;
  MessageHandler handler;
  std::vector<std::shared_ptr<Connection>> connections;
  std::size_t accepted = 0;

  void accept();
  void opened(std::shared_ptr<Connection> connection) {
    {
      std::lock_guard lock(mutex);
      connections.push_back(std::move(connection));
    }
    changed.notify_all();
  }
  void received(Connection& connection, Session& session, Frame frame) {
    MessageHandler current;
    {
      std::lock_guard lock(mutex);
      current = handler;
    }
    if (current) {
      current(connection, frame);
    } else if (options.echo) {
      session.send(std::move(frame));
    }
  }
};

namespace {

template <bool Tls>
class SessionOver final : public Session {
  using Transport = std::conditional_t<Tls, ssl::stream<tcp::socket>, tcp::socket>;
  using Frame = WebSocketTestServer::Frame;
  using Connection = WebSocketTestServer::Connection;

 public:
  template <typename... Args>
  SessionOver(detail::WebSocketTestServerImpl& server, tcp::socket socket, Args&... args)
      : server_(server), stream_(std::move(socket), args...) {}

  void start() override {
    if (server_.options.stallHandshake) {
      server_.stalled.push_back(shared_from_this());
      return;
    }
    if constexpr (Tls) {
      stream_.next_layer().async_handshake(ssl::stream_base::server,
                                           [self = self()](beast::error_code ec) {
                                             if (!ec) self->readRequest();
                                           });
    } else {
      readRequest();
    }
  }

  void send(Frame frame) override { queue(Command{Command::sendFrame, std::move(frame), {}, {}}); }

  void close(std::optional<std::uint16_t> code, std::string reason) override {
    queue(Command{Command::sendClose, {}, code, std::move(reason)});
  }

  void dropTransport() override {
    beast::error_code ignored;
    socket().shutdown(tcp::socket::shutdown_both, ignored);
    socket().close(ignored);
  }

  void reset() override {
    beast::error_code ignored;
    socket().set_option(asio::socket_base::linger(true, 0), ignored);
    socket().close(ignored);
  }

 private:
  struct Command {
    enum Kind { sendFrame, sendClose } kind;
    Frame frame;
    std::optional<std::uint16_t> code;
    std::string reason;
  };

  std::shared_ptr<SessionOver> self() {
    return std::static_pointer_cast<SessionOver>(shared_from_this());
  }

  tcp::socket& socket() { return beast::get_lowest_layer(stream_); }

  void readRequest() {
    http::async_read(stream_.next_layer(), buffer_, request_,
                     [self = self()](beast::error_code ec, std::size_t) {
                       if (!ec) self->upgrade();
                     });
  }

  void upgrade() {
    state_ = std::make_shared<Connection::State>(server_.link, weak_from_this());
    connection_ = std::make_shared<Connection>(state_);
    {
      std::lock_guard lock(state_->mutex);
      state_->target = std::string(request_.target());
      for (const auto& field : request_) {
        state_->headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
      }
    }
    const auto& options = server_.options;
    if (options.rejectUpgradeWithStatus != 0) {
      auto response = std::make_shared<http::response<http::string_body>>(
          static_cast<http::status>(options.rejectUpgradeWithStatus), 11);
      response->set(http::field::connection, "close");
      response->body() = "refused";
      response->prepare_payload();
      http::async_write(
          stream_.next_layer(), *response,
          [self = self(), response](beast::error_code, std::size_t) { self->dropTransport(); });
      return;
    }

    std::string protocol = options.subprotocolReply.value_or(
        firstOffered(request_[http::field::sec_websocket_protocol]));
    stream_.set_option(websocket::stream_base::decorator(
        [protocol, cookies = options.setCookies](websocket::response_type& response) {
          if (!protocol.empty()) response.set(http::field::sec_websocket_protocol, protocol);
          for (const auto& cookie : cookies) response.insert(http::field::set_cookie, cookie);
        }));
    stream_.read_message_max(64 * 1024 * 1024);
    if constexpr (Tls) {
      if (const char* name =
              SSL_get_servername(stream_.next_layer().native_handle(), TLSEXT_NAMETYPE_host_name)) {
        std::lock_guard lock(state_->mutex);
        state_->serverName = name;
      }
    }
    stream_.control_callback([this](websocket::frame_type kind, beast::string_view) {
      {
        std::lock_guard lock(state_->mutex);
        if (kind == websocket::frame_type::pong) ++state_->pongs;
        if (kind == websocket::frame_type::ping) ++state_->pings;
      }
      state_->changed.notify_all();
    });
    stream_.async_accept(request_, [self = self()](beast::error_code ec) {
      if (ec) return;
      self->server_.opened(self->connection_);
      self->read();
    });
  }

  void read() {
    buffer_.clear();
    stream_.async_read(
        buffer_, [self = self()](beast::error_code ec, std::size_t) { self->receivedMessage(ec); });
  }

  void receivedMessage(beast::error_code ec) {
    if (ec) return ended(ec);
    Frame frame{stream_.got_text(), beast::buffers_to_string(buffer_.data())};
    {
      std::lock_guard lock(state_->mutex);
      state_->frames.push_back(frame);
    }
    state_->changed.notify_all();
    server_.received(*connection_, *this, std::move(frame));
    bool deaf = false;
    {
      std::lock_guard lock(state_->mutex);
      deaf = state_->stopReading;
    }
    if (deaf) return server_.stalled.push_back(shared_from_this());  // kept open, unread
    // Once this side's close frame is out, Beast's close operation reads the answer itself; a
    // read started now could deadlock with it.
    if (closing_) return;
    read();
  }

  void ended(beast::error_code ec) {
    // A close that this side started ends the read with operation_aborted; the close's own
    // completion records how it ended.
    if (closing_ && ec == asio::error::operation_aborted) return;
    WebSocketTestServer::End end;
    if (ec == websocket::error::closed) {
      end.closeFrame = true;
      end.code = stream_.reason().code;
    }
    record(end);
    beast::error_code ignored;
    socket().close(ignored);
  }

  void record(WebSocketTestServer::End end) {
    {
      std::lock_guard lock(state_->mutex);
      if (!state_->end) state_->end = end;
    }
    state_->changed.notify_all();
  }

  void queue(Command command) {
    commands_.push_back(std::move(command));
    if (commands_.size() == 1) writeNext();
  }

  void writeNext() {
    if (commands_.empty()) return;
    auto& command = commands_.front();
    const auto next = [self = self()](beast::error_code ec, std::size_t = 0) {
      self->commands_.pop_front();
      if (ec) {
        self->commands_.clear();
        return;
      }
      self->writeNext();
    };
    if (command.kind == Command::sendFrame) {
      stream_.text(command.frame.text);
      stream_.async_write(asio::buffer(command.frame.payload), next);
    } else {
      websocket::close_reason reason;
      if (command.code) {
        reason.code = *command.code;
        reason.reason = command.reason;
      }
      closing_ = true;
      stream_.async_close(reason, [self = self(), next](beast::error_code ec) {
        WebSocketTestServer::End end;
        if (!ec) {
          end.closeFrame = true;  // the client answered
          end.code = self->stream_.reason().code;
        }
        self->record(end);
        next(ec);
      });
    }
  }

  detail::WebSocketTestServerImpl& server_;
  websocket::stream<Transport> stream_;
  beast::flat_buffer buffer_;
  http::request<http::string_body> request_;
  std::shared_ptr<Connection::State> state_;
  std::shared_ptr<Connection> connection_;
  std::deque<Command> commands_;
  bool closing_ = false;  // this side sent a close frame
};

}  // namespace

void detail::WebSocketTestServerImpl::accept() {
  acceptor.async_accept(ioContext.get_executor(), [this](beast::error_code ec, tcp::socket socket) {
    if (ec) return;  // closed
    {
      std::lock_guard lock(mutex);
      ++accepted;
    }
    changed.notify_all();
    std::shared_ptr<Session> session;
    if (tlsContext) {
      session = std::make_shared<SessionOver<true>>(*this, std::move(socket), *tlsContext);
    } else {
      session = std::make_shared<SessionOver<false>>(*this, std::move(socket));
    }
    std::erase_if(sessions, [](const std::weak_ptr<Session>& s) { return s.expired(); });
    sessions.push_back(session);
    session->start();
    accept();
  });
}

WebSocketTestServer::WebSocketTestServer() : WebSocketTestServer(Options{}) {}

WebSocketTestServer::WebSocketTestServer(Options options)
    : impl_(std::make_unique<detail::WebSocketTestServerImpl>(std::move(options))) {
  auto& impl = *impl_;
  if (impl.options.tls) {
    impl.tlsContext.emplace(ssl::context::tls_server);
    impl.tlsContext->use_certificate_chain(asio::buffer(impl.options.tls->certificatePem));
    impl.tlsContext->use_private_key(asio::buffer(impl.options.tls->privateKeyPem),
                                     ssl::context::pem);
  }
  const tcp::endpoint endpoint(asio::ip::make_address(impl.options.address), 0);
  impl.acceptor.open(endpoint.protocol());
  impl.acceptor.set_option(tcp::acceptor::reuse_address(true));
  impl.acceptor.bind(endpoint);
  impl.acceptor.listen();
  port_ = impl.acceptor.local_endpoint().port();
  impl.link = std::make_shared<Link>(impl.ioContext.get_executor());
  impl.accept();
  impl.thread = std::thread([&impl] { impl.ioContext.run(); });
}

WebSocketTestServer::~WebSocketTestServer() {
  auto& impl = *impl_;
  {
    std::lock_guard lock(impl.link->mutex);
    impl.link->alive = false;
  }
  asio::post(impl.ioContext, [&impl] {
    beast::error_code ignored;
    impl.acceptor.close(ignored);
    for (const auto& weak : impl.sessions) {
      if (auto session = weak.lock()) session->dropTransport();
    }
    impl.stalled.clear();
    impl.work.reset();
  });
  impl.thread.join();
}

std::string WebSocketTestServer::url(std::string_view path) const {
  const auto& address = impl_->options.address;
  return url(address.find(':') == std::string::npos ? address : "[" + address + "]", path);
}

std::string WebSocketTestServer::url(std::string_view host, std::string_view path) const {
  return std::string(impl_->options.tls ? "wss://" : "ws://") + std::string(host) + ":" +
         std::to_string(port_) + std::string(path);
}

void WebSocketTestServer::setMessageHandler(MessageHandler handler) {
  std::lock_guard lock(impl_->mutex);
  impl_->handler = std::move(handler);
}

std::shared_ptr<WebSocketTestServer::Connection> WebSocketTestServer::waitForConnection(
    std::size_t index, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(impl_->mutex);
  if (!impl_->changed.wait_for(lock, timeout, [&] { return impl_->connections.size() > index; })) {
    return nullptr;
  }
  return impl_->connections[index];
}

bool WebSocketTestServer::waitForAccepted(std::size_t count,
                                          std::chrono::milliseconds timeout) const {
  std::unique_lock lock(impl_->mutex);
  return impl_->changed.wait_for(lock, timeout, [&] { return impl_->accepted >= count; });
}

std::size_t WebSocketTestServer::connectionCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->connections.size();
}

// --- Connection ---

std::string WebSocketTestServer::Connection::target() const {
  std::lock_guard lock(state_->mutex);
  return state_->target;
}

std::optional<std::string> WebSocketTestServer::Connection::header(std::string_view name) const {
  std::lock_guard lock(state_->mutex);
  for (const auto& [field, value] : state_->headers) {
    if (equalsIgnoringCase(field, name)) return value;
  }
  return std::nullopt;
}

std::vector<std::pair<std::string, std::string>> WebSocketTestServer::Connection::headers() const {
  std::lock_guard lock(state_->mutex);
  return state_->headers;
}

void WebSocketTestServer::Connection::sendText(std::string text) {
  state_->post([text = std::move(text)](Session& s) mutable {
    s.send(Frame{true, std::move(text)});
  });
}

void WebSocketTestServer::Connection::sendBinary(std::string bytes) {
  state_->post([bytes = std::move(bytes)](Session& s) mutable {
    s.send(Frame{false, std::move(bytes)});
  });
}

void WebSocketTestServer::Connection::close(std::uint16_t code, std::string reason) {
  state_->post(
      [code, reason = std::move(reason)](Session& s) mutable { s.close(code, std::move(reason)); });
}

void WebSocketTestServer::Connection::closeWithoutCode() {
  state_->post([](Session& s) { s.close(std::nullopt, {}); });
}

void WebSocketTestServer::Connection::dropTransport() {
  state_->post([](Session& s) { s.dropTransport(); });
}

void WebSocketTestServer::Connection::reset() {
  state_->post([](Session& s) { s.reset(); });
}

std::vector<WebSocketTestServer::Frame> WebSocketTestServer::Connection::frames() const {
  std::lock_guard lock(state_->mutex);
  return state_->frames;
}

bool WebSocketTestServer::Connection::waitForFrames(std::size_t count,
                                                    std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, timeout, [&] { return state_->frames.size() >= count; });
}

std::optional<std::string> WebSocketTestServer::Connection::serverName() const {
  std::lock_guard lock(state_->mutex);
  return state_->serverName;
}

void WebSocketTestServer::Connection::stopReading() {
  std::lock_guard lock(state_->mutex);
  state_->stopReading = true;
}

bool WebSocketTestServer::Connection::waitForPings(std::size_t count,
                                                   std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, timeout, [&] { return state_->pings >= count; });
}

std::size_t WebSocketTestServer::Connection::pongs() const {
  std::lock_guard lock(state_->mutex);
  return state_->pongs;
}

bool WebSocketTestServer::Connection::waitForPongs(std::size_t count,
                                                   std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, timeout, [&] { return state_->pongs >= count; });
}

std::optional<WebSocketTestServer::End> WebSocketTestServer::Connection::waitForEnd(
    std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  state_->changed.wait_for(lock, timeout, [&] { return state_->end.has_value(); });
  return state_->end;
}

}  // namespace kel::test
