#pragma once

#include <memory>

#include <nlohmann/json.hpp>

namespace kel {

/// Receives the server's pushed events.
class ServerEventHandler {
 public:
  virtual ~ServerEventHandler() = default;

  /// Takes one event object (its "path", "method" and "body").
  virtual void handle(const nlohmann::json& event) = 0;
  /// The same for an event object the caller shares (never null), so that a handler can keep
  /// parts of it without copying them. By default, handle(*event).
  virtual void handleShared(std::shared_ptr<const nlohmann::json> event) { handle(*event); }
  /// Ends event delivery for good.
  virtual void stopListeningForEvents() = 0;
};

}  // namespace kel
