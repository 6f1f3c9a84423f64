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
  /// The same body, parsed, when the event was published from a shared event object (as the
  /// socket client hands them in): the domain handlers decode from it instead of parsing `data`
  /// again. Null otherwise. Every copy of the event shares it.
  std::shared_ptr<const nlohmann::json> body = nullptr;

  /// data, domainEvent, method and param equal (body is `data` parsed).
  bool operator==(const KelEvent& other) const {
    return data == other.data && domainEvent == other.domainEvent && method == other.method &&
           param == other.param;
  }
};

}  // namespace kel
