#include "emulator/LogText.h"

#include <nlohmann/json.hpp>

#include "ServerClient/Common/SafeText.h"
#include "ServerClient/Socket/Model/AuthFrame.h"

namespace kel::emulator {

namespace {

// The client library's rule for which names hold secrets, so both sides of a session agree.
bool namesASecret(std::string_view name) {
  return isSecretName(name);
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
  return escapeControlCharacters(text);
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
    auto parsed = nlohmann::json::parse(frame.substr(1), nullptr, false);
    if (parsed.is_discarded()) {
      text = std::string(frame);
    } else {
      redactMembers(parsed);
      text = frame.substr(0, 1);
      text += parsed.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
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
