#pragma once

// The common error model. Every failure that reaches the application is an SDKError of one of
// three kinds: GenericError, ConnectionError or AuthError. Errors travel as std::exception_ptr in
// streams; throwing accessors throw these types.
//
// Server status and error codes map to ConnectionErrorType through ConnectionError::mapToOvError:
//
//   | code                         | ConnectionErrorType | description           |
//   |------------------------------|---------------------|-----------------------|
//   | 400                          | badRequest          | "Bad request"         |
//   | 401                          | unauthorized        | "Unauthorized"        |
//   | 403                          | forbidden           | "Forbidden"           |
//   | 404                          | notFound            | "Not found"           |
//   | 408                          | timeout             | "Request timeout"     |
//   | 409                          | conflict            | "Conflict"            |
//   | any other 400-499            | clientError         | "Client error"        |
//   | 500-599                      | serverError         | "Server error"        |
//   | anything else (server codes) | unknown             | "Server error code N" |
//
// The code is kept unchanged in ConnectionError::code(), so callers that know a server's own
// error codes can still tell them apart.

#include <exception>
#include <optional>
#include <string>
#include <string_view>

namespace kel {

/// Base of every error the library hands to the application. what() never shows a secret, and
/// shows outside texts cut to a readable length (SafeText.h); the accessors of the subclasses
/// keep the texts whole for the application.
///
/// Catch it (or test with errorAs) to handle every failure of the library in one place; branch
/// on the subclass and its type() for the cause, or on errorKind() for a short stable name.
class SDKError : public std::exception {
 public:
  /// E.g. `ConnectionError.timeout (code -1)`, `AuthError("Wrong credentials"): HTTP 401: ...`,
  /// `GenericError.notAllowed("presence")`; safe to log and show.
  const char* what() const noexcept override { return what_.c_str(); }

 protected:
  /// `what` must already be safe to show (the subclasses pass their texts through displayText).
  explicit SDKError(std::string what) : what_(std::move(what)) {}

 private:
  std::string what_;
};

/// What went wrong in a GenericError. The first five kinds carry a payload, the rest do not.
class GenericErrorType {
 public:
  /// The cases.
  enum class Kind {
    invalidURL,  ///< payload: the text that did not parse as a URL, or the URL refused
    encoding,    ///< payload: the request or record that could not be written as JSON, or empty
    decoding,    ///< payload: the offending JSON or record as text (empty when not UTF-8)
    notAllowed,  ///< payload: the capability label the user lacks, or why it is refused
    underlying,  ///< payload: an optional underlying error (transport, platform, any other)
    unknown,     ///< not raised by the library itself
    invalidResponse,  ///< the server's answer was empty where data was due
    cancelled,        ///< not raised by the library itself
  };

  /// `text` did not parse as a URL, or is a URL the library refuses to use.
  static GenericErrorType invalidURL(std::string text) {
    return {Kind::invalidURL, std::move(text)};
  }
  /// A value could not be written as JSON; `text` shows it, or is empty.
  static GenericErrorType encoding(std::string text) { return {Kind::encoding, std::move(text)}; }
  /// The data `text` did not decode as the record expected.
  static GenericErrorType decoding(std::string text) { return {Kind::decoding, std::move(text)}; }
  /// The operation is refused: `label` is the missing capability, or the reason.
  static GenericErrorType notAllowed(std::string label) {
    return {Kind::notAllowed, std::move(label)};
  }
  /// Another failure, kept as `error` (null when there is none to keep).
  static GenericErrorType underlying(std::exception_ptr error = nullptr) {
    GenericErrorType t{Kind::underlying, {}};
    t.underlying_ = std::move(error);
    return t;
  }
  /// An unknown failure.
  static GenericErrorType unknown() { return {Kind::unknown, {}}; }
  /// An empty or unusable answer.
  static GenericErrorType invalidResponse() { return {Kind::invalidResponse, {}}; }
  /// An operation that was called off.
  static GenericErrorType cancelled() { return {Kind::cancelled, {}}; }

  /// Which case this is.
  Kind kind() const noexcept { return kind_; }
  /// The payload text of invalidURL, encoding, decoding and notAllowed; empty otherwise.
  const std::string& text() const noexcept { return text_; }
  /// The payload of underlying; null for every other kind and for underlying without an error.
  const std::exception_ptr& underlyingError() const noexcept { return underlying_; }
  /// The case's name, e.g. "decoding".
  std::string_view rawValue() const noexcept;

  /// Same kind and payload text; underlying errors compare by identity.
  bool operator==(const GenericErrorType& other) const noexcept;

 private:
  GenericErrorType(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {}

  Kind kind_;
  std::string text_;
  std::exception_ptr underlying_;
};

/// A failure that is neither the connection's nor the sign-in's: a URL, encoding or decoding
/// problem, a refused operation (notAllowed), or another error kept as `underlying` (a transport
/// failure of the sign-in, a certificate pin mismatch, anything not of the library's model that
/// toSDKError converted).
class GenericError : public SDKError {
 public:
  /// `description` adds detail for people (a decoder's complaint, the name of a missing service).
  explicit GenericError(GenericErrorType type, std::string description = {});

  /// The case and its payload.
  const GenericErrorType& type() const noexcept { return type_; }
  /// The detail given at construction, whole; may be empty.
  const std::string& description() const noexcept { return description_; }

 private:
  GenericErrorType type_;
  std::string description_;
};

/// What went wrong in a ConnectionError (see the table at the top of this header).
enum class ConnectionErrorType {
  noSocketClient,  ///< no socket client, or the socket is not authenticated (code -1)
  timeout,         ///< a request, connection or authentication timed out (code -1), or HTTP 408
  unauthorized,    ///< 401
  notFound,        ///< 404
  badRequest,      ///< 400
  forbidden,       ///< 403
  conflict,        ///< 409
  clientError,     ///< any other 4xx
  serverError,     ///< 5xx
  unknown,         ///< any other code the server reports
};

/// The case's name, e.g. "notFound".
std::string_view rawValue(ConnectionErrorType type) noexcept;
/// The case whose name is `raw`, if any.
std::optional<ConnectionErrorType> connectionErrorTypeFrom(std::string_view raw) noexcept;

/// A request that failed on the connection: no usable socket, a time-out, or the server's error
/// answer (its status or error code mapped by mapToOvError).
class ConnectionError : public SDKError {
 public:
  /// `code` is the server's status or error code, or -1 for the library's own failures.
  ConnectionError(ConnectionErrorType type, int code, std::string description = {});

  /// Maps a server error code or HTTP status (see the table at the top of this header).
  static ConnectionError mapToOvError(int code);

  /// The case.
  ConnectionErrorType type() const noexcept { return type_; }
  /// The server's status or error code, unchanged; -1 for the library's own failures.
  int code() const noexcept { return code_; }
  /// The detail, whole; may be empty.
  const std::string& description() const noexcept { return description_; }

 private:
  ConnectionErrorType type_;
  int code_;
  std::string description_;
};

/// The authentication error family. Each case has the raw text the server uses for it.
enum class AuthErrorType {
  wrongCredentials,  ///< "Wrong credentials"
  invalidToken,      ///< "Invalid token"
  sessionExpired,    ///< "Session expired"
  unknown,           ///< "Unknown"
};

/// The raw text of the case, e.g. "Wrong credentials".
std::string_view rawValue(AuthErrorType type) noexcept;
/// The case whose raw text is `raw` (exact, case-sensitive), if any.
std::optional<AuthErrorType> authErrorTypeFrom(std::string_view raw) noexcept;

/// A refused sign-in or restore: the server does not accept the token (wrongCredentials for
/// HTTP 401 and 403, or an error document naming one of the cases).
class AuthError : public SDKError {
 public:
  /// `description` is the server's message, or the refused answer's text with its secrets masked.
  explicit AuthError(AuthErrorType type, std::string description = {});

  /// The case.
  AuthErrorType type() const noexcept { return type_; }
  /// The detail, whole; may be empty.
  const std::string& description() const noexcept { return description_; }

 private:
  AuthErrorType type_;
  std::string description_;
};

/// Converts any error into an SDKError: an SDKError is returned unchanged; anything else becomes
/// GenericError(underlying(error)) whose description is the error's text. Null stays null.
std::exception_ptr toSDKError(std::exception_ptr error);

/// Wraps an error as an SDKError of the given family, for calls whose failures belong to it
/// (the sign-in calls use AuthErrorType). For AuthErrorType:
///  1. an AuthError is returned unchanged;
///  2. a GenericError of kind decoding whose payload is a server error document, a JSON object
///     whose "type" member is the raw text of a known AuthErrorType (for instance
///     {"type": "Wrong credentials", "message": "..."}), becomes that AuthError; its description
///     is the document's "message" text, prefixed with `resource` and ": " when `resource` is
///     not empty;
///  3. anything else is converted with toSDKError.
template <class Family>
std::exception_ptr adaptSDKError(std::exception_ptr error, std::string_view resource);

/// The AuthErrorType family (see the general template).
template <>
std::exception_ptr adaptSDKError<AuthErrorType>(std::exception_ptr error,
                                                std::string_view resource);

/// The error held by `error` if it is (or derives from) E, else null. The pointer stays valid
/// as long as `error` does.
template <class E>
const E* errorAs(const std::exception_ptr& error) noexcept {
  if (!error) return nullptr;
  try {
    std::rethrow_exception(error);
  } catch (const E& e) {
    return &e;
  } catch (...) {
    return nullptr;
  }
}

/// Refused: the pointer would dangle as soon as the temporary error is gone.
template <class E>
const E* errorAs(std::exception_ptr&& error) noexcept = delete;

/// A readable text of any error, for log lines and messages, without secrets (SafeText.h).
std::string describeError(const std::exception_ptr& error);

/// A short, stable name of the error's kind, for programs that branch on it or print it:
/// "auth/Wrong credentials", "connection/timeout", "generic/notAllowed"; "other" for an error
/// outside the SDK's model and "none" for no error.
std::string errorKind(const std::exception_ptr& error);

/// `error` as the std::exception_ptr that streams carry.
template <class E>
std::exception_ptr makeError(E error) {
  return std::make_exception_ptr(std::move(error));
}

}  // namespace kel
