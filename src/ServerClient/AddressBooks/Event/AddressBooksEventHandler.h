#pragma once

#include "ServerClient/AddressBooks/Model/AddressBookDTO.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's contact events ("/addressbooks"): POST a new contact, PUT a changed one, DELETE
/// a removed one, each with its book. Feed them to CacheAddressBooksService::updateCache and
/// deleteCache to keep the cache current.
///
/// Each stream delivers on the handler's scheduler (the application's main thread unless
/// another was given) and starts listening only once that scheduler has run the subscription;
/// events are not replayed. A body that does not decode as AddressBookSocketDTO ends that
/// subscriber's stream with GenericError(decoding). Every stream completes when the event
/// channel does (at sign-out). Disposing a subscription stops it only; nothing is sent to the
/// server. The streams do not depend on the handler object: they go on after it is destroyed.
/// Thread-safe: the accessors may be called and the streams subscribed from any thread.
class AddressBooksEventHandler : public DomainEventHandler {
 public:
  /// Builds the streams over `kelEventHandler`'s event channel. `scheduler` is where they
  /// subscribe and deliver; null means the main-thread scheduler.
  explicit AddressBooksEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                    rx::SchedulerPtr scheduler = nullptr);

  /// A contact added to a book: "/addressbooks" POST events.
  const rx::Observable<AddressBookSocketDTO>& newContact() const noexcept { return newContact_; }
  /// A contact changed: "/addressbooks" PUT events; the contact as it is now.
  const rx::Observable<AddressBookSocketDTO>& contactUpdated() const noexcept {
    return contactUpdated_;
  }
  /// A contact removed: "/addressbooks" DELETE events, naming the removed contact.
  const rx::Observable<AddressBookSocketDTO>& contactDeleted() const noexcept {
    return contactDeleted_;
  }

 private:
  rx::Observable<AddressBookSocketDTO> newContact_;
  rx::Observable<AddressBookSocketDTO> contactUpdated_;
  rx::Observable<AddressBookSocketDTO> contactDeleted_;
};

}  // namespace kel
