#pragma once

/// @file
/// A keychain held in memory, with the matching rules of Keychain.h, for tests of code that uses
/// a keychain. Failures can be injected per call and service name, so that a test can make one
/// add of a pair fail and the other succeed.

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ServerClient/platform/Keychain.h"

namespace kel::platform {

/// A keychain in memory for tests, with failure injection (see InMemoryKeychain.h). Every call
/// returns at once; thread-safe. Unlike the Secret Service it accepts NUL characters in keys.
class InMemoryKeychain final : public Keychain {
 public:
  /// The keychain calls, for injecting failures and counting calls.
  enum class Call {
    add,           ///< Keychain::add
    copyMatching,  ///< Keychain::copyMatching
    deleteItems    ///< Keychain::deleteItems
  };

  OSStatus add(const KeychainItem& item) override;
  KeychainMatch copyMatching(const KeychainQuery& query) override;
  OSStatus deleteItems(const KeychainQuery& query) override;

  /// From now on, every `call` about `service` answers `status` and changes nothing. A call
  /// with an invalid key still answers errSecParam.
  void injectFailure(Call call, std::string service, OSStatus status);
  /// Removes every injected failure.
  void clearFailures();

  /// The stored items, ordered by service then group (absent first).
  std::vector<KeychainItem> items() const;
  /// How many times `call` was made (failed ones included).
  int callCount(Call call) const;

 private:
  using Key = std::pair<std::string, std::optional<std::string>>;

  std::optional<OSStatus> injected(Call call, const std::string& service) const;

  mutable std::mutex mutex_;  // guards everything below
  std::map<Key, KeychainItem> items_;
  std::map<std::pair<Call, std::string>, OSStatus> failures_;
  std::map<Call, int> calls_;
};

}  // namespace kel::platform
