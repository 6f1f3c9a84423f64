#include "ServerClient/Socket/Model/Request.h"

#include <cmath>
#include <vector>

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

// Text that JSON writes as it is: printable ASCII other than the quote and the backslash.
bool needsNoEscaping(const std::string& text) {
  for (unsigned char c : text) {
    if (c < 0x20 || c > 0x7e || c == '"' || c == '\\') return false;
  }
  return true;
}

class FrameWriter {
 public:
  explicit FrameWriter(std::string& out)
      : out_(out),
        serializer_(nlohmann::detail::output_adapter<char, std::string>(out), ' ',
                    nlohmann::json::error_handler_t::strict) {}

  // Throws nlohmann's type_error on invalid UTF-8.
  void value(const nlohmann::json& value, unsigned currentIndent) {
    serializer_.dump(value, true, false, kIndent, currentIndent);
  }
  void text(const std::string& text) {
    if (!needsNoEscaping(text)) return value(nlohmann::json(text), kIndent);
    out_ += '"';
    out_ += text;
    out_ += '"';
  }

  static constexpr unsigned kIndent = 2;

 private:
  std::string& out_;
  nlohmann::detail::serializer<nlohmann::json> serializer_;
};

}  // namespace

std::int64_t makeRequestID() {
  return static_cast<std::int64_t>(
      secureRandomBelow(static_cast<std::uint64_t>(kMaxRequestID) + 1));
}

namespace detail {

// The same text as "2" followed by the whole wire object dumped with an indent of two (members
// in key order: body, id, method, path), without building that object: the body is serialised
// where it is, one level in.
std::optional<std::string> requestFrame(std::int64_t id, const std::string& path,
                                        const std::string& method,
                                        const nlohmann::json* body) noexcept {
  try {
    if (body && !isPlainJson(*body)) return std::nullopt;
    std::string frame;
    frame.reserve(256);
    FrameWriter writer(frame);
    frame += "2{\n  \"body\": ";
    if (body) {
      writer.value(*body, FrameWriter::kIndent);
    } else {
      frame += "{}";
    }
    frame += ",\n  \"id\": ";
    frame += std::to_string(id);
    frame += ",\n  \"method\": ";
    writer.text(method);
    frame += ",\n  \"path\": ";
    writer.text(path);
    frame += "\n}";
    return frame;
  } catch (...) {
    return std::nullopt;
  }
}

}  // namespace detail

}  // namespace kel
