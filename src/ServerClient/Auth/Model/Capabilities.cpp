#include "ServerClient/Auth/Model/Capabilities.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "ServerClient/Utils/detail/JsonFields.h"

namespace kel {

namespace {

/// The entries of `user` that carry `sign`, with the sign cut off, in order.
std::vector<std::string> signedEntries(const std::vector<std::string>& user, char sign) {
  std::vector<std::string> out;
  for (const auto& entry : user) {
    if (!entry.empty() && entry.front() == sign) out.push_back(entry.substr(1));
  }
  return out;
}

}  // namespace

const std::vector<std::string>& Capabilities::defaults() {
  static const std::vector<std::string> list{"audio-call", "video-call",  "media-update",
                                             "multicall",  "conferences", "conference-hold"};
  return list;
}

Capabilities::Capabilities(std::vector<std::string> domainCapabilities,
                           std::vector<std::string> userCapabilities)
    : domain(std::move(domainCapabilities)), user(std::move(userCapabilities)) {}

const std::vector<std::string>& Capabilities::active() const {
  std::call_once(activeOnce_, [this] {
    const auto removed = signedEntries(user, '-');
    const auto added = signedEntries(user, '+');
    const auto kept = [&](const std::string& entry) {
      return std::find(removed.begin(), removed.end(), entry) == removed.end();
    };
    std::vector<std::string> result;
    std::copy_if(domain.begin(), domain.end(), std::back_inserter(result), kept);
    std::copy_if(defaults().begin(), defaults().end(), std::back_inserter(result), kept);
    result.insert(result.end(), added.begin(), added.end());
    active_ = std::move(result);
  });
  return active_;
}

void from_json(const nlohmann::json& json, std::shared_ptr<const Capabilities>& capabilities) {
  std::vector<std::string> domain;
  std::vector<std::string> user;
  detail::readRequired(json, "domain", domain);
  detail::readRequired(json, "user", user);
  capabilities = std::make_shared<const Capabilities>(std::move(domain), std::move(user));
}

void to_json(nlohmann::json& json, const std::shared_ptr<const Capabilities>& capabilities) {
  if (!capabilities) {
    json = nullptr;
    return;
  }
  json = nlohmann::json{{"domain", capabilities->domain}, {"user", capabilities->user}};
}

}  // namespace kel
