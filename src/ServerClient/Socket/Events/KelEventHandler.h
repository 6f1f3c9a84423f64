#pragma once

#include <nlohmann/json.hpp>

#include "ServerClient/Socket/Events/KelEvent.h"
#include "ServerClient/Socket/Events/ServerEventHandler.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Subjects.h"

namespace kel {

/// Checks each server event's envelope, works out its domain and identifier, and publishes one
/// KelEvent per event on the one channel that every domain event handler filters.
///
/// An event without a text "path", a text "method" and a "body" is logged and dropped; so is one
/// whose body is not a JSON object or list. An event for an unknown path is still published, as
/// `unkwown`. Once stopListeningForEvents() has completed the channel it stays completed.
class KelEventHandler final : public ServerEventHandler {
 public:
  /// A handler with an open channel.
  KelEventHandler() = default;

  void handle(const nlohmann::json& event) override;
  /// As handle(const nlohmann::json&), and each KelEvent carries the event's parsed body
  /// (KelEvent::body), shared with `event` rather than copied.
  void handleShared(std::shared_ptr<const nlohmann::json> event) override;
  void stopListeningForEvents() override;

  /// Every published event, on the thread that handed it in (the socket's network thread);
  /// completes with stopListeningForEvents(), and a subscriber that comes later is completed at
  /// once. Never fails.
  rx::Observable<KelEvent> eventChannel() const { return eventChannel_.asObservable(); }

 private:
  // `owner`, when not null, holds `event`, and the published body is shared with it.
  void publish(const nlohmann::json& event, const std::shared_ptr<const nlohmann::json>& owner);
  void handleCatching(const nlohmann::json& event,
                      const std::shared_ptr<const nlohmann::json>& owner);

  rx::PublishSubject<KelEvent> eventChannel_;
};

}  // namespace kel
