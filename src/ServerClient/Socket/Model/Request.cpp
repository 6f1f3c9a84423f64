#include "ServerClient/Socket/Model/Request.h"

#include <cmath>
#include <vector>

#include "ServerClient/Common/Json.h"
#include "ServerClient/Common/Random.h"

namespace kel {

namespace {

// nlohmann would write NaN and infinities as null, a binary value as an object and a discarded
// value as text that is not JSON at all; each is a body the caller did not mean to send. Walks
// with an explicit stack so that a deep body cannot exhaust the call stack here.
bool isPlainJson(const nlohmann::json& root) {
  std::vector<const nlohmann::json*> pending{&root};
  while (!pending.empty()) {
    const nlohmann::json& value = *pending.back();
    pending.pop_back();
    switch (value.type()) {
      case nlohmann::json::value_t::object:
      case nlohmann::json::value_t::array:
        for (const auto& child : value) pending.push_back(&child);
        break;
      case nlohmann::json::value_t::number_float:
        if (!std::isfinite(value.get<double>())) return false;
        break;
      case nlohmann::json::value_t::binary:
      case nlohmann::json::value_t::discarded:
        return false;
      default:
        break;
    }
  }
  return true;
}

constexpr int kFrameIndent = 2;

}  // namespace

std::int64_t makeRequestID() {
  return static_cast<std::int64_t>(
      secureRandomBelow(static_cast<std::uint64_t>(kMaxRequestID) + 1));
}

namespace detail {

std::optional<std::string> requestFrame(const nlohmann::json& wireObject) noexcept {
  try {
    if (!isPlainJson(wireObject)) return std::nullopt;
    auto text = dumpJson(wireObject, kFrameIndent);
    if (!text) return std::nullopt;
    text->insert(text->begin(), '2');
    return text;
  } catch (...) {
    return std::nullopt;
  }
}

}  // namespace detail

}  // namespace kel
