#include "ServerClient/Group/Event/GroupEventHandler.h"

#include <map>
#include <optional>

#include <nlohmann/json.hpp>

namespace kel {

GroupEventHandler::GroupEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                     rx::SchedulerPtr scheduler)
    : DomainEventHandler(std::move(kelEventHandler), std::move(scheduler)),
      newGroup_(records<GroupDTO>(DomainEvent::group, "POST")),
      groupUpdated_(records<GroupDTO>(DomainEvent::group, "PUT")),
      groupDeleted_(groupIds(DomainEvent::group)),
      groupDidRemoveParticipant_(groupIds(DomainEvent::participantInGroup)) {}

rx::Observable<std::string> GroupEventHandler::groupIds(DomainEvent domain) const {
  return eventsThrough(domain, {"DELETE"}, [](const rx::Observable<KelEvent>& events) {
    return events.compactMap([](const KelEvent& event) -> std::optional<std::string> {
      // Not JSON at all is a broken event, and fails the stream like any record that does not
      // decode; JSON of another shape is an event of another kind, and is skipped.
      std::optional<nlohmann::json> parsed;
      const auto& body =
          event.body ? *event.body : parsed.emplace(from<nlohmann::json>(event.data));
      if (!body.is_object()) return std::nullopt;
      for (const auto& [key, value] : body.items()) {
        if (!value.is_string()) return std::nullopt;
      }
      const auto id = body.find("groupId");
      if (id == body.end()) return std::nullopt;
      return id->get<std::string>();
    });
  });
}

}  // namespace kel
