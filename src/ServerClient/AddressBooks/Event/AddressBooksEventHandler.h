#pragma once

#include "ServerClient/AddressBooks/Model/AddressBookDTO.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's contact events ("/addressbooks"): POST a new contact, PUT a changed one, DELETE
/// a removed one, each with its book.
class AddressBooksEventHandler : public DomainEventHandler {
 public:
  explicit AddressBooksEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                    rx::SchedulerPtr scheduler = nullptr);

  const rx::Observable<AddressBookSocketDTO>& newContact() const noexcept { return newContact_; }
  const rx::Observable<AddressBookSocketDTO>& contactUpdated() const noexcept {
    return contactUpdated_;
  }
  const rx::Observable<AddressBookSocketDTO>& contactDeleted() const noexcept {
    return contactDeleted_;
  }

 private:
  rx::Observable<AddressBookSocketDTO> newContact_;
  rx::Observable<AddressBookSocketDTO> contactUpdated_;
  rx::Observable<AddressBookSocketDTO> contactDeleted_;
};

}  // namespace kel
