#include "ServerClient/Auth/Model/AuthenticationData.h"

#include <charconv>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "ServerClient/Utils/Description.h"
#include "ServerClient/Utils/detail/JsonFields.h"

namespace kel {

using namespace std::chrono;

namespace {

// The farthest session instant from 1970 that is read, well within the clock's range.
constexpr std::int64_t kSessionDateLimitSeconds = 9'000'000'000;

/// Reads exactly `width` decimal digits at `pos`, advancing it.
std::optional<int> digits(std::string_view text, std::size_t& pos, std::size_t width) {
  if (pos + width > text.size()) return std::nullopt;
  int value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    const char c = text[pos + i];
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  pos += width;
  return value;
}

bool expect(std::string_view text, std::size_t& pos, char c) {
  if (pos >= text.size() || text[pos] != c) return false;
  ++pos;
  return true;
}

system_clock::time_point readSessionDate(const nlohmann::json& value) {
  if (const auto millis = detail::jsonInt64(value)) {
    // Keep clear of overflow when converting to the clock's nanoseconds (about +-292 years).
    constexpr std::int64_t kLimit = kSessionDateLimitSeconds * 1000;
    if (*millis < -kLimit || *millis > kLimit) throw std::invalid_argument("\"from\" out of range");
    return system_clock::time_point(duration_cast<system_clock::duration>(milliseconds(*millis)));
  }
  if (!value.is_string()) throw std::invalid_argument("\"from\" is not a date");
  const auto parsed = parseSessionDate(value.get_ref<const std::string&>());
  if (!parsed) throw std::invalid_argument("\"from\" is not an ISO 8601 date-time with a zone");
  return *parsed;
}

}  // namespace

std::string formatSessionDate(system_clock::time_point time) {
  return textForm(time);
}

std::optional<system_clock::time_point> parseSessionDate(std::string_view text) {
  std::size_t pos = 0;
  const auto y = digits(text, pos, 4);
  if (!y || !expect(text, pos, '-')) return std::nullopt;
  const auto mo = digits(text, pos, 2);
  if (!mo || !expect(text, pos, '-')) return std::nullopt;
  const auto d = digits(text, pos, 2);
  if (!d || !expect(text, pos, 'T')) return std::nullopt;
  const auto h = digits(text, pos, 2);
  if (!h || !expect(text, pos, ':')) return std::nullopt;
  const auto mi = digits(text, pos, 2);
  if (!mi || !expect(text, pos, ':')) return std::nullopt;
  const auto s = digits(text, pos, 2);
  if (!s) return std::nullopt;

  const year_month_day date{year{*y}, month{static_cast<unsigned>(*mo)},
                            day{static_cast<unsigned>(*d)}};
  if (!date.ok() || *h > 23 || *mi > 59 || *s > 59) return std::nullopt;

  nanoseconds fraction{0};
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    std::int64_t value = 0;
    std::size_t count = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      if (++count > 9) return std::nullopt;
      value = value * 10 + (text[pos] - '0');
      ++pos;
    }
    if (count == 0) return std::nullopt;
    for (std::size_t i = count; i < 9; ++i) value *= 10;
    fraction = nanoseconds(value);
  }

  minutes offset{0};
  if (pos < text.size() && text[pos] == 'Z') {
    ++pos;
  } else if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    const int sign = text[pos] == '+' ? 1 : -1;
    ++pos;
    const auto oh = digits(text, pos, 2);
    if (!oh || !expect(text, pos, ':')) return std::nullopt;
    const auto om = digits(text, pos, 2);
    if (!om || *oh > 23 || *om > 59) return std::nullopt;
    offset = minutes(sign * (*oh * 60 + *om));
  } else {
    return std::nullopt;
  }
  if (pos != text.size()) return std::nullopt;

  // In whole seconds first, which cannot overflow, so that a year the clock's nanoseconds cannot
  // hold (about +-292 years from 1970) is refused as the number form is.
  const auto instant = sys_days(date) + hours(*h) + minutes(*mi) + seconds(*s) - offset;
  if (abs(instant.time_since_epoch()) > seconds(kSessionDateLimitSeconds)) return std::nullopt;
  return time_point_cast<system_clock::duration>(instant) + fraction;
}

bool Permissions::recordingTypeGranted(std::string_view type) const {
  return recording.recordingType && *recording.recordingType == type;
}

void from_json(const nlohmann::json& json, Session& session) {
  using detail::readRequired;
  Session decoded;
  readRequired(json, "token", decoded.token);
  decoded.from = readSessionDate(detail::requiredMember(json, "from"));
  readRequired(json, "id", decoded.sessionID);
  readRequired(json, "registered", decoded.registered);
  readRequired(json, "to", decoded.to);
  session = std::move(decoded);
}

void from_json(const nlohmann::json& json, Credential& credential) {
  using detail::readRequired;
  Credential decoded;
  readRequired(json, "source", decoded.source);
  readRequired(json, "user", decoded.kelUser);
  readRequired(json, "lease", decoded.lease);
  readRequired(json, "type", decoded.type);
  readRequired(json, "id", decoded.credentialId);
  readRequired(json, "data", decoded.gatewayCredential);
  credential = std::move(decoded);
}

void from_json(const nlohmann::json& json, Recording& recording) {
  recording.recordingType = detail::readOptionalText(json, "recordingType");
  recording.recordingProfile = detail::readOptionalText(json, "recordingProfile");
}

void from_json(const nlohmann::json& json, Voicemail& voicemail) {
  voicemail.enabled = detail::readOptional<bool>(json, "enabled");
}

void from_json(const nlohmann::json& json, Permissions& permissions) {
  Permissions decoded;
  detail::readRequired(json, "recording", decoded.recording);
  detail::readRequired(json, "voicemail", decoded.voicemail);
  permissions = std::move(decoded);
}

void from_json(const nlohmann::json& json, AuthenticationData& data) {
  using detail::readRequired;
  AuthenticationData decoded;
  readRequired(json, "access_token", decoded.token);
  readRequired(json, "token_type", decoded.tokenType);
  readRequired(json, "session", decoded.session);
  readRequired(json, "credential", decoded.credential);
  readRequired(json, "capabilities", decoded.capabilities);
  readRequired(detail::requiredMember(json, "session"), "userObj", decoded.user);
  data = std::move(decoded);
}

}  // namespace kel
