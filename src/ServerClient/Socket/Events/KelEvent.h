#pragma once

#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "ServerClient/Socket/Events/DomainEvent.h"

namespace kel {

/// One decoded server event, as published on the event channel.
struct KelEvent {
  std::string data;                                ///< the event's "body", pretty-printed JSON
  DomainEvent domainEvent = DomainEvent::unkwown;  ///< the domain the event's path names
  std::string method;                              ///< the event's "method", upper case
  std::optional<std::string> param;  ///< the identifier the event's path carries, if any
  /// The same body, parsed: shared by every subscriber so that none parses `data` again. Null in
  /// an event made by hand, whose `data` is then parsed.
  std::shared_ptr<const nlohmann::json> body{};

  /// Compares what the event says; `body` is `data` in another form.
  bool operator==(const KelEvent& other) const {
    return data == other.data && domainEvent == other.domainEvent && method == other.method &&
           param == other.param;
  }
};

}  // namespace kel
