#include "emulator/LogText.h"

#include <cctype>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "ServerClient/Socket/Model/AuthFrame.h"

namespace kel::emulator {

namespace {

bool namesASecret(std::string_view name) {
  std::string lower(name);
  for (auto& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (std::string_view word : {"token", "password", "secret", "cookie", "authorization"}) {
    if (lower.find(word) != std::string::npos) return true;
  }
  return false;
}

void redactMembers(nlohmann::json& value) {
  if (value.is_object()) {
    for (auto& [key, member] : value.items()) {
      if (namesASecret(key) && member.is_string()) {
        member = redactSecret(member.get<std::string>());
      } else {
        redactMembers(member);
      }
    }
  } else if (value.is_array()) {
    for (auto& element : value) redactMembers(element);
  }
}

}  // namespace

std::string escapeForLog(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == '\n') {
      escaped += "\\n";
    } else if (byte < 0x20 || byte == 0x7f) {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", byte);
      escaped += hex;
    } else {
      escaped += c;
    }
  }
  return escaped;
}

std::string redactSecret(std::string_view secret) {
  constexpr std::size_t kShown = 4;
  // A short secret would be given away by its first characters.
  const auto shown = secret.size() >= 4 * kShown ? secret.substr(0, kShown) : std::string_view();
  return std::string(shown) + "...(" + std::to_string(secret.size()) + " chars)";
}

std::string frameForLog(std::string_view frame, std::size_t maxChars) {
  std::string text;
  if (frame.starts_with(kAuthFramePrefix)) {
    text = std::string(kAuthFramePrefix) + redactSecret(frame.substr(kAuthFramePrefix.size()));
  } else if (frame.size() > 1 && (frame[1] == '{' || frame[1] == '[')) {
    auto json = nlohmann::json::parse(frame.substr(1), nullptr, false);
    if (json.is_discarded()) {
      text = std::string(frame);
    } else {
      redactMembers(json);
      text = frame.substr(0, 1);
      text += json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
  } else {
    text = std::string(frame);
  }
  if (text.size() > maxChars) {
    text.resize(maxChars);
    text += "... (" + std::to_string(frame.size()) + " bytes)";
  }
  return text;
}

std::string targetForLog(std::string_view target) {
  const auto question = target.find('?');
  if (question == std::string_view::npos) return std::string(target);
  std::string text(target.substr(0, question + 1));
  auto query = target.substr(question + 1);
  for (;;) {
    const auto amp = query.find('&');
    const auto pair = query.substr(0, amp);
    const auto equals = pair.find('=');
    if (equals != std::string_view::npos && namesASecret(pair.substr(0, equals))) {
      text += pair.substr(0, equals + 1);
      text += redactSecret(pair.substr(equals + 1));
    } else {
      text += pair;
    }
    if (amp == std::string_view::npos) break;
    text += '&';
    query.remove_prefix(amp + 1);
  }
  return text;
}

}  // namespace kel::emulator
