#include "ServerClient/Socket/Events/KelEventHandler.h"

#include <algorithm>
#include <stdexcept>

#include "ServerClient/Common/Json.h"
#include "ServerClient/Common/SafeText.h"
#include "ServerClient/Log/ServerLog.h"

namespace kel {

namespace {

std::string textForm(const nlohmann::json& value) {
  return dumpJson(value).value_or("<JSON with invalid UTF-8>");
}

std::string upperCased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) {
    return static_cast<char>(c >= 'a' && c <= 'z' ? c - ('a' - 'A') : c);
  });
  return text;
}

}  // namespace

void KelEventHandler::handle(const nlohmann::json& event) {
  handleCatching(event, nullptr);
}

void KelEventHandler::handleShared(std::shared_ptr<const nlohmann::json> event) {
  handleCatching(*event, event);
}

void KelEventHandler::handleCatching(const nlohmann::json& event,
                                     const std::shared_ptr<const nlohmann::json>& owner) {
  try {
    publish(event, owner);
  } catch (const std::exception&) {
    KEL_LOG_ERROR("handle(event:)", "Could not decode json " + displayText(textForm(event)));
  }
}

void KelEventHandler::stopListeningForEvents() {
  eventChannel_.onCompleted();
}

void KelEventHandler::publish(const nlohmann::json& event,
                              const std::shared_ptr<const nlohmann::json>& owner) {
  const nlohmann::json* path = nullptr;
  const nlohmann::json* method = nullptr;
  const nlohmann::json* body = nullptr;
  if (event.is_object()) {
    auto find = [&event](const char* key) -> const nlohmann::json* {
      auto it = event.find(key);
      return it == event.end() ? nullptr : &*it;
    };
    path = find("path");
    method = find("method");
    body = find("body");
  }
  if (!path || !path->is_string() || !method || !method->is_string() || !body) {
    KEL_LOG_ERROR("publish(event:)", "Invalid event received: " + displayText(textForm(event)));
    return;
  }
  auto [domain, param] = domainAndParamFor(path->get_ref<const std::string&>());
  // Domain handlers decode records from a JSON document, so only objects and lists go through.
  if (!body->is_object() && !body->is_array()) {
    throw std::invalid_argument("event body is not a JSON object or list");
  }
  auto data = dumpJson(*body, 2);
  if (!data) throw std::invalid_argument("event body holds invalid UTF-8");
  eventChannel_.onNext(
      KelEvent{std::move(*data), domain, upperCased(method->get<std::string>()), std::move(param),
               owner ? std::shared_ptr<const nlohmann::json>(owner, body) : nullptr});
}

}  // namespace kel
