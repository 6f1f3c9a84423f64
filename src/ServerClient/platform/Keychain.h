#pragma once

/// @file
/// A secure store of generic-password items, in the shape of the keychain calls that the token
/// store was designed against: add an item, copy the data of one matching item, delete every
/// matching item, each answering with a numeric status.
///
/// An item is keyed by its service name and its access group. Items added without an access group
/// go to the default group. A query matches exactly one group: the one it names, or the default
/// group when it names none. There is deliberately no query that spans groups: with one service
/// name shared by every application of the library, such a delete would remove the sessions of
/// every other team's application on the same account. Adding an item whose service and group are
/// both taken fails with errSecDuplicateItem and changes nothing. Empty service names and empty (as
/// opposed to absent) access groups are refused with errSecParam.
///
/// Implementations:
/// - SecretServiceKeychain: the desktop's Secret Service (gnome-keyring, KWallet, ...) over the
///   session D-Bus through libsecret, items stored in the default collection.
/// - InMemoryKeychain (InMemoryKeychain.h): a map in memory with failure injection, for tests.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kel::platform {

/// A keychain status code; the values are the platform's documented ones.
using OSStatus = std::int32_t;

/// The call succeeded.
inline constexpr OSStatus errSecSuccess = 0;
/// A parameter was not valid: an empty service name or access group, or (Secret Service) one
/// holding a NUL character.
inline constexpr OSStatus errSecParam = -50;
/// No keychain is reachable: no session bus, no Secret Service on it, or it did not answer in
/// time.
inline constexpr OSStatus errSecNotAvailable = -25291;
/// An item with the same service and access group already exists.
inline constexpr OSStatus errSecDuplicateItem = -25299;
/// No item matches the query.
inline constexpr OSStatus errSecItemNotFound = -25300;
/// The keychain is locked and unlocking it would need the user's interaction.
inline constexpr OSStatus errSecInteractionNotAllowed = -25308;
/// The keychain service failed in some other way; the log has its own message.
inline constexpr OSStatus errSecInternalComponent = -2070;

/// A short name for `status` ("errSecItemNotFound"), or "OSStatus <n>" for other values.
std::string keychainStatusName(OSStatus status);

/// When an item's data may be read. The one class offered is the strictest that still lets a
/// background task resume the session once the user has unlocked the keychain after boot; the
/// Secret Service keeps its items on this machine only and locked until then anyway.
enum class KeychainAccessible { afterFirstUnlockThisDeviceOnly };

/// Which items a call is about.
struct KeychainQuery {
  /// The item's service name; not empty.
  std::string service;
  /// Absent: the default group (only).
  std::optional<std::string> accessGroup;
};

/// An item to add.
struct KeychainItem {
  /// The service name the item is found by; not empty.
  std::string service;
  /// Absent: the default group.
  std::optional<std::string> accessGroup;
  /// The secret, as bytes.
  std::string data;
  /// When the item may be read.
  KeychainAccessible accessible = KeychainAccessible::afterFirstUnlockThisDeviceOnly;
};

/// The outcome of copyMatching.
struct KeychainMatch {
  /// errSecSuccess, or why no data came: errSecItemNotFound, errSecParam, and so on.
  OSStatus status = errSecItemNotFound;
  /// The item's bytes; meaningful only when `status` is errSecSuccess.
  std::string data;
};

/// The keychain calls. Implementations are thread-safe and every call returns within a bounded
/// time. Calls are synchronous: they block the calling thread, so keep them off threads that
/// must stay responsive. Failures come back as the status, never as an exception.
class Keychain {
 public:
  virtual ~Keychain() = default;

  /// Stores `item`. errSecDuplicateItem when its service and group are taken.
  virtual OSStatus add(const KeychainItem& item) = 0;
  /// The data of one item that matches `query`; errSecItemNotFound when none does.
  virtual KeychainMatch copyMatching(const KeychainQuery& query) = 0;
  /// Removes every item that matches `query`; errSecItemNotFound when there was none.
  virtual OSStatus deleteItems(const KeychainQuery& query) = 0;
};

/// The Secret Service keychain.
///
/// Items are stored with a schema of this library's own ("io.kelclient.sdk.GenericPassword",
/// attributes "service" and "access-group", the default group being the empty text), labelled
/// with their service name, in the collection behind the "default" alias.
///
/// Calls are synchronous and never need a GLib main loop: libsecret runs each one on a private
/// main context of the calling thread. They are serialised by one mutex, and each one is
/// cancelled when it has not finished after `timeout`, so a Secret Service that hangs or waits
/// for a user prompt costs at most that long. Nothing ever unlocks a keychain or shows a prompt:
/// a locked collection or item gives errSecInteractionNotAllowed. No session bus, no service on
/// it or a timeout give errSecNotAvailable; every failure is logged at error level without the
/// secret. The process's session-bus connection is set not to exit the process when the bus goes
/// away, and the cached connection to the service is dropped after a failure so that a restarted
/// daemon is found again.
///
/// Concurrency across processes: add checks for a duplicate and then creates the item, which is
/// not atomic between processes; two processes adding the same key at the same instant may both
/// succeed, and a later copyMatching then returns one of the two.
class SecretServiceKeychain final : public Keychain {
 public:
  /// How long one call may take by default.
  static constexpr std::chrono::milliseconds kDefaultTimeout{10'000};

  /// A keychain whose calls give up after `timeout` (errSecNotAvailable). Connects to nothing
  /// yet: each call connects to the session bus as needed.
  explicit SecretServiceKeychain(std::chrono::milliseconds timeout = kDefaultTimeout);
  ~SecretServiceKeychain() override;
  SecretServiceKeychain(const SecretServiceKeychain&) = delete;
  SecretServiceKeychain& operator=(const SecretServiceKeychain&) = delete;

  /// The process-wide instance that the library uses by default.
  static std::shared_ptr<SecretServiceKeychain> shared();

  OSStatus add(const KeychainItem& item) override;
  KeychainMatch copyMatching(const KeychainQuery& query) override;
  OSStatus deleteItems(const KeychainQuery& query) override;

 private:
  struct State;
  std::unique_ptr<State> state_;  // never null; guarded by its own mutex
};

}  // namespace kel::platform
