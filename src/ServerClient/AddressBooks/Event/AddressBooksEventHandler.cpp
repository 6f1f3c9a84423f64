#include "ServerClient/AddressBooks/Event/AddressBooksEventHandler.h"

#include <nlohmann/json.hpp>

namespace kel {

AddressBooksEventHandler::AddressBooksEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                                   rx::SchedulerPtr scheduler)
    : DomainEventHandler(std::move(kelEventHandler), std::move(scheduler)),
      newContact_(records<AddressBookSocketDTO>(DomainEvent::addressBooks, "POST")),
      contactUpdated_(records<AddressBookSocketDTO>(DomainEvent::addressBooks, "PUT")),
      contactDeleted_(records<AddressBookSocketDTO>(DomainEvent::addressBooks, "DELETE")) {}

}  // namespace kel
