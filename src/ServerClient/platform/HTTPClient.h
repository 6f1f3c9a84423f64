#pragma once

/// @file
/// The HTTP client that the sign-in calls use: one request, one response, no streaming.
///
/// HTTPClient is the interface; BeastHTTPClient is the real one (HTTP/1.1 over TCP or TLS, on
/// Boost.Beast) and InMemoryHTTPClient the twin that unit tests script.
///
/// <b>Completion</b>
/// - send() starts the exchange at once and calls the completion exactly once: with the response,
///   or with an HTTPClientError. It is never called after the returned Disposable was disposed
///   (which also stops the exchange) or once the client has been destroyed.
/// - Any status is a response, 4xx and 5xx included; redirects are not followed (a 3xx is
///   returned as it is), since the sign-in server never redirects and a silent redirect would
///   post a token to a place nobody chose.
/// - dataTask() wraps send() as an rx::Single; disposing the subscription drops the result but
///   lets the exchange run to its end (the server may already be acting on it).

#include <atomic>
#include <chrono>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <boost/url/url.hpp>

#include "ServerClient/platform/HTTPCookieStorage.h"
#include "ServerClient/platform/TlsClientContext.h"
#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Observable.h"

namespace kel::platform {

namespace detail {
class NetworkThread;
}  // namespace detail

/// A header field's name and value.
using HTTPHeaderField = std::pair<std::string, std::string>;

/// One HTTP request, as HTTPClient::send() takes it. A plain value. What HTTP cannot carry (a
/// method or field name that is not a token, a field value with CR, LF or NUL, a URL that is not
/// http or https with a host) fails BeastHTTPClient's exchange with an invalidRequest error.
struct HTTPRequest {
  /// The time-out of a request that sets none.
  static constexpr std::chrono::milliseconds kDefaultTimeout{std::chrono::seconds(60)};

  /// A GET without URL.
  HTTPRequest() = default;
  /// A request of `requestMethod` ("GET", "POST", ...) for `requestURL`.
  HTTPRequest(std::string requestMethod, boost::urls::url requestURL)
      : method(std::move(requestMethod)), url(std::move(requestURL)) {}

  /// Upper-case method: "GET", "POST", ...
  std::string method = "GET";
  /// An http:// or https:// URL with a host.
  boost::urls::url url;
  /// Sent in order, after the client's own Host, User-Agent and Content-Length fields. A field
  /// may appear more than once.
  std::vector<HTTPHeaderField> headerFields;
  /// Sent as it is; with a Content-Length field (see BeastHTTPClient).
  std::string body;
  /// Bounds the whole exchange: name resolution, connecting, the TLS handshake, writing the
  /// request and reading the full response.
  std::chrono::milliseconds timeout = kDefaultTimeout;
  /// Sends the stored cookies for the URL (unless headerFields already holds a "Cookie" field)
  /// and stores the response's Set-Cookie fields, in the client's cookie storage.
  bool shouldHandleCookies = true;

  /// Adds a header field; one of the same name that is already there stays.
  void addValue(std::string value, std::string field) {
    headerFields.emplace_back(std::move(field), std::move(value));
  }
};

/// The server's answer: any status, 4xx and 5xx included.
struct HTTPResponse {
  /// The status code: 200, 401, 503, ...
  int statusCode = 0;
  /// As received, in order; names keep the server's spelling.
  std::vector<HTTPHeaderField> headerFields;
  /// The whole body, de-chunked.
  std::string body;

  /// The first field of that name, compared case-insensitively.
  std::optional<std::string> value(std::string_view field) const;
};

/// Why an exchange produced no response. what() names the method, the URL and the cause; it
/// holds neither the request's fields nor its body.
class HTTPClientError : public std::runtime_error {
 public:
  /// The cause, for deciding what to do: retry later, report a configuration problem, and so on.
  enum class Kind {
    invalidRequest,    ///< not an http(s) URL with a host, or a method/field HTTP cannot carry
    cannotConnect,     ///< name resolution or TCP connection failed
    tlsFailure,        ///< the TLS handshake failed, e.g. the certificate was refused
    pinMismatch,       ///< the certificate chain is valid but holds none of the pinned keys
    timedOut,          ///< the request's time-out passed
    responseTooLarge,  ///< the body exceeded the client's limit
    badResponse,       ///< the server's answer is not HTTP/1.1 or ended early
    networkError,      ///< reading or writing failed otherwise
  };

  /// An error of `kind` with the underlying `code` and the message `what`.
  HTTPClientError(Kind kind, std::error_code code, const std::string& what)
      : std::runtime_error(what), kind_(kind), code_(code) {}

  /// The cause.
  Kind kind() const noexcept { return kind_; }
  /// The underlying system, Asio, Beast or OpenSSL error; empty when send() refused the request
  /// before starting it (invalidRequest).
  std::error_code code() const noexcept { return code_; }

 private:
  Kind kind_;
  std::error_code code_;
};

/// Sends one HTTP request and delivers its response: the interface of the sign-in calls, with
/// BeastHTTPClient the real implementation and InMemoryHTTPClient the scripted one. send() may be
/// called from any thread, any number of times at once. See HTTPClient.h for the completion's
/// contract.
class HTTPClient {
 public:
  /// Exactly one of the two is set: an error (an HTTPClientError) or the response.
  using Completion = std::function<void(std::exception_ptr error, HTTPResponse response)>;

  virtual ~HTTPClient() = default;

  /// Starts the exchange. See HTTPClient.h for when `completion` runs; each implementation says
  /// on which thread. Disposing the result stops the exchange and drops the completion, which
  /// then never runs (nor does it run once the client is destroyed).
  virtual rx::Disposable send(HTTPRequest request, Completion completion) = 0;
};

/// The exchange as a Single: it starts on subscription, once per subscription, and emits on the
/// client's completion thread. Disposing the subscription releases the subscriber at once and
/// never delivers to it; the exchange itself goes on to its response, failure or time-out, and
/// its result is dropped. The caller keeps the client alive: destroying it drops what is under
/// way (see BeastHTTPClient).
rx::Single<HTTPResponse> dataTask(std::shared_ptr<HTTPClient> client, HTTPRequest request);

// ------------------------------------------------------------------------------------------------

/// HTTP/1.1 on Boost.Beast, one connection per request (the sign-in calls are rare; keeping
/// connections alive would only keep sockets open).
///
/// Threads: the client owns one I/O thread ("kel-http"), started at construction, that runs every
/// exchange and every completion; completions are therefore serialised and must not block. Any
/// number of exchanges run on it at once. Destroying the client drops the exchanges under way
/// without completing them and frees them (their sockets and TLS streams) before it returns; on
/// any thread but the I/O thread it waits for that thread to end. Destroyed from one of its own
/// completions, it leaves the freeing to the I/O thread, which ends right after that completion
/// and is joined at the latest when the process exits.
///
/// https: TLS 1.2 or later; the certificate must chain to a trusted authority (Options::trust)
/// and name the URL's host (DNS name, or the IP address for an address URL); SNI is sent for host
/// names. With pins in Options::trust, the chain must also hold a pinned key (pinMismatch).
///
/// Fields sent: Host, User-Agent "ServerClient/<version>" unless the request has one,
/// Content-Length when there is a body or the method is POST, PUT or PATCH, then the request's
/// fields and the cookies. Responses: HTTP/1.1 or 1.0, chunked or not; headers up to 64 KiB,
/// the body up to Options::maxResponseBodySize.
class BeastHTTPClient final : public HTTPClient {
 public:
  /// Trust, limits and cookie storage; the defaults suit the Kel server.
  struct Options {
    /// The authorities trusted and the keys pinned for https.
    TlsTrust trust{};
    /// Larger bodies fail with responseTooLarge as soon as their size is known (Content-Length)
    /// or reached (chunked), before more is buffered. The sign-in answer is a few KiB.
    std::size_t maxResponseBodySize = 1024 * 1024;
    /// Where cookies come from and go to; the shared storage when null.
    std::shared_ptr<HTTPCookieStorage> cookieStorage{};
  };

  /// A client with the default Options; starts the I/O thread. Throws std::invalid_argument when
  /// the system's trust store cannot be loaded.
  BeastHTTPClient();
  /// Throws std::invalid_argument when a certificate authority of `options` cannot be read or a
  /// pin is not the base64 text of 32 bytes. Starts the I/O thread.
  explicit BeastHTTPClient(Options options);
  /// Drops the exchanges under way without completing them; see the class for the threads.
  ~BeastHTTPClient() override;

  BeastHTTPClient(const BeastHTTPClient&) = delete;
  BeastHTTPClient& operator=(const BeastHTTPClient&) = delete;

  /// Completion on the I/O thread, also for a request refused at once (invalidRequest). Errors:
  /// every Kind of HTTPClientError. Disposing the result closes the exchange's connection (on
  /// the I/O thread) and drops the completion.
  rx::Disposable send(HTTPRequest request, Completion completion) override;

 private:
  struct Runtime;

  std::shared_ptr<Runtime> runtime_;
  std::unique_ptr<detail::NetworkThread> thread_;
};

// ------------------------------------------------------------------------------------------------

/// A scripted HTTPClient for unit tests. Each request is recorded and handed to the responder,
/// which returns the outcome; the completion then runs at once, on the thread that called send().
/// A responder that returns nothing holds the request back until completePending().
class InMemoryHTTPClient final : public HTTPClient {
 public:
  /// What an exchange ends with: an error, or else the response.
  struct Outcome {
    std::exception_ptr error;  ///< The failure (an HTTPClientError, usually); null for a response.
    HTTPResponse response;     ///< The response, when `error` is null.

    /// A response of `statusCode` with `body` and `headerFields`.
    static Outcome respond(int statusCode, std::string body,
                           std::vector<HTTPHeaderField> headerFields = {});
    /// A failure with `error`.
    static Outcome fail(std::exception_ptr error);
  };
  /// Decides each request's outcome, or returns nothing to hold the request back until
  /// completePending(). Called on the thread of send(), without any lock held; an exception it
  /// throws propagates out of send().
  using Responder = std::function<std::optional<Outcome>(const HTTPRequest&)>;

  /// Answers 404 with an empty body until told otherwise.
  InMemoryHTTPClient();

  /// Answers the requests sent from now on with `responder`.
  void setResponder(Responder responder);
  /// Every request sent so far, in order (also the cancelled ones).
  std::vector<HTTPRequest> requests() const;
  /// Requests held back and not cancelled.
  std::size_t pendingCount() const;
  /// Completes the oldest held request; false when none is held.
  bool completePending(Outcome outcome);

  /// Completion on the calling thread of send() or completePending().
  rx::Disposable send(HTTPRequest request, Completion completion) override;

 private:
  struct Pending {
    std::shared_ptr<std::atomic<bool>> cancelled;
    Completion completion;
  };

  mutable std::mutex mutex_;  // guards the members below
  Responder responder_;
  std::vector<HTTPRequest> requests_;
  std::vector<Pending> pending_;
};

}  // namespace kel::platform
