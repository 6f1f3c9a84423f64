#include "ServerClient/Utils/KeychainTokenItem.h"

#include <stdexcept>
#include <utility>

#include "ServerClient/Common/Json.h"

namespace kel {

std::optional<std::string> keychainAccessGroup(std::string_view teamId) {
  if (teamId.empty()) return std::nullopt;
  return std::string(teamId) + "." + std::string(kSharedGroupSuffix);
}

namespace {

std::string describe(KeychainTokenItem::KeychainError::Kind kind, platform::OSStatus status) {
  using Kind = KeychainTokenItem::KeychainError::Kind;
  switch (kind) {
    case Kind::unhandledError:
      return "unhandledError(status: " + std::to_string(status) + ", " +
             platform::keychainStatusName(status) + ")";
    case Kind::noToken:
      return "noToken";
    case Kind::unexpectedTokenData:
      return "unexpectedTokenData";
  }
  return "unknown";
}

}  // namespace

KeychainTokenItem::KeychainError::KeychainError(Kind kind, platform::OSStatus status)
    : kind_(kind), status_(status), what_(describe(kind, status)) {}

KeychainTokenItem::KeychainTokenItem(std::string service, std::optional<std::string> accessGroup,
                                     std::shared_ptr<platform::Keychain> keychain)
    : service_(std::move(service)),
      accessGroup_(std::move(accessGroup)),
      keychain_(std::move(keychain)) {
  if (!keychain_) throw std::invalid_argument("KeychainTokenItem needs a keychain");
}

platform::KeychainQuery KeychainTokenItem::keychainQuery(std::string service,
                                                         std::optional<std::string> accessGroup) {
  return {std::move(service), std::move(accessGroup)};
}

KeychainTokenItem::StoredToken KeychainTokenItem::readToken() const {
  // Both lookups always run; the URL's outcome matters only once the token is known to exist.
  const platform::KeychainMatch url =
      keychain_->copyMatching(keychainQuery(urlService(), accessGroup_));
  const platform::KeychainMatch token =
      keychain_->copyMatching(keychainQuery(service_, accessGroup_));
  if (token.status == platform::errSecItemNotFound) throw KeychainError::noToken();
  if (token.status != platform::errSecSuccess) throw KeychainError::unhandledError(token.status);
  if (!isValidUtf8(token.data)) throw KeychainError::unexpectedTokenData();
  const bool urlReadable = url.status == platform::errSecSuccess && isValidUtf8(url.data);
  return {token.data, urlReadable ? url.data : std::string()};
}

void KeychainTokenItem::saveToken(std::string_view token, std::string_view url) const {
  try {
    deleteItem();
  } catch (const KeychainError&) {
    // The adds below report whatever keeps the keychain from working.
  }
  const auto item = [this](std::string service, std::string_view data) {
    platform::KeychainQuery query = keychainQuery(std::move(service), accessGroup_);
    return platform::KeychainItem{std::move(query.service), std::move(query.accessGroup),
                                  std::string(data),
                                  platform::KeychainAccessible::afterFirstUnlockThisDeviceOnly};
  };
  const platform::OSStatus urlStatus = keychain_->add(item(urlService(), url));
  const platform::OSStatus tokenStatus = keychain_->add(item(service_, token));
  if (urlStatus != platform::errSecSuccess) throw KeychainError::unhandledError(urlStatus);
  if (tokenStatus != platform::errSecSuccess) throw KeychainError::unhandledError(tokenStatus);
}

void KeychainTokenItem::deleteItem() const {
  keychain_->deleteItems(keychainQuery(urlService(), accessGroup_));
  const platform::OSStatus status = keychain_->deleteItems(keychainQuery(service_, accessGroup_));
  if (status != platform::errSecSuccess && status != platform::errSecItemNotFound) {
    throw KeychainError::unhandledError(status);
  }
}

}  // namespace kel
