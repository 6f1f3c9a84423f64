#pragma once

#include <nlohmann/json.hpp>

namespace kel {

/// Receives the server's pushed events.
class ServerEventHandler {
 public:
  virtual ~ServerEventHandler() = default;

  /// Takes one event object (its "path", "method" and "body").
  virtual void handle(const nlohmann::json& event) = 0;
  /// Ends event delivery for good.
  virtual void stopListeningForEvents() = 0;
};

}  // namespace kel
