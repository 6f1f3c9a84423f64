#pragma once

// The session token and the server URL it belongs to, kept in the keychain so that a later start
// of the application can resume the session.
//
// The pair is stored as two generic-password items that share one service name: the token under
// the service name itself, the URL under the service name followed by ".serverURL". Saving
// deletes the old pair, then adds the URL item and the token item, both always attempted; when
// one add fails the other item stays (nothing is rolled back), and the URL item's failure is the
// one reported. Reading needs the token item only: a missing or unreadable URL item reads as the
// empty text.
//
// The identifiers that the library stores its session under:
// - kKeychainServiceIdentifier, "io.kelclient.sdk" (16 characters): the service name of the
//   token item, and also the user-defaults key of the flag that says a session may be restored.
// - kSharedGroupSuffix, "io.kelclient.keychain" (21 characters): the keychain group that the
//   application shares with its extensions is the team identifier, ".", and this suffix.
//
// The operations are synchronous, hold no state of their own and take no locks; the keychain
// serialises its own access, so they may run on any thread.

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ServerClient/platform/Keychain.h"

namespace kel {

/// The service name of the library's token item, and the key of the restore flag.
inline constexpr std::string_view kKeychainServiceIdentifier = "io.kelclient.sdk";
/// What follows the team identifier and "." in the shared keychain group.
inline constexpr std::string_view kSharedGroupSuffix = "io.kelclient.keychain";
static_assert(kKeychainServiceIdentifier.size() == 16);
static_assert(kSharedGroupSuffix.size() == 21);

/// The shared keychain group of the team `teamId`: `teamId` + "." + kSharedGroupSuffix, or
/// nothing (the application's default group) when `teamId` is empty.
std::optional<std::string> keychainAccessGroup(std::string_view teamId);

/// The stored session token and its server URL under one keychain service name (see the top of
/// this header). A small value that names the items; it caches nothing, so copies and other
/// instances for the same service see the same items. Every operation talks to the keychain
/// synchronously on the caller's thread.
class KeychainTokenItem {
 public:
  /// A keychain call that did not go as needed. Not an SDKError: the facade catches it and
  /// reports a missing session as GenericError(notAllowed).
  class KeychainError : public std::exception {
   public:
    /// The cases.
    enum class Kind {
      unhandledError,       ///< a keychain call answered an unexpected status()
      noToken,              ///< there is no token item
      unexpectedTokenData,  ///< the token item's data is not UTF-8 text
    };

    /// The keychain answered `status`, which the operation cannot take.
    static KeychainError unhandledError(platform::OSStatus status) {
      return KeychainError(Kind::unhandledError, status);
    }
    /// No token is stored.
    static KeychainError noToken() { return KeychainError(Kind::noToken, 0); }
    /// The stored token is not UTF-8 text.
    static KeychainError unexpectedTokenData() {
      return KeychainError(Kind::unexpectedTokenData, 0);
    }

    /// Which case this is.
    Kind kind() const noexcept { return kind_; }
    /// The keychain status of an unhandledError; 0 for the other kinds.
    platform::OSStatus status() const noexcept { return status_; }
    /// "noToken", "unexpectedTokenData" or "unhandledError(status: N, <status name>)".
    const char* what() const noexcept override { return what_.c_str(); }

    /// Same kind and status.
    bool operator==(const KeychainError& other) const noexcept {
      return kind_ == other.kind_ && status_ == other.status_;
    }

   private:
    KeychainError(Kind kind, platform::OSStatus status);

    Kind kind_;
    platform::OSStatus status_;
    std::string what_;
  };

  /// What readToken() found.
  struct StoredToken {
    /// The session token; a secret: never log or show it.
    std::string token;
    /// The server URL text; empty when no URL item was readable.
    std::string url;

    /// Same token and URL.
    bool operator==(const StoredToken&) const = default;
  };

  /// What follows the service name in the service name of the URL item.
  static constexpr std::string_view kServerURLSuffix = ".serverURL";

  /// The items of `service` in `accessGroup` (the default group when absent), in `keychain`.
  /// Throws std::invalid_argument for a null keychain.
  explicit KeychainTokenItem(
      std::string service, std::optional<std::string> accessGroup = std::nullopt,
      std::shared_ptr<platform::Keychain> keychain = platform::SecretServiceKeychain::shared());

  /// The service name of the token item.
  const std::string& service() const noexcept { return service_; }
  /// The access group every call names; nothing for the default group.
  const std::optional<std::string>& accessGroup() const noexcept { return accessGroup_; }

  /// The stored token and server URL. Throws KeychainError: noToken when no token item exists,
  /// unexpectedTokenData when its data is not UTF-8, unhandledError for any other failure.
  StoredToken readToken() const;
  /// Replaces the stored pair. Throws KeychainError::unhandledError when an add failed.
  void saveToken(std::string_view token, std::string_view url) const;
  /// Removes the pair; succeeds when nothing was stored. Throws KeychainError::unhandledError
  /// when the token item could not be deleted.
  void deleteItem() const;

  /// The query that every call of this type starts from.
  static platform::KeychainQuery keychainQuery(std::string service,
                                               std::optional<std::string> accessGroup);

 private:
  std::string urlService() const { return service_ + std::string(kServerURLSuffix); }

  std::string service_;
  std::optional<std::string> accessGroup_;
  std::shared_ptr<platform::Keychain> keychain_;  // never null
};

}  // namespace kel
