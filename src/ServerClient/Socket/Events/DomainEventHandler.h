#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ServerClient/Common/Decoding.h"
#include "ServerClient/Socket/Events/DomainEvent.h"
#include "ServerClient/Socket/Events/KelEvent.h"
#include "ServerClient/Socket/Events/KelEventHandler.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Scheduler.h"

namespace kel {

/// What every domain's event handler shares: it keeps the shared KelEventHandler and builds its
/// streams, once, at construction, from the events of its domain and of one method each.
///
/// Streams are subscribed to the event channel on the handler's scheduler (the application's
/// main thread unless a test injects another) and deliver there too, so an application can touch
/// its user interface from a subscriber. A subscription therefore starts listening only once that
/// scheduler has run it: an event the server sends before then is not seen, so subscribe before
/// asking for a change whose event you want. Every subscriber goes through the same chain; all of
/// them end when the channel is completed (KelServer::clearSessionInfo(), and so logout() and a
/// session the server ended, completes it for good). A record that does not decode ends that
/// stream, for that subscriber, with GenericError(decoding); records are decoded on the channel's
/// thread and only then handed to the scheduler. Disposing a subscription only
/// unsubscribes; it takes effect on the handler's scheduler.
class DomainEventHandler {
 public:
  virtual ~DomainEventHandler() = default;

  /// The shared event channel the handler filters.
  const std::shared_ptr<KelEventHandler>& kelEventHandler() const noexcept {
    return kelEventHandler_;
  }

 protected:
  /// `scheduler` null means the main-thread scheduler.
  explicit DomainEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                              rx::SchedulerPtr scheduler = nullptr);

  /// The events of `domain` whose method (upper case, e.g. "PUT") is any of `methods`, in the
  /// order they arrived (one filtered stream, unlike a merge of one stream per method), through
  /// `stage` (a function from that Observable<KelEvent> to an Observable<Out>) on the channel's
  /// thread, then delivered on the handler's scheduler: a body is decoded while the event's parsed
  /// body is at hand, and only the result waits for the scheduler.
  template <class Stage>
  auto eventsThrough(DomainEvent domain, std::vector<std::string> methods, Stage stage) const {
    return stage(channelEvents(domain, std::move(methods))).observeOn(scheduler_);
  }

  /// Those events' bodies decoded as `Record`.
  template <class Record>
  rx::Observable<Record> records(DomainEvent domain, std::string method) const {
    return eventsThrough(domain, {std::move(method)}, [](const rx::Observable<KelEvent>& events) {
      return events.map(&DomainEventHandler::decode<Record>);
    });
  }

  /// `event`'s body decoded as `Record`, from the parsed body it carries if any. Fails with
  /// GenericError(decoding) as from() does.
  template <class Record>
  static Record decode(const KelEvent& event) {
    return event.body ? from<Record>(*event.body, event.data) : from<Record>(event.data);
  }

 private:
  // The channel subscribed on the handler's scheduler and filtered, before the hop back to it.
  rx::Observable<KelEvent> channelEvents(DomainEvent domain,
                                         std::vector<std::string> methods) const;

  std::shared_ptr<KelEventHandler> kelEventHandler_;
  rx::SchedulerPtr scheduler_;
};

}  // namespace kel
