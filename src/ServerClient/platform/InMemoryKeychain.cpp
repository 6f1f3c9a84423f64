#include "ServerClient/platform/InMemoryKeychain.h"

namespace kel::platform {

namespace {

bool validKey(const std::string& service, const std::optional<std::string>& accessGroup) {
  return !service.empty() && !(accessGroup && accessGroup->empty());
}

}  // namespace

OSStatus InMemoryKeychain::add(const KeychainItem& item) {
  std::lock_guard lock(mutex_);
  ++calls_[Call::add];
  if (!validKey(item.service, item.accessGroup)) return errSecParam;
  if (const auto status = injected(Call::add, item.service)) return *status;
  const auto [position, inserted] = items_.try_emplace(Key{item.service, item.accessGroup}, item);
  return inserted ? errSecSuccess : errSecDuplicateItem;
}

KeychainMatch InMemoryKeychain::copyMatching(const KeychainQuery& query) {
  std::lock_guard lock(mutex_);
  ++calls_[Call::copyMatching];
  if (!validKey(query.service, query.accessGroup)) return {errSecParam, {}};
  if (const auto status = injected(Call::copyMatching, query.service)) return {*status, {}};
  const auto it = items_.find(Key{query.service, query.accessGroup});
  if (it == items_.end()) return {errSecItemNotFound, {}};
  return {errSecSuccess, it->second.data};
}

OSStatus InMemoryKeychain::deleteItems(const KeychainQuery& query) {
  std::lock_guard lock(mutex_);
  ++calls_[Call::deleteItems];
  if (!validKey(query.service, query.accessGroup)) return errSecParam;
  if (const auto status = injected(Call::deleteItems, query.service)) return *status;
  return items_.erase(Key{query.service, query.accessGroup}) > 0 ? errSecSuccess
                                                                 : errSecItemNotFound;
}

void InMemoryKeychain::injectFailure(Call call, std::string service, OSStatus status) {
  std::lock_guard lock(mutex_);
  failures_[{call, std::move(service)}] = status;
}

void InMemoryKeychain::clearFailures() {
  std::lock_guard lock(mutex_);
  failures_.clear();
}

std::vector<KeychainItem> InMemoryKeychain::items() const {
  std::lock_guard lock(mutex_);
  std::vector<KeychainItem> result;
  for (const auto& [key, item] : items_) result.push_back(item);
  return result;
}

int InMemoryKeychain::callCount(Call call) const {
  std::lock_guard lock(mutex_);
  const auto it = calls_.find(call);
  return it == calls_.end() ? 0 : it->second;
}

std::optional<OSStatus> InMemoryKeychain::injected(Call call, const std::string& service) const {
  const auto it = failures_.find({call, service});
  if (it == failures_.end()) return std::nullopt;
  return it->second;
}

}  // namespace kel::platform
