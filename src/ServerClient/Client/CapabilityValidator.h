#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "ServerClient/Auth/Model/Capabilities.h"
#include "ServerClient/Client/ServiceDomain.h"

namespace kel {

/// Tells whether the signed-in user may use a domain, from the capabilities of the last sign-in.
/// The facade and its service provider share one validator; a new record set here is seen by the
/// provider at the next demand. Nothing clears the record at sign-out: it stays until the next
/// sign-in replaces it.
class CapabilityValidator {
 public:
  /// Starts with an empty record (no domain or user entries), as before any sign-in.
  CapabilityValidator();
  /// A null record counts as an empty one.
  explicit CapabilityValidator(std::shared_ptr<const Capabilities> capabilities);

  /// The record in use; never null. Safe from any thread.
  std::shared_ptr<const Capabilities> capabilities() const;
  /// Replaces the record (null counts as an empty one); the facade calls it after each sign-in
  /// and restore. Safe from any thread.
  void setCapabilities(std::shared_ptr<const Capabilities> capabilities);

  /// The label that `domain` requires among the active capabilities, if any: "presence" for
  /// presence, "call-history" for the conference log, "meetings" for meetings and "contacts"
  /// for user contacts.
  static std::optional<std::string_view> requiredCapability(ServiceDomain domain) noexcept;

  /// True for a domain without a label; otherwise true exactly when the active capabilities hold
  /// the label (whole text, case-sensitive). Safe from any thread.
  bool hasPermission(ServiceDomain domain) const;

 private:
  mutable std::mutex mutex_;  // guards capabilities_
  std::shared_ptr<const Capabilities> capabilities_;
};

}  // namespace kel
