#pragma once

/// @file
/// The cookies that the library's HTTP requests and WebSocket upgrades share: what the sign-in
/// answer sets is sent again when the socket opens.
///
/// This is the part of RFC 6265 that those two requests need, kept in memory for the process's
/// lifetime (nothing is written to disk):
/// - Set-Cookie values are parsed leniently as in section 5.2: the Expires, Max-Age, Domain, Path,
///   Secure and HttpOnly attributes are understood, others (SameSite, Priority, ...) are ignored.
///   Max-Age wins over Expires; a cookie that is already expired deletes the stored cookie of the
///   same name, domain and path and is not stored.
/// - Without a Domain attribute a cookie is host-only: sent to exactly the host that set it. With
///   one, the request's host must domain-match it, and the cookie is also sent to subdomains. No
///   public-suffix list is consulted; instead a Domain without an inner dot ("com", "localhost")
///   is accepted only when it equals the request's host, and then the cookie is host-only.
///   IP-address hosts only ever match themselves.
/// - Schemes: http, https, ws and wss take part; cookies do not depend on the scheme except for
///   Secure. https and wss count as secure, http and ws do not, so a Secure cookie set by an https
///   sign-in is sent with the wss upgrade to the same host, and never over ws or http. A Secure
///   cookie is stored whatever the scheme that set it (as RFC 6265 allows).
/// - HttpOnly only hides a cookie from scripts; both the HTTP requests and the WebSocket upgrade
///   are HTTP, so HttpOnly cookies are sent with both.
/// - At most kMaxCookies are kept: beyond that, expired cookies go first, then the oldest.
///
/// All members are thread-safe.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/url/url_view.hpp>

#include "ServerClient/platform/UpgradeRequest.h"

namespace kel::platform {

/// One stored cookie (RFC 6265, section 5.3).
struct HTTPCookie {
  std::string name;   ///< As set, without surrounding blanks.
  std::string value;  ///< As set, without surrounding blanks (quotes are kept).
  /// Lower-case host name, domain or IP address, without a leading dot.
  std::string domain;
  /// The Path attribute, or the directory of the setting request's path.
  std::string path;
  /// Sent only to exactly `domain`, not to its subdomains.
  bool hostOnly = true;
  /// Sent only over https and wss.
  bool secure = false;
  /// Set with HttpOnly; changes nothing here (see HTTPCookieStorage.h).
  bool httpOnly = false;
  /// When the cookie expires; none for a session cookie, which lives as long as the storage.
  std::optional<std::chrono::system_clock::time_point> expiresAt;
  /// When it was first stored; kept when a later Set-Cookie replaces it.
  std::chrono::system_clock::time_point createdAt;

  /// Every member equal.
  bool operator==(const HTTPCookie&) const = default;
};

/// The cookie jar of the library's HTTP requests and WebSocket upgrades, in memory; see
/// HTTPCookieStorage.h for the rules. All members are thread-safe and return at once (no I/O).
/// The library's clients use shared() unless their Options name another storage.
class HTTPCookieStorage {
 public:
  /// Where the storage reads the time, for expiry.
  using Clock = std::function<std::chrono::system_clock::time_point()>;

  /// The most cookies kept at once.
  static constexpr std::size_t kMaxCookies = 3000;

  /// An empty storage on the system clock.
  HTTPCookieStorage();
  /// An empty storage that reads the time from `clock` (for tests).
  explicit HTTPCookieStorage(Clock clock);

  HTTPCookieStorage(const HTTPCookieStorage&) = delete;
  HTTPCookieStorage& operator=(const HTTPCookieStorage&) = delete;

  /// The process-wide storage that the library's HTTP client and WebSocket use by default.
  static std::shared_ptr<HTTPCookieStorage> shared();

  /// Stores the cookie of one Set-Cookie header field value received in the answer to a request
  /// for `url`. False when the value was ignored (malformed, a Domain that `url` may not set, a
  /// URL without host or of another scheme) or only deleted a cookie because it had expired.
  bool setCookie(std::string_view setCookieValue, boost::urls::url_view url);
  /// setCookie for each value, in order.
  void setCookies(const std::vector<std::string>& setCookieValues, boost::urls::url_view url);

  /// The unexpired cookies to send with a request for `url`, longest path first and, for equal
  /// paths, oldest first (the order of the Cookie header, RFC 6265 section 5.4).
  std::vector<HTTPCookie> cookies(boost::urls::url_view url) const;
  /// Every stored cookie, expired ones included until they are next cleaned out.
  std::vector<HTTPCookie> allCookies() const;
  /// Removes the cookie with `cookie`'s name, domain and path.
  void deleteCookie(const HTTPCookie& cookie);
  /// Removes every cookie.
  void removeAllCookies();

  /// The request header fields that carry `cookies`: one "Cookie" field of "name=value" pairs
  /// joined by "; ", in the given order; none for no cookies.
  static std::vector<UpgradeRequest::HeaderField> requestHeaderFields(
      const std::vector<HTTPCookie>& cookies);

 private:
  Clock clock_;
  mutable std::mutex mutex_;         // guards cookies_
  std::vector<HTTPCookie> cookies_;  // in order of creation
};

/// A cookie date (the Expires attribute) read with the lenient algorithm of RFC 6265 section
/// 5.1.1, e.g. "Wed, 21 Oct 2015 07:28:00 GMT"; always UTC. None when it is not a valid date.
std::optional<std::chrono::system_clock::time_point> parseCookieDate(std::string_view text);

}  // namespace kel::platform
