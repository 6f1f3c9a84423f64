#include "ServerClient/platform/HTTPCookieStorage.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <utility>

#include "ServerClient/platform/detail/HttpText.h"

namespace kel::platform {

namespace {

using std::chrono::system_clock;
using TimePoint = system_clock::time_point;

using detail::asciiLower;
using detail::equalsIgnoringCase;

std::string lowered(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), asciiLower);
  return result;
}

bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

std::string_view trimmed(std::string_view text) noexcept {
  const auto isSpace = [](char c) { return c == ' ' || c == '\t'; };
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

// --- Cookie dates (RFC 6265, section 5.1.1) ---

bool isDateDelimiter(char c) noexcept {
  const auto u = static_cast<unsigned char>(c);
  return u == 0x09 || (u >= 0x20 && u <= 0x2F) || (u >= 0x3B && u <= 0x40) ||
         (u >= 0x5B && u <= 0x60) || (u >= 0x7B && u <= 0x7E);
}

// Reads 1 to `maxDigits` digits at the front of `token` (at least `minDigits`), which must be
// followed by the end or by a non-digit.
std::optional<int> leadingNumber(std::string_view& token, std::size_t minDigits,
                                 std::size_t maxDigits) {
  std::size_t count = 0;
  int value = 0;
  while (count < token.size() && isDigit(token[count])) {
    if (count == maxDigits) return std::nullopt;
    value = value * 10 + (token[count] - '0');
    ++count;
  }
  if (count < minDigits) return std::nullopt;
  token.remove_prefix(count);
  return value;
}

struct TimeOfDay {
  int hour, minute, second;
};

std::optional<TimeOfDay> parseTime(std::string_view token) {
  std::array<int, 3> fields{};
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const auto field = leadingNumber(token, 1, 2);
    if (!field) return std::nullopt;
    fields[i] = *field;
    if (i < 2) {
      if (token.empty() || token.front() != ':') return std::nullopt;
      token.remove_prefix(1);
    }
  }
  return TimeOfDay{fields[0], fields[1], fields[2]};
}

std::optional<unsigned> parseMonth(std::string_view token) {
  static constexpr std::array<std::string_view, 12> kMonths{
      "jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec"};
  if (token.size() < 3) return std::nullopt;
  for (unsigned i = 0; i < kMonths.size(); ++i) {
    if (equalsIgnoringCase(token.substr(0, 3), kMonths[i])) return i + 1;
  }
  return std::nullopt;
}

// --- Matching (RFC 6265, sections 5.1.3 and 5.1.4) ---

bool domainMatches(std::string_view host, std::string_view domain, bool hostIsAddress) {
  if (host == domain) return true;
  return !hostIsAddress && host.size() > domain.size() && host.ends_with(domain) &&
         host[host.size() - domain.size() - 1] == '.';
}

bool pathMatches(std::string_view requestPath, std::string_view cookiePath) {
  if (requestPath == cookiePath) return true;
  if (!requestPath.starts_with(cookiePath)) return false;
  return cookiePath.ends_with('/') || requestPath[cookiePath.size()] == '/';
}

// --- Requests ---

struct RequestTarget {
  std::string host;  // lower case; IPv6 without brackets
  bool hostIsAddress = false;
  std::string path;  // never empty
  bool secure = false;
};

std::optional<RequestTarget> targetOf(boost::urls::url_view url) {
  const auto scheme = lowered(url.scheme());
  const bool secure = scheme == "https" || scheme == "wss";
  if (!secure && scheme != "http" && scheme != "ws") return std::nullopt;
  if (!url.has_authority()) return std::nullopt;
  RequestTarget target;
  target.hostIsAddress = url.host_type() != boost::urls::host_type::name;
  target.host = lowered(url.host_address());
  if (target.host.empty()) return std::nullopt;
  target.path = url.encoded_path();
  if (target.path.empty() || target.path.front() != '/') target.path = "/";
  target.secure = secure;
  return target;
}

// The directory of the request's path (section 5.1.4).
std::string defaultPath(std::string_view requestPath) {
  const auto slash = requestPath.rfind('/');
  if (slash == std::string_view::npos || slash == 0) return "/";
  return std::string(requestPath.substr(0, slash));
}

TimePoint earliest() {
  return TimePoint::min();
}

TimePoint afterSeconds(TimePoint now, std::int64_t seconds) {
  const auto limit = std::chrono::duration_cast<std::chrono::seconds>(TimePoint::max() - now);
  if (seconds >= limit.count()) return TimePoint::max();
  return now + std::chrono::seconds(seconds);
}

struct ParsedCookie {
  std::string name;
  std::string value;
  std::optional<TimePoint> expires;
  std::optional<std::int64_t> maxAge;
  std::optional<std::string> domain;
  std::optional<std::string> path;
  bool secure = false;
  bool httpOnly = false;
};

std::optional<ParsedCookie> parseSetCookie(std::string_view text) {
  const auto semicolon = text.find(';');
  const auto pair = text.substr(0, semicolon);
  const auto equals = pair.find('=');
  if (equals == std::string_view::npos) return std::nullopt;
  ParsedCookie cookie;
  cookie.name = trimmed(pair.substr(0, equals));
  cookie.value = trimmed(pair.substr(equals + 1));
  if (cookie.name.empty()) return std::nullopt;
  // Control characters could end the header line that carries the cookie back.
  const auto isControl = [](char c) {
    const auto u = static_cast<unsigned char>(c);
    return (u < 0x20 && u != '\t') || u == 0x7F;
  };
  if (std::any_of(cookie.name.begin(), cookie.name.end(), isControl) ||
      std::any_of(cookie.value.begin(), cookie.value.end(), isControl)) {
    return std::nullopt;
  }

  auto rest = semicolon == std::string_view::npos ? std::string_view{} : text.substr(semicolon + 1);
  while (!rest.empty()) {
    const auto end = rest.find(';');
    const auto av = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
    const auto avEquals = av.find('=');
    const auto name = trimmed(av.substr(0, avEquals));
    const auto value =
        avEquals == std::string_view::npos ? std::string_view{} : trimmed(av.substr(avEquals + 1));
    if (equalsIgnoringCase(name, "expires")) {
      if (auto date = parseCookieDate(value)) cookie.expires = date;
    } else if (equalsIgnoringCase(name, "max-age")) {
      auto digits = value;
      const bool negative = !digits.empty() && digits.front() == '-';
      if (negative) digits.remove_prefix(1);
      if (digits.empty() || !std::all_of(digits.begin(), digits.end(), isDigit)) continue;
      std::int64_t seconds = 0;
      for (char c : digits) {
        if (seconds > (std::numeric_limits<std::int64_t>::max() - 9) / 10) break;  // saturate
        seconds = seconds * 10 + (c - '0');
      }
      cookie.maxAge = negative ? -seconds : seconds;
    } else if (equalsIgnoringCase(name, "domain")) {
      if (value.empty()) continue;
      auto domain = value.front() == '.' ? value.substr(1) : value;
      cookie.domain = lowered(domain);
    } else if (equalsIgnoringCase(name, "path")) {
      if (value.empty() || value.front() != '/') {
        cookie.path.reset();
      } else {
        cookie.path = std::string(value);
      }
    } else if (equalsIgnoringCase(name, "secure")) {
      cookie.secure = true;
    } else if (equalsIgnoringCase(name, "httponly")) {
      cookie.httpOnly = true;
    }
  }
  return cookie;
}

bool sameKey(const HTTPCookie& a, const HTTPCookie& b) noexcept {
  return a.name == b.name && a.domain == b.domain && a.path == b.path;
}

bool isExpired(const HTTPCookie& cookie, TimePoint now) noexcept {
  return cookie.expiresAt && *cookie.expiresAt <= now;
}

}  // namespace

std::optional<std::chrono::system_clock::time_point> parseCookieDate(std::string_view text) {
  std::optional<TimeOfDay> time;
  std::optional<int> dayOfMonth;
  std::optional<unsigned> month;
  std::optional<int> year;

  std::size_t position = 0;
  while (position < text.size()) {
    while (position < text.size() && isDateDelimiter(text[position])) ++position;
    const auto start = position;
    while (position < text.size() && !isDateDelimiter(text[position])) ++position;
    const auto token = text.substr(start, position - start);
    if (token.empty()) continue;

    if (!time) {
      if ((time = parseTime(token))) continue;
    }
    if (!dayOfMonth) {
      auto rest = token;
      if ((dayOfMonth = leadingNumber(rest, 1, 2))) continue;
    }
    if (!month) {
      if ((month = parseMonth(token))) continue;
    }
    if (!year) {
      auto rest = token;
      year = leadingNumber(rest, 2, 4);
    }
  }
  if (!time || !dayOfMonth || !month || !year) return std::nullopt;
  if (*year >= 70 && *year <= 99) *year += 1900;
  if (*year >= 0 && *year <= 69) *year += 2000;
  if (*dayOfMonth < 1 || *dayOfMonth > 31 || *year < 1601 || time->hour > 23 || time->minute > 59 ||
      time->second > 59) {
    return std::nullopt;
  }
  const std::chrono::year_month_day date{std::chrono::year{*year}, std::chrono::month{*month},
                                         std::chrono::day{static_cast<unsigned>(*dayOfMonth)}};
  if (!date.ok()) return std::nullopt;
  const std::chrono::sys_seconds instant =
      std::chrono::sys_days{date} + std::chrono::hours{time->hour} +
      std::chrono::minutes{time->minute} + std::chrono::seconds{time->second};
  // system_clock counts nanoseconds in 64 bits, from 1677 to 2262; dates outside are clamped.
  const auto latest = std::chrono::floor<std::chrono::seconds>(TimePoint::max());
  const auto first = std::chrono::ceil<std::chrono::seconds>(TimePoint::min());
  if (instant >= latest) return TimePoint::max();
  if (instant <= first) return TimePoint::min();
  return std::chrono::time_point_cast<TimePoint::duration>(instant);
}

HTTPCookieStorage::HTTPCookieStorage() : HTTPCookieStorage([] { return system_clock::now(); }) {}

HTTPCookieStorage::HTTPCookieStorage(Clock clock) : clock_(std::move(clock)) {}

std::shared_ptr<HTTPCookieStorage> HTTPCookieStorage::shared() {
  static const auto instance = std::make_shared<HTTPCookieStorage>();
  return instance;
}

bool HTTPCookieStorage::setCookie(std::string_view setCookieValue, boost::urls::url_view url) {
  const auto target = targetOf(url);
  if (!target) return false;
  auto parsed = parseSetCookie(setCookieValue);
  if (!parsed) return false;

  const auto now = clock_();
  HTTPCookie cookie;
  cookie.name = std::move(parsed->name);
  cookie.value = std::move(parsed->value);
  if (parsed->maxAge) {
    cookie.expiresAt = *parsed->maxAge <= 0 ? earliest() : afterSeconds(now, *parsed->maxAge);
  } else {
    cookie.expiresAt = parsed->expires;
  }
  if (parsed->domain) {
    const auto& domain = *parsed->domain;
    // Without a public-suffix list, a dotless domain is taken for a suffix that many sites
    // share: only the host of that very name may use it, and only for itself.
    if (domain.find('.') == std::string::npos) {
      if (domain != target->host) return false;
      cookie.domain = target->host;
      cookie.hostOnly = true;
    } else {
      if (!domainMatches(target->host, domain, target->hostIsAddress)) return false;
      cookie.domain = domain;
      cookie.hostOnly = false;
    }
  } else {
    cookie.domain = target->host;
    cookie.hostOnly = true;
  }
  cookie.path = parsed->path ? std::move(*parsed->path) : defaultPath(target->path);
  cookie.secure = parsed->secure;
  cookie.httpOnly = parsed->httpOnly;
  cookie.createdAt = now;

  std::lock_guard lock(mutex_);
  const auto old = std::find_if(cookies_.begin(), cookies_.end(),
                                [&](const HTTPCookie& stored) { return sameKey(stored, cookie); });
  if (isExpired(cookie, now)) {
    if (old != cookies_.end()) cookies_.erase(old);
    return false;
  }
  if (old != cookies_.end()) {
    cookie.createdAt = old->createdAt;
    *old = std::move(cookie);
    return true;
  }
  if (cookies_.size() >= kMaxCookies) {
    std::erase_if(cookies_, [now](const HTTPCookie& stored) { return isExpired(stored, now); });
    if (cookies_.size() >= kMaxCookies) cookies_.erase(cookies_.begin());  // the oldest
  }
  cookies_.push_back(std::move(cookie));
  return true;
}

void HTTPCookieStorage::setCookies(const std::vector<std::string>& setCookieValues,
                                   boost::urls::url_view url) {
  for (const auto& value : setCookieValues) setCookie(value, url);
}

std::vector<HTTPCookie> HTTPCookieStorage::cookies(boost::urls::url_view url) const {
  const auto target = targetOf(url);
  if (!target) return {};
  const auto now = clock_();
  std::vector<HTTPCookie> result;
  {
    std::lock_guard lock(mutex_);
    for (const auto& cookie : cookies_) {
      if (isExpired(cookie, now)) continue;
      const bool hostMatches =
          cookie.hostOnly ? cookie.domain == target->host
                          : domainMatches(target->host, cookie.domain, target->hostIsAddress);
      if (!hostMatches || !pathMatches(target->path, cookie.path)) continue;
      if (cookie.secure && !target->secure) continue;
      result.push_back(cookie);
    }
  }
  // Stored in order of creation, so a stable sort keeps older cookies first among equal paths.
  std::stable_sort(result.begin(), result.end(), [](const HTTPCookie& a, const HTTPCookie& b) {
    return a.path.size() > b.path.size();
  });
  return result;
}

std::vector<HTTPCookie> HTTPCookieStorage::allCookies() const {
  std::lock_guard lock(mutex_);
  return cookies_;
}

void HTTPCookieStorage::deleteCookie(const HTTPCookie& cookie) {
  std::lock_guard lock(mutex_);
  std::erase_if(cookies_, [&](const HTTPCookie& stored) { return sameKey(stored, cookie); });
}

void HTTPCookieStorage::removeAllCookies() {
  std::lock_guard lock(mutex_);
  cookies_.clear();
}

std::vector<UpgradeRequest::HeaderField> HTTPCookieStorage::requestHeaderFields(
    const std::vector<HTTPCookie>& cookies) {
  if (cookies.empty()) return {};
  std::string value;
  for (const auto& cookie : cookies) {
    if (!value.empty()) value += "; ";
    value += cookie.name;
    value += '=';
    value += cookie.value;
  }
  return {{"Cookie", std::move(value)}};
}

}  // namespace kel::platform
