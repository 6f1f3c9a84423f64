#include "ServerClient/Socket/SocketConnector.h"

#include <atomic>
#include <string>
#include <utility>

#include <boost/url/parse.hpp>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/platform/HTTPClient.h"
#include "ServerClient/platform/TlsClientContext.h"
#include "ServerClient/rx/Schedulers.h"

namespace kel {

namespace detail {

rx::Observable<rx::Unit> timeoutFailure(std::chrono::seconds after, rx::SchedulerPtr scheduler) {
  // One error object serves every race: it is immutable, and catching it by const reference from
  // several threads at once is fine.
  static const auto timeout = makeError(ConnectionError(ConnectionErrorType::timeout, -1));
  return rx::Observable<rx::Unit>::error(timeout).delaySubscription(after, std::move(scheduler));
}

rx::Observable<rx::Unit> firstState(const rx::Observable<SocketState>& states,
                                    SocketState::Kind kind) {
  return states.filter([kind](const SocketState& state) { return state.kind() == kind; })
      .take(1)
      .map([](const SocketState&) { return rx::Unit{}; });
}

}  // namespace detail

bool isCertificatePinMismatch(const std::exception_ptr& error) {
  if (errorAs<platform::CertificatePinMismatch>(error)) return true;
  if (const auto* http = errorAs<platform::HTTPClientError>(error)) {
    return http->kind() == platform::HTTPClientError::Kind::pinMismatch;
  }
  const auto* generic = errorAs<GenericError>(error);
  return generic && generic->type().underlyingError() &&
         isCertificatePinMismatch(generic->type().underlyingError());
}

namespace {

std::string replaceAll(std::string text, std::string_view from, std::string_view to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

}  // namespace

SocketConnector::SocketConnector(std::shared_ptr<platform::Socket> socket,
                                 std::shared_ptr<SocketEventHandler> eventHandler,
                                 std::chrono::seconds connectionTimeout, Options options)
    : socket_(std::move(socket)),
      eventHandler_(std::move(eventHandler)),
      connectionTimeout_(connectionTimeout),
      connectionScheduler_(
          options.connectionScheduler
              ? std::move(options.connectionScheduler)
              : std::make_shared<rx::SerialDispatchQueueScheduler>("SocketConnector")),
      cookieHeaders_(std::move(options.cookieHeaders)) {}

rx::Single<rx::Unit> SocketConnector::connect() const {
  // Everything the attempt needs is copied in, so an attempt in flight does not depend on the
  // connector's lifetime.
  auto attempt = [socket = socket_, handler = eventHandler_,
                  states = eventHandler_->stateEventPublisher(), cookieHeaders = cookieHeaders_,
                  timeout = connectionTimeout_,
                  scheduler = connectionScheduler_](rx::Observer<rx::Unit> observer) {
    const std::string httpsText = replaceAll(std::string(socket->url().buffer()), "wss", "https");
    auto https = boost::urls::parse_absolute_uri(httpsText);
    if (!https) {
      observer.onError(makeError(GenericError(GenericErrorType::invalidURL(httpsText))));
      return rx::Disposable();
    }
    if (cookieHeaders) {
      auto fields = cookieHeaders(socket->url());
      if (!fields) fields = cookieHeaders(*https);
      if (fields && !fields->empty()) {
        auto request = socket->request();
        for (auto& [name, value] : *fields) request.setHeaderField(name, std::move(value));
        socket->setRequest(std::move(request));
      }
    }
    KEL_LOG_DEBUG("connect()", "Trying to connect socket");
    // Only a close of this attempt counts, not the state the subject replays on subscription.
    auto started = std::make_shared<std::atomic<bool>>(false);
    auto refused =
        states
            .filter([handler, started](const SocketState& state) {
              if (!started->load() || state.kind() != SocketState::Kind::disconnected) return false;
              const auto failure = handler->lastFailure();
              return failure && failure->pinMismatch;
            })
            .take(1)
            .flatMap([handler](const SocketState&) {
              const auto failure = handler->lastFailure();
              auto cause = std::make_exception_ptr(
                  platform::CertificatePinMismatch(failure ? failure->text : "pin mismatch"));
              return rx::Observable<rx::Unit>::error(
                  makeError(GenericError(GenericErrorType::underlying(std::move(cause)))));
            });
    auto wait = detail::firstState(states, SocketState::Kind::connected)
                    .amb(detail::timeoutFailure(timeout, scheduler))
                    .amb(refused)
                    .subscribe(observer);
    started->store(true);
    socket->connect();
    return wait;
  };
  return rx::Single<rx::Unit>::unchecked(rx::Observable<rx::Unit>::create(std::move(attempt)));
}

}  // namespace kel
