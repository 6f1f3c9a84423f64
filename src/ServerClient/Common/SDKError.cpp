#include "ServerClient/Common/SDKError.h"

#include <array>
#include <utility>

#include "ServerClient/Common/Json.h"
#include "ServerClient/Common/RawValues.h"
#include "ServerClient/Common/SafeText.h"

namespace kel {

namespace {

constexpr std::array<std::string_view, 8> kGenericKindNames{
    "invalidURL", "encoding", "decoding",        "notAllowed",
    "underlying", "unknown",  "invalidResponse", "cancelled"};

constexpr RawValues<ConnectionErrorType, 10> kConnectionTypeNames{
    {"noSocketClient", "timeout", "unauthorized", "notFound", "badRequest", "forbidden", "conflict",
     "clientError", "serverError", "unknown"}};

constexpr RawValues<AuthErrorType, 4> kAuthTypeNames{
    {"Wrong credentials", "Invalid token", "Session expired", "Unknown"}};

std::string genericWhat(const GenericErrorType& type, const std::string& description) {
  std::string what = "GenericError.";
  what += type.rawValue();
  // The payload may be a whole server answer: the text keeps it for the application, the
  // message shows it without secrets and cut to a readable length.
  if (!type.text().empty()) {
    what += "(\"" + displayText(type.text()) + "\")";
  } else if (type.underlyingError()) {
    what += "(" + describeError(type.underlyingError()) + ")";
  }
  if (!description.empty()) what += ": " + displayText(description);
  return what;
}

}  // namespace

std::string_view GenericErrorType::rawValue() const noexcept {
  return kGenericKindNames[static_cast<std::size_t>(kind_)];
}

bool GenericErrorType::operator==(const GenericErrorType& other) const noexcept {
  return kind_ == other.kind_ && text_ == other.text_ && underlying_ == other.underlying_;
}

GenericError::GenericError(GenericErrorType type, std::string description)
    : SDKError(genericWhat(type, description)),
      type_(std::move(type)),
      description_(std::move(description)) {}

std::string_view rawValue(ConnectionErrorType type) noexcept {
  return kConnectionTypeNames.text(type);
}

std::optional<ConnectionErrorType> connectionErrorTypeFrom(std::string_view raw) noexcept {
  return kConnectionTypeNames.find(raw);
}

ConnectionError::ConnectionError(ConnectionErrorType type, int code, std::string description)
    : SDKError("ConnectionError." + std::string(rawValue(type)) + " (code " + std::to_string(code) +
               ")" + (description.empty() ? "" : ": " + displayText(description))),
      type_(type),
      code_(code),
      description_(std::move(description)) {}

ConnectionError ConnectionError::mapToOvError(int code) {
  using T = ConnectionErrorType;
  switch (code) {
    case 400:
      return {T::badRequest, code, "Bad request"};
    case 401:
      return {T::unauthorized, code, "Unauthorized"};
    case 403:
      return {T::forbidden, code, "Forbidden"};
    case 404:
      return {T::notFound, code, "Not found"};
    case 408:
      return {T::timeout, code, "Request timeout"};
    case 409:
      return {T::conflict, code, "Conflict"};
    default:
      break;
  }
  if (code >= 400 && code <= 499) return {T::clientError, code, "Client error"};
  if (code >= 500 && code <= 599) return {T::serverError, code, "Server error"};
  return {T::unknown, code, "Server error code " + std::to_string(code)};
}

std::string_view rawValue(AuthErrorType type) noexcept {
  return kAuthTypeNames.text(type);
}

std::optional<AuthErrorType> authErrorTypeFrom(std::string_view raw) noexcept {
  return kAuthTypeNames.find(raw);
}

AuthError::AuthError(AuthErrorType type, std::string description)
    : SDKError("AuthError(\"" + std::string(rawValue(type)) + "\")" +
               (description.empty() ? "" : ": " + displayText(description))),
      type_(type),
      description_(std::move(description)) {}

std::exception_ptr toSDKError(std::exception_ptr error) {
  if (!error || errorAs<SDKError>(error)) return error;
  std::string description = describeError(error);
  return makeError(
      GenericError(GenericErrorType::underlying(std::move(error)), std::move(description)));
}

template <>
std::exception_ptr adaptSDKError<AuthErrorType>(std::exception_ptr error,
                                                std::string_view resource) {
  if (!error || errorAs<AuthError>(error)) return error;
  if (const auto* generic = errorAs<GenericError>(error);
      generic && generic->type().kind() == GenericErrorType::Kind::decoding) {
    auto document = parseJson(generic->type().text());
    if (document && document->is_object()) {
      auto type = document->find("type");
      if (type != document->end() && type->is_string()) {
        if (auto authType = authErrorTypeFrom(type->get_ref<const std::string&>())) {
          std::string description;
          if (auto message = document->find("message");
              message != document->end() && message->is_string()) {
            description = message->get<std::string>();
          }
          if (!resource.empty()) description = std::string(resource) + ": " + description;
          return makeError(AuthError(*authType, std::move(description)));
        }
      }
    }
  }
  return toSDKError(std::move(error));
}

std::string errorKind(const std::exception_ptr& error) {
  if (const auto* auth = errorAs<AuthError>(error)) {
    return "auth/" + std::string(rawValue(auth->type()));
  }
  if (const auto* connection = errorAs<ConnectionError>(error)) {
    return "connection/" + std::string(rawValue(connection->type()));
  }
  if (const auto* generic = errorAs<GenericError>(error)) {
    return "generic/" + std::string(generic->type().rawValue());
  }
  return error ? "other" : "none";
}

std::string describeError(const std::exception_ptr& error) {
  if (!error) return "no error";
  try {
    std::rethrow_exception(error);
  } catch (const SDKError& e) {
    return e.what();  // made safe when the error was made
  } catch (const std::exception& e) {
    return displayText(e.what());
  } catch (...) {
    return "unknown error";
  }
}

}  // namespace kel
