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
class SDKError : public std::exception {
 public:
  const char* what() const noexcept override { return what_.c_str(); }

 protected:
  explicit SDKError(std::string what) : what_(std::move(what)) {}

 private:
  std::string what_;
};

/// What went wrong in a GenericError. The first five kinds carry a payload, the rest do not.
class GenericErrorType {
 public:
  enum class Kind {
    invalidURL,  ///< payload: the text that did not parse as a URL
    encoding,    ///< payload: text
    decoding,    ///< payload: the offending JSON or record as text
    notAllowed,  ///< payload: the capability label the user lacks
    underlying,  ///< payload: an optional underlying error
    unknown,
    invalidResponse,
    cancelled,
  };

  static GenericErrorType invalidURL(std::string text) {
    return {Kind::invalidURL, std::move(text)};
  }
  static GenericErrorType encoding(std::string text) { return {Kind::encoding, std::move(text)}; }
  static GenericErrorType decoding(std::string text) { return {Kind::decoding, std::move(text)}; }
  static GenericErrorType notAllowed(std::string label) {
    return {Kind::notAllowed, std::move(label)};
  }
  static GenericErrorType underlying(std::exception_ptr error = nullptr) {
    GenericErrorType t{Kind::underlying, {}};
    t.underlying_ = std::move(error);
    return t;
  }
  static GenericErrorType unknown() { return {Kind::unknown, {}}; }
  static GenericErrorType invalidResponse() { return {Kind::invalidResponse, {}}; }
  static GenericErrorType cancelled() { return {Kind::cancelled, {}}; }

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

class GenericError : public SDKError {
 public:
  explicit GenericError(GenericErrorType type, std::string description = {});

  const GenericErrorType& type() const noexcept { return type_; }
  const std::string& description() const noexcept { return description_; }

 private:
  GenericErrorType type_;
  std::string description_;
};

enum class ConnectionErrorType {
  noSocketClient,  ///< no socket client, or the socket is not authenticated (code -1)
  timeout,         ///< a request, connection or authentication timed out (code -1), or HTTP 408
  unauthorized,
  notFound,
  badRequest,
  forbidden,
  conflict,
  clientError,
  serverError,
  unknown,
};

/// The case's name, e.g. "notFound".
std::string_view rawValue(ConnectionErrorType type) noexcept;
/// The case whose name is `raw`, if any.
std::optional<ConnectionErrorType> connectionErrorTypeFrom(std::string_view raw) noexcept;

class ConnectionError : public SDKError {
 public:
  ConnectionError(ConnectionErrorType type, int code, std::string description = {});

  /// Maps a server error code or HTTP status (see the table at the top of this header).
  static ConnectionError mapToOvError(int code);

  ConnectionErrorType type() const noexcept { return type_; }
  int code() const noexcept { return code_; }
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

std::string_view rawValue(AuthErrorType type) noexcept;
/// The case whose raw text is `raw` (exact, case-sensitive), if any.
std::optional<AuthErrorType> authErrorTypeFrom(std::string_view raw) noexcept;

class AuthError : public SDKError {
 public:
  explicit AuthError(AuthErrorType type, std::string description = {});

  AuthErrorType type() const noexcept { return type_; }
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

template <class E>
std::exception_ptr makeError(E error) {
  return std::make_exception_ptr(std::move(error));
}

}  // namespace kel
