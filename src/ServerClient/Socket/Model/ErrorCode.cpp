#include "ServerClient/Socket/Model/ErrorCode.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "ServerClient/Socket/Model/detail/JsonInteger.h"

namespace kel {

namespace {

constexpr std::int64_t kFirstFailingStatus = 400;
constexpr std::int64_t kLastFailingStatus = 500;

const nlohmann::json* member(const nlohmann::json& object, const char* key) noexcept {
  const auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

}  // namespace

std::optional<int> errorCode(const nlohmann::json& response) noexcept {
  if (!response.is_object()) return std::nullopt;
  if (const auto* error = member(response, "error")) {
    if (error->is_number_unsigned()) {
      const auto value = error->get<nlohmann::json::number_unsigned_t>();
      return static_cast<int>(std::min<std::uint64_t>(
          value, static_cast<std::uint64_t>(std::numeric_limits<int>::max())));
    }
    if (error->is_number_integer()) {
      const auto value = error->get<nlohmann::json::number_integer_t>();
      return static_cast<int>(std::clamp<std::int64_t>(value, std::numeric_limits<int>::min(),
                                                       std::numeric_limits<int>::max()));
    }
  }
  if (const auto* status = member(response, "status")) {
    const auto value = detail::jsonInt64(*status);
    if (value && *value >= kFirstFailingStatus && *value <= kLastFailingStatus) {
      return static_cast<int>(*value);
    }
  }
  return std::nullopt;
}

}  // namespace kel
