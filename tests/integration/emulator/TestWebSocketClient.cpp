#include "integration/emulator/TestWebSocketClient.h"

#include <deque>
#include <stdexcept>
#include <utility>

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/url/parse.hpp>

#include "ServerClient/Common/Json.h"

namespace kel::emulator::test {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

namespace {

using PlainSocket = websocket::stream<beast::tcp_stream>;
using SecureSocket = websocket::stream<beast::ssl_stream<beast::tcp_stream>>;

struct Endpoint {
  bool secure = false;
  tcp::endpoint address;
  std::string host;  // for the Host header
  std::string target;
};

Endpoint parseUrl(std::string_view url) {
  auto parsed = boost::urls::parse_uri(url);
  if (!parsed) throw std::runtime_error("not a URL: " + std::string(url));
  Endpoint endpoint;
  const auto scheme = std::string(parsed->scheme());
  endpoint.secure = scheme == "wss" || scheme == "https";
  auto host = std::string(parsed->host_address());
  endpoint.address =
      tcp::endpoint(asio::ip::make_address(host),
                    static_cast<unsigned short>(std::stoi(std::string(parsed->port()))));
  endpoint.host = std::string(parsed->encoded_host_and_port());
  endpoint.target = std::string(parsed->encoded_resource());
  if (endpoint.target.empty()) endpoint.target = "/";
  return endpoint;
}

std::shared_ptr<asio::ssl::context> clientContext(const std::optional<std::string>& caPem) {
  auto context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_client);
  if (caPem) context->add_certificate_authority(asio::buffer(*caPem));
  context->set_verify_mode(asio::ssl::verify_peer);
  return context;
}

// Runs the operation that `start` begins until it completes or the time-out passes; on time-out
// cancels it through `cancel` and reports timed_out.
template <class Start, class Cancel>
boost::system::error_code runWithTimeout(asio::io_context& io, std::chrono::milliseconds timeout,
                                         Start start, Cancel cancel) {
  std::optional<boost::system::error_code> result;
  start([&result](const boost::system::error_code& error, auto&&...) { result = error; });
  io.restart();
  io.run_for(timeout);
  if (result) return *result;
  cancel();
  io.restart();
  io.run();
  return asio::error::timed_out;
}

}  // namespace

struct TestWebSocketClient::Impl {
  asio::io_context io;
  std::shared_ptr<asio::ssl::context> ssl;
  std::optional<PlainSocket> plain;
  std::optional<SecureSocket> secure;
  beast::flat_buffer buffer;
  std::deque<Frame> pending;  // frames read past while waiting for a response
  std::string subprotocol;
  std::int64_t nextId = 1;

  template <class F>
  decltype(auto) with(F&& f) {
    if (secure) return f(*secure);
    return f(*plain);
  }

  beast::tcp_stream& tcpStream() {
    return with([](auto& ws) -> beast::tcp_stream& { return beast::get_lowest_layer(ws); });
  }

  template <class Start>
  boost::system::error_code run(std::chrono::milliseconds timeout, Start start) {
    return runWithTimeout(io, timeout, start, [this] { tcpStream().socket().cancel(); });
  }
};

TestWebSocketClient::TestWebSocketClient(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

TestWebSocketClient::~TestWebSocketClient() {
  boost::system::error_code ignored;
  impl_->tcpStream().socket().close(ignored);
}

boost::system::error_code TestWebSocketClient::tryConnect(std::string_view url,
                                                          ClientOptions options) {
  try {
    connect(url, std::move(options));
    return {};
  } catch (const boost::system::system_error& e) {
    return e.code();
  }
}

std::unique_ptr<TestWebSocketClient> TestWebSocketClient::connect(std::string_view url,
                                                                  ClientOptions options) {
  const auto endpoint = parseUrl(url);
  auto impl = std::make_unique<Impl>();
  if (endpoint.secure) {
    impl->ssl = clientContext(options.caPem);
    impl->secure.emplace(impl->io, *impl->ssl);
    auto& tls = impl->secure->next_layer();
    SSL_set_tlsext_host_name(tls.native_handle(), options.serverName.c_str());
    tls.set_verify_callback(asio::ssl::host_name_verification(options.serverName));
  } else {
    impl->plain.emplace(impl->io);
  }
  auto check = [](const boost::system::error_code& error, const char* step) {
    if (error) throw boost::system::system_error(error, step);
  };
  check(
      impl->run(kWait,
                [&](auto handler) { impl->tcpStream().async_connect(endpoint.address, handler); }),
      "connect");
  if (impl->secure) {
    check(impl->run(kWait,
                    [&](auto handler) {
                      impl->secure->next_layer().async_handshake(asio::ssl::stream_base::client,
                                                                 handler);
                    }),
          "TLS handshake");
  }
  websocket::response_type response;
  impl->with([&](auto& ws) {
    ws.set_option(websocket::stream_base::decorator([options](websocket::request_type& request) {
      if (!options.subprotocol.empty()) {
        request.set(http::field::sec_websocket_protocol, options.subprotocol);
      }
      if (!options.cookie.empty()) request.set(http::field::cookie, options.cookie);
    }));
    ws.read_message_max(64 * 1024 * 1024);
  });
  check(impl->run(kWait,
                  [&](auto handler) {
                    impl->with([&](auto& ws) {
                      ws.async_handshake(response, endpoint.host, endpoint.target, handler);
                    });
                  }),
        "upgrade");
  impl->subprotocol = std::string(response[http::field::sec_websocket_protocol]);
  return std::unique_ptr<TestWebSocketClient>(new TestWebSocketClient(std::move(impl)));
}

const std::string& TestWebSocketClient::acceptedSubprotocol() const {
  return impl_->subprotocol;
}

void TestWebSocketClient::sendText(std::string_view text) {
  auto error = impl_->run(kWait, [&](auto handler) {
    impl_->with([&](auto& ws) {
      ws.text(true);
      ws.async_write(asio::buffer(text.data(), text.size()), handler);
    });
  });
  if (error) throw boost::system::system_error(error, "send");
}

void TestWebSocketClient::sendBinary(std::string_view bytes) {
  auto error = impl_->run(kWait, [&](auto handler) {
    impl_->with([&](auto& ws) {
      ws.binary(true);
      ws.async_write(asio::buffer(bytes.data(), bytes.size()), handler);
    });
  });
  if (error) throw boost::system::system_error(error, "send");
}

void TestWebSocketClient::sendPong() {
  auto error = impl_->run(
      kWait, [&](auto handler) { impl_->with([&](auto& ws) { ws.async_pong({}, handler); }); });
  if (error) throw boost::system::system_error(error, "pong");
}

void TestWebSocketClient::close(std::uint16_t code) {
  auto error = impl_->run(kWait, [&](auto handler) {
    impl_->with([&](auto& ws) {
      ws.async_close(websocket::close_reason(static_cast<websocket::close_code>(code)), handler);
    });
  });
  if (error) throw boost::system::system_error(error, "close");
}

ReadResult TestWebSocketClient::read(std::chrono::milliseconds timeout) {
  ReadResult result;
  if (!impl_->pending.empty()) {
    result.frame = std::move(impl_->pending.front());
    impl_->pending.pop_front();
    return result;
  }
  auto error = impl_->run(timeout, [&](auto handler) {
    impl_->with([&](auto& ws) { ws.async_read(impl_->buffer, handler); });
  });
  if (error == asio::error::timed_out) {
    result.timedOut = true;
  } else if (error == websocket::error::closed) {
    result.closeCode =
        impl_->with([](auto& ws) { return static_cast<std::uint16_t>(ws.reason().code); });
  } else if (error) {
    result.error = error;
  } else {
    const bool binary = impl_->with([](auto& ws) { return !ws.got_text(); });
    result.frame = Frame{beast::buffers_to_string(impl_->buffer.data()), binary};
    impl_->buffer.consume(impl_->buffer.size());
  }
  return result;
}

Frame TestWebSocketClient::nextFrame(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    auto result = read(std::max(left, std::chrono::milliseconds(1)));
    if (!result.frame) {
      throw std::runtime_error(result.timedOut    ? "no frame in time"
                               : result.closeCode ? "closed by the server with " +
                                                        std::to_string(*result.closeCode)
                                                  : "connection failed: " + result.error.message());
    }
    if (!result.frame->binary && result.frame->data == "0") continue;
    return std::move(*result.frame);
  }
}

Frame TestWebSocketClient::authenticate(std::string_view token) {
  sendText("AUTH " + std::string(token));
  return nextFrame();
}

std::int64_t TestWebSocketClient::sendRequest(std::string_view method, std::string_view path,
                                              const nlohmann::json& body) {
  const auto id = impl_->nextId++;
  nlohmann::json request{{"id", id}, {"path", path}, {"method", method}, {"body", body}};
  sendText("2" + request.dump(2));  // indented, as the library's client writes it
  return id;
}

nlohmann::json TestWebSocketClient::awaitResponse(std::int64_t id,
                                                  std::chrono::milliseconds timeout) {
  auto isResponse = [id](const Frame& frame, nlohmann::json& object) {
    if (frame.binary || !frame.data.starts_with('3')) return false;
    auto parsed = parseJson(std::string_view(frame.data).substr(1));
    if (!parsed || !parsed->is_object()) return false;
    auto it = parsed->find("id");
    if (it == parsed->end() || !it->is_number_integer() || it->get<std::int64_t>() != id) {
      return false;
    }
    object = std::move(*parsed);
    return true;
  };
  nlohmann::json object;
  for (auto it = impl_->pending.begin(); it != impl_->pending.end(); ++it) {
    if (isResponse(*it, object)) {
      impl_->pending.erase(it);
      return object;
    }
  }
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::deque<Frame> skipped;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    auto result = read(std::max(left, std::chrono::milliseconds(1)));
    if (!result.frame) {
      throw std::runtime_error("no response to request " + std::to_string(id) +
                               (result.timedOut ? " in time" : ": the connection ended"));
    }
    if (isResponse(*result.frame, object)) {
      for (auto& frame : skipped) impl_->pending.push_back(std::move(frame));
      return object;
    }
    if (!result.frame->binary && result.frame->data == "0") continue;
    skipped.push_back(std::move(*result.frame));
  }
}

nlohmann::json TestWebSocketClient::request(std::string_view method, std::string_view path,
                                            const nlohmann::json& body) {
  return awaitResponse(sendRequest(method, path, body));
}

nlohmann::json responseObject(const Frame& frame) {
  if (frame.binary || !frame.data.starts_with('3')) {
    throw std::runtime_error("not a response frame: " + frame.data.substr(0, 200));
  }
  auto parsed = parseJson(std::string_view(frame.data).substr(1));
  if (!parsed || !parsed->is_object()) {
    throw std::runtime_error("not a JSON object after 3: " + frame.data.substr(0, 200));
  }
  return std::move(*parsed);
}

HttpResult httpRequest(std::string_view baseUrl, std::string_view method, std::string_view target,
                       std::string body, const std::optional<std::string>& caPem) {
  const auto endpoint = parseUrl(baseUrl);
  asio::io_context io;
  std::shared_ptr<asio::ssl::context> ssl;
  std::optional<beast::tcp_stream> plain;
  std::optional<beast::ssl_stream<beast::tcp_stream>> secure;
  if (endpoint.secure) {
    ssl = clientContext(caPem);
    secure.emplace(io, *ssl);
    SSL_set_tlsext_host_name(secure->native_handle(), "localhost");
    secure->set_verify_callback(asio::ssl::host_name_verification("localhost"));
  } else {
    plain.emplace(io);
  }
  auto& tcpStream = endpoint.secure ? beast::get_lowest_layer(*secure) : *plain;
  auto cancel = [&] { tcpStream.socket().cancel(); };
  auto check = [](const boost::system::error_code& error, const char* step) {
    if (error) throw boost::system::system_error(error, step);
  };
  check(runWithTimeout(
            io, kWait, [&](auto handler) { tcpStream.async_connect(endpoint.address, handler); },
            cancel),
        "connect");
  if (secure) {
    check(
        runWithTimeout(
            io, kWait,
            [&](auto handler) { secure->async_handshake(asio::ssl::stream_base::client, handler); },
            cancel),
        "TLS handshake");
  }
  http::request<http::string_body> request(http::string_to_verb(method), std::string(target), 11);
  request.set(http::field::host, endpoint.host);
  request.set(http::field::content_type, "application/json");
  request.body() = std::move(body);
  request.prepare_payload();
  http::response<http::string_body> response;
  beast::flat_buffer buffer;
  auto exchange = [&](auto& stream) {
    check(
        runWithTimeout(
            io, kWait, [&](auto handler) { http::async_write(stream, request, handler); }, cancel),
        "write");
    check(runWithTimeout(
              io, kWait, [&](auto handler) { http::async_read(stream, buffer, response, handler); },
              cancel),
          "read");
  };
  if (secure) {
    exchange(*secure);
  } else {
    exchange(*plain);
  }
  HttpResult result;
  result.status = static_cast<int>(response.result_int());
  result.body = response.body();
  for (const auto& field : response) {
    result.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
  }
  return result;
}

}  // namespace kel::emulator::test
