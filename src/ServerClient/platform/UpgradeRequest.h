#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kel::platform {

/// The HTTP request that opens a WebSocket connection (the "upgrade"), as far as the library
/// shapes it: extra header fields, such as "Cookie", and whether the platform's cookie storage
/// takes part. The socket's URL and sub-protocols are fixed when the socket is made.
///
/// A plain value: a Socket hands out and takes copies (Socket::request(), Socket::setRequest()).
/// Like any value, one object is not for concurrent writes.
class UpgradeRequest {
 public:
  /// A field's name and value.
  using HeaderField = std::pair<std::string, std::string>;

  /// Sets a header field, replacing any field of that name (names compare case-insensitively).
  /// Throws std::invalid_argument when `name` is not an HTTP token or `value` holds a CR, LF or
  /// NUL character, which could smuggle extra header lines into the request.
  void setHeaderField(std::string_view name, std::string value);
  /// Removes the field of that name; false when there was none.
  bool removeHeaderField(std::string_view name);
  /// The value of the field of that name, if set.
  std::optional<std::string> headerField(std::string_view name) const;
  /// All fields, in the order they were first set.
  const std::vector<HeaderField>& headerFields() const noexcept { return fields_; }

  /// When true (the default), the socket adds the cookies that the platform's cookie storage
  /// holds for its URL to the upgrade, and stores the cookies the server sets in its answer. A
  /// "Cookie" field set here is sent as well.
  bool shouldHandleCookies() const noexcept { return shouldHandleCookies_; }
  /// See shouldHandleCookies().
  void setShouldHandleCookies(bool handle) noexcept { shouldHandleCookies_ = handle; }

  /// Same fields in the same order, and the same cookie handling.
  bool operator==(const UpgradeRequest&) const = default;

 private:
  std::vector<HeaderField> fields_;
  bool shouldHandleCookies_ = true;
};

}  // namespace kel::platform
