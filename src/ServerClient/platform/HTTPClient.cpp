#include "ServerClient/platform/HTTPClient.h"

#include <algorithm>
#include <optional>
#include <type_traits>

#include <boost/asio/connect.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/url/scheme.hpp>

#if defined(__linux__)
#include <pthread.h>
#endif

#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Version.h"
#include "ServerClient/platform/detail/HttpText.h"
#include "ServerClient/platform/detail/NetworkThread.h"

namespace kel::platform {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using Executor = asio::io_context::executor_type;
using Kind = HTTPClientError::Kind;

using detail::equalsIgnoringCase;
using detail::isFieldValue;
using detail::isToken;

constexpr std::size_t kMaxResponseHeaderBytes = 64 * 1024;

std::exception_ptr makeClientError(Kind kind, std::error_code code, const std::string& what) {
  return std::make_exception_ptr(HTTPClientError(kind, code, what));
}

// What an exchange needs of its URL, worked out before anything is sent.
struct Endpoint {
  bool tls = false;
  std::string host;  // to resolve or parse; IPv6 without brackets
  bool hostIsAddress = false;
  std::uint16_t port = 0;
  std::string hostField;
  std::string target;
  std::string text;  // for errors
};

// The endpoint, or why the request cannot be sent.
std::optional<Endpoint> endpointOf(const HTTPRequest& request, std::string& why) {
  const auto& url = request.url;
  Endpoint endpoint;
  endpoint.text = url.buffer();
  switch (url.scheme_id()) {
    case boost::urls::scheme::http:
      endpoint.tls = false;
      break;
    case boost::urls::scheme::https:
      endpoint.tls = true;
      break;
    default:
      why = "\"" + endpoint.text + "\" is neither http:// nor https://";
      return std::nullopt;
  }
  endpoint.host = url.host_address();
  if (!url.has_authority() || endpoint.host.empty()) {
    why = "\"" + endpoint.text + "\" has no host";
    return std::nullopt;
  }
  endpoint.hostIsAddress = url.host_type() == boost::urls::host_type::ipv4 ||
                           url.host_type() == boost::urls::host_type::ipv6;
  endpoint.port = url.has_port() ? url.port_number() : (endpoint.tls ? 443 : 80);
  endpoint.hostField = url.encoded_host_and_port();
  endpoint.target = url.encoded_target();
  if (endpoint.target.empty() || endpoint.target.front() != '/') endpoint.target.insert(0, "/");
  if (!isToken(request.method)) {
    why = "\"" + request.method + "\" is not an HTTP method";
    return std::nullopt;
  }
  for (const auto& [name, value] : request.headerFields) {
    if (!isToken(name) || !isFieldValue(value)) {
      why = "the header field \"" + name + "\" cannot be sent";
      return std::nullopt;
    }
  }
  return endpoint;
}

// Decides once between the completion and a cancellation racing it from another thread.
struct Delivery {
  std::mutex mutex;  // guards the two members below
  bool cancelled = false;
  HTTPClient::Completion completion;

  HTTPClient::Completion take() {
    std::lock_guard lock(mutex);
    if (cancelled) return {};
    return std::exchange(completion, {});
  }
  void cancel() {
    HTTPClient::Completion dropped;  // destroyed outside the lock
    std::lock_guard lock(mutex);
    cancelled = true;
    dropped = std::exchange(completion, {});
  }
};

void deliver(const std::shared_ptr<Delivery>& delivery, std::exception_ptr error,
             HTTPResponse response) {
  auto completion = delivery->take();
  if (!completion) return;
  try {
    completion(std::move(error), std::move(response));
  } catch (const std::exception& e) {
    KEL_LOG_ERROR("dataTask(with:completionHandler:)",
                  std::string("HTTP completion threw: ") + e.what());
  } catch (...) {
    KEL_LOG_ERROR("dataTask(with:completionHandler:)", "HTTP completion threw");
  }
}

class Exchange : public std::enable_shared_from_this<Exchange> {
 public:
  virtual ~Exchange() = default;
  virtual void start() = 0;
  // On the I/O thread: stop, complete nothing.
  virtual void abort() = 0;
};

template <bool Tls>
class ExchangeOver final : public Exchange {
  using Stream = std::conditional_t<Tls, ssl::stream<tcp::socket>, tcp::socket>;

 public:
  template <typename... StreamArgs>
  ExchangeOver(Executor executor, Endpoint endpoint, http::request<http::string_body> request,
               std::chrono::milliseconds timeout, std::size_t maxBodySize,
               std::shared_ptr<HTTPCookieStorage> cookieStorage, boost::urls::url url,
               std::shared_ptr<Delivery> delivery, StreamArgs&... streamArgs)
      : endpoint_(std::move(endpoint)),
        request_(std::move(request)),
        timeout_(timeout),
        cookieStorage_(std::move(cookieStorage)),
        url_(std::move(url)),
        delivery_(std::move(delivery)),
        resolver_(executor),
        stream_(executor, streamArgs...),
        timer_(executor) {
    parser_.header_limit(static_cast<std::uint32_t>(kMaxResponseHeaderBytes));
    parser_.body_limit(maxBodySize);
  }

  void start() override {
    timer_.expires_after(timeout_);
    timer_.async_wait([self = shared()](beast::error_code ec) {
      if (!ec) self->timedOut();
    });
    if (endpoint_.hostIsAddress) {
      beast::error_code ec;
      const auto address = asio::ip::make_address(endpoint_.host, ec);
      if (ec) return fail(Kind::invalidRequest, ec, "the address " + endpoint_.host);
      endpoints_.emplace_back(address, endpoint_.port);
      return connectTcp();
    }
    resolver_.async_resolve(
        endpoint_.host, std::to_string(endpoint_.port),
        [self = shared()](beast::error_code ec, const tcp::resolver::results_type& results) {
          if (self->done_) return;
          if (ec) return self->fail(Kind::cannotConnect, ec, "resolving " + self->endpoint_.host);
          for (const auto& entry : results) self->endpoints_.push_back(entry.endpoint());
          self->connectTcp();
        });
  }

  void abort() override {
    delivery_->cancel();
    end();
  }

 private:
  std::shared_ptr<ExchangeOver> shared() {
    return std::static_pointer_cast<ExchangeOver>(shared_from_this());
  }

  tcp::socket& socket() noexcept {
    if constexpr (Tls) {
      return stream_.next_layer();
    } else {
      return stream_;
    }
  }

  void connectTcp() {
    asio::async_connect(
        socket(), endpoints_,
        [self = shared()](beast::error_code ec, const tcp::endpoint&) { self->connected(ec); });
  }

  void connected(beast::error_code ec) {
    if (done_) return;
    if (ec) return fail(Kind::cannotConnect, ec, "connecting");
    socket().set_option(tcp::no_delay(true), ec);
    if constexpr (Tls) {
      if (!expectServerName(stream_.native_handle(), endpoint_.host, endpoint_.hostIsAddress)) {
        return fail(Kind::invalidRequest, ssl::error::stream_errors::unspecified_system_error,
                    "the host name " + endpoint_.host);
      }
      stream_.async_handshake(ssl::stream_base::client,
                              [self = shared()](beast::error_code e) { self->handshaken(e); });
    } else {
      write();
    }
  }

  void handshaken(beast::error_code ec) {
    if (done_) return;
    if (ec) {
      std::string what = "the TLS handshake";
      auto kind = Kind::tlsFailure;
      if constexpr (Tls) {
        const auto why = certificateVerificationFailure(stream_.native_handle());
        if (!why.empty()) what += ": " + why;
        if (isCertificatePinMismatch(stream_.native_handle())) kind = Kind::pinMismatch;
      }
      return fail(kind, ec, what);
    }
    write();
  }

  void write() {
    http::async_write(stream_, request_, [self = shared()](beast::error_code ec, std::size_t) {
      if (self->done_) return;
      if (ec) return self->fail(Kind::networkError, ec, "writing the request");
      self->read();
    });
  }

  void read() {
    http::async_read(stream_, buffer_, parser_,
                     [self = shared()](beast::error_code ec, std::size_t) { self->readDone(ec); });
  }

  void readDone(beast::error_code ec) {
    if (done_) return;
    // A TLS server that ends a body "up to the end of the connection" without close_notify
    // leaves it truncated in TLS terms but complete in HTTP terms.
    if (ec == ssl::error::stream_truncated && !parser_.is_done() && parser_.is_header_done()) {
      beast::error_code eofError;
      parser_.put_eof(eofError);
      if (!eofError && parser_.is_done()) ec = {};
    }
    if (ec == http::error::body_limit) {
      return fail(Kind::responseTooLarge, ec, "the response body exceeds the client's limit");
    }
    if (ec == http::error::header_limit) {
      return fail(Kind::responseTooLarge, ec, "the response header exceeds 64 KiB");
    }
    if (ec.category() == http::make_error_code(http::error::end_of_stream).category() ||
        ec == asio::error::eof) {
      return fail(Kind::badResponse, ec, "reading the response");
    }
    if (ec) return fail(Kind::networkError, ec, "reading the response");

    auto message = parser_.release();
    HTTPResponse response;
    response.statusCode = static_cast<int>(message.result_int());
    std::vector<std::string> cookies;
    for (const auto& field : message) {
      response.headerFields.emplace_back(std::string(field.name_string()),
                                         std::string(field.value()));
      if (field.name() == http::field::set_cookie) cookies.emplace_back(field.value());
    }
    response.body = std::move(message.body());
    if (cookieStorage_ && !cookies.empty()) cookieStorage_->setCookies(cookies, url_);
    end();
    deliver(delivery_, nullptr, std::move(response));
  }

  void timedOut() {
    if (done_) return;
    fail(Kind::timedOut, asio::error::timed_out,
         "no complete response within " + std::to_string(timeout_.count()) + " ms");
  }

  void fail(Kind kind, beast::error_code ec, const std::string& what) {
    if (done_) return;
    end();
    std::string text = request_.method_string();
    text += " " + endpoint_.text + ": " + what;
    if (ec && kind != Kind::timedOut) text += " (" + ec.message() + ")";
    deliver(delivery_, makeClientError(kind, ec, text), {});
  }

  // Stops every operation under way; their handlers then see done_.
  void end() {
    if (done_) return;
    done_ = true;
    timer_.cancel();
    resolver_.cancel();
    beast::error_code ignored;
    socket().shutdown(tcp::socket::shutdown_both, ignored);
    socket().close(ignored);
  }

  const Endpoint endpoint_;
  http::request<http::string_body> request_;
  const std::chrono::milliseconds timeout_;
  const std::shared_ptr<HTTPCookieStorage> cookieStorage_;  // null: cookies not handled
  const boost::urls::url url_;
  const std::shared_ptr<Delivery> delivery_;
  tcp::resolver resolver_;
  std::vector<tcp::endpoint> endpoints_;
  Stream stream_;
  asio::steady_timer timer_;  // the whole exchange's deadline
  beast::flat_buffer buffer_;
  http::response_parser<http::string_body> parser_;
  bool done_ = false;  // nothing more is done or delivered
};

}  // namespace

// ------------------------------------------------------------------------------------------------

std::optional<std::string> HTTPResponse::value(std::string_view field) const {
  for (const auto& [name, value] : headerFields) {
    if (equalsIgnoringCase(name, field)) return value;
  }
  return std::nullopt;
}

rx::Single<HTTPResponse> dataTask(std::shared_ptr<HTTPClient> client, HTTPRequest request) {
  // The subscriber, until the exchange delivers or the subscription is disposed, whichever
  // comes first; the other then finds nothing.
  struct Subscriber {
    std::mutex mutex;  // guards observer
    std::optional<rx::SingleObserver<HTTPResponse>> observer;

    std::optional<rx::SingleObserver<HTTPResponse>> take() {
      std::lock_guard lock(mutex);
      return std::exchange(observer, std::nullopt);
    }
  };
  return rx::Single<HTTPResponse>::create(
      [client = std::move(client),
       request = std::move(request)](rx::SingleObserver<HTTPResponse> observer) {
        auto subscriber = std::make_shared<Subscriber>();
        subscriber->observer = std::move(observer);
        // The exchange's own Disposable is left alone: disposing the subscription does not
        // cancel it, since the server may already be acting on the request (a sign-in makes a
        // session). It runs to its end, bounded by its time-out, and its result is dropped.
        // The completion holds no reference to the client, so the client is never released on
        // its own I/O thread.
        client->send(request, [subscriber](std::exception_ptr error, HTTPResponse response) {
          auto taken = subscriber->take();
          if (!taken) return;
          if (error) {
            taken->onError(std::move(error));
          } else {
            taken->onSuccess(response);
          }
        });
        return rx::Disposable::create([subscriber] { subscriber->take(); });
      });
}

// ------------------------------------------------------------------------------------------------

struct BeastHTTPClient::Runtime {
  explicit Runtime(Options o) : options(std::move(o)) {
    if (!options.cookieStorage) options.cookieStorage = HTTPCookieStorage::shared();
    tlsContext = makeTlsClientContext(options.trust, "HTTP client");
  }

  detail::NetworkContext ioContext{1};
  asio::executor_work_guard<Executor> work = asio::make_work_guard(ioContext);
  Options options;
  std::shared_ptr<ssl::context> tlsContext;  // shared by every https exchange
};

BeastHTTPClient::BeastHTTPClient() : BeastHTTPClient(Options{}) {}

BeastHTTPClient::BeastHTTPClient(Options options)
    : runtime_(std::make_shared<Runtime>(std::move(options))) {
  thread_ = std::make_unique<detail::NetworkThread>("kel-http", runtime_->ioContext, runtime_);
}

BeastHTTPClient::~BeastHTTPClient() {
  // Handlers still queued are destroyed with the io_context, taking their exchanges with them
  // without a completion.
  runtime_->ioContext.stop();
  // Destroyed from a completion, the thread ends right after it returns, holding the runtime
  // until then; otherwise the io_context goes now, on this thread, with whatever it still holds.
  thread_.reset();
  runtime_.reset();
}

rx::Disposable BeastHTTPClient::send(HTTPRequest request, Completion completion) {
  auto delivery = std::make_shared<Delivery>();
  delivery->completion = std::move(completion);
  auto executor = runtime_->ioContext.get_executor();

  std::string why;
  auto endpoint = endpointOf(request, why);
  if (!endpoint) {
    asio::post(executor, [delivery, why] {
      deliver(delivery, makeClientError(Kind::invalidRequest, {}, "HTTP request refused: " + why),
              {});
    });
    return rx::Disposable::create([delivery] { delivery->cancel(); });
  }

  http::request<http::string_body> message;
  message.version(11);
  message.method_string(request.method);
  message.target(endpoint->target);
  message.set(http::field::host, endpoint->hostField);
  const auto has = [&](std::string_view name) {
    return std::any_of(request.headerFields.begin(), request.headerFields.end(),
                       [&](const auto& field) { return equalsIgnoringCase(field.first, name); });
  };
  if (!has("User-Agent")) {
    message.set(http::field::user_agent, std::string("ServerClient/") + libraryVersion());
  }
  for (const auto& [name, value] : request.headerFields) message.insert(name, value);
  std::shared_ptr<HTTPCookieStorage> cookieStorage;
  if (request.shouldHandleCookies) {
    cookieStorage = runtime_->options.cookieStorage;
    if (!has("Cookie")) {
      for (auto& [name, value] :
           HTTPCookieStorage::requestHeaderFields(cookieStorage->cookies(request.url))) {
        message.insert(name, value);
      }
    }
  }
  message.body() = std::move(request.body);
  if (!message.body().empty() || request.method == "POST" || request.method == "PUT" ||
      request.method == "PATCH") {
    message.prepare_payload();
  }

  std::shared_ptr<Exchange> exchange;
  if (endpoint->tls) {
    exchange = std::make_shared<ExchangeOver<true>>(
        executor, std::move(*endpoint), std::move(message), request.timeout,
        runtime_->options.maxResponseBodySize, std::move(cookieStorage), request.url, delivery,
        *runtime_->tlsContext);
  } else {
    exchange = std::make_shared<ExchangeOver<false>>(
        executor, std::move(*endpoint), std::move(message), request.timeout,
        runtime_->options.maxResponseBodySize, std::move(cookieStorage), request.url, delivery);
  }
  asio::post(executor, [exchange] { exchange->start(); });

  return rx::Disposable::create([delivery, weakRuntime = std::weak_ptr<Runtime>(runtime_),
                                 weakExchange = std::weak_ptr<Exchange>(exchange)] {
    delivery->cancel();
    // The io_context lives as long as the runtime; holding the runtime keeps it alive while
    // posting.
    if (auto runtime = weakRuntime.lock()) {
      asio::post(runtime->ioContext, [weakExchange] {
        if (auto running = weakExchange.lock()) running->abort();
      });
    }
  });
}

// ------------------------------------------------------------------------------------------------

InMemoryHTTPClient::Outcome InMemoryHTTPClient::Outcome::respond(
    int statusCode, std::string body, std::vector<HTTPHeaderField> headerFields) {
  Outcome outcome;
  outcome.response.statusCode = statusCode;
  outcome.response.body = std::move(body);
  outcome.response.headerFields = std::move(headerFields);
  return outcome;
}

InMemoryHTTPClient::Outcome InMemoryHTTPClient::Outcome::fail(std::exception_ptr error) {
  Outcome outcome;
  outcome.error = std::move(error);
  return outcome;
}

InMemoryHTTPClient::InMemoryHTTPClient()
    : responder_([](const HTTPRequest&) { return Outcome::respond(404, {}); }) {}

void InMemoryHTTPClient::setResponder(Responder responder) {
  std::lock_guard lock(mutex_);
  responder_ = std::move(responder);
}

std::vector<HTTPRequest> InMemoryHTTPClient::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::size_t InMemoryHTTPClient::pendingCount() const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      pending_.begin(), pending_.end(), [](const Pending& p) { return !p.cancelled->load(); }));
}

bool InMemoryHTTPClient::completePending(Outcome outcome) {
  Completion completion;
  {
    std::lock_guard lock(mutex_);
    std::erase_if(pending_, [](const Pending& p) { return p.cancelled->load(); });
    if (pending_.empty()) return false;
    completion = std::move(pending_.front().completion);
    pending_.erase(pending_.begin());
  }
  completion(std::move(outcome.error), std::move(outcome.response));
  return true;
}

rx::Disposable InMemoryHTTPClient::send(HTTPRequest request, Completion completion) {
  auto cancelled = std::make_shared<std::atomic<bool>>(false);
  Responder responder;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(request);
    responder = responder_;
  }
  auto outcome = responder(request);
  if (!outcome) {
    std::lock_guard lock(mutex_);
    pending_.push_back(Pending{cancelled, std::move(completion)});
  } else {
    completion(std::move(outcome->error), std::move(outcome->response));
  }
  return rx::Disposable::create([cancelled] { *cancelled = true; });
}

}  // namespace kel::platform
