#include "ServerClient/Client/SocketService.h"

#include <utility>

#include "ServerClient/Common/SDKError.h"

namespace kel {

SocketService::SocketService(SocketClientSlot socketClient)
    : socketClient_(std::move(socketClient)) {}

SocketService::~SocketService() = default;

rx::Observable<Resource> SocketService::sendRequestOrError(AnyRequest request) {
  return sendThrough(socketClient_, std::move(request));
}

rx::Observable<Resource> SocketService::sendThrough(const SocketClientSlot& slot,
                                                    AnyRequest request) {
  const auto client = slot.value();
  if (!client) {
    return rx::Observable<Resource>::error(
        makeError(ConnectionError(ConnectionErrorType::noSocketClient, -1)));
  }
  return client->send(std::move(request)).catchError([](std::exception_ptr error) {
    return rx::Observable<Resource>::error(toSDKError(std::move(error)));
  });
}

rx::Single<Resource> SocketService::firstResource(rx::Observable<Resource> responses) {
  return responses.take(1).asSingle().catchError([](std::exception_ptr error) {
    return rx::Single<Resource>::error(toSDKError(std::move(error)));
  });
}

}  // namespace kel
