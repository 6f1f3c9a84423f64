#include "ServerClient/Socket/SocketAuthenticator.h"

#include <utility>

#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Socket/Model/AuthFrame.h"
#include "ServerClient/Socket/SocketConnector.h"
#include "ServerClient/rx/Schedulers.h"

namespace kel {

SocketAuthenticator::SocketAuthenticator(std::shared_ptr<platform::Socket> socket,
                                         std::shared_ptr<SocketEventHandler> eventHandler,
                                         std::chrono::seconds connectionTimeout, Options options)
    : socket_(std::move(socket)),
      eventHandler_(std::move(eventHandler)),
      connectionTimeout_(connectionTimeout),
      authenticationScheduler_(
          options.authenticationScheduler
              ? std::move(options.authenticationScheduler)
              : std::make_shared<rx::SerialDispatchQueueScheduler>("SocketAuthenticator")) {}

rx::Single<rx::Unit> SocketAuthenticator::authenticate(std::string token) const {
  auto attempt = [socket = socket_, states = eventHandler_->stateEventPublisher(),
                  token = std::move(token), timeout = connectionTimeout_,
                  scheduler = authenticationScheduler_](rx::Observer<rx::Unit> observer) {
    KEL_LOG_DEBUG("authenticate(token:)", "Trying to authenticate socket");
    auto wait = detail::firstState(states, SocketState::Kind::authenticated)
                    .amb(detail::timeoutFailure(timeout, scheduler))
                    .subscribe(observer);
    socket->send(makeAuthFrame(token));
    return wait;
  };
  return rx::Single<rx::Unit>::unchecked(rx::Observable<rx::Unit>::create(std::move(attempt)));
}

}  // namespace kel
