#pragma once

#include <optional>
#include <string>

#include "ServerClient/Socket/Events/DomainEvent.h"

namespace kel {

/// One decoded server event, as published on the event channel.
struct KelEvent {
  std::string data;                                ///< the event's "body", pretty-printed JSON
  DomainEvent domainEvent = DomainEvent::unkwown;  ///< the domain the event's path names
  std::string method;                              ///< the event's "method", upper case
  std::optional<std::string> param;  ///< the identifier the event's path carries, if any

  /// Every field equal.
  bool operator==(const KelEvent&) const = default;
};

}  // namespace kel
