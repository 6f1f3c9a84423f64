#include "ServerClient/XMPP/Service/KelXMPPService.h"

#include <utility>

#include "ServerClient/Common/Json.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/XMPP/Constants/XMPPConnectionConstants.h"
#include "ServerClient/rx/Errors.h"

namespace kel {

namespace {

std::vector<std::string> chatsIn(const Resource& resource) {
  nlohmann::json json;
  try {
    json = nlohmann::json::parse(resource.data);
  } catch (...) {
    std::rethrow_exception(toSDKError(std::current_exception()));
  }
  const auto notAList = [&] {
    return GenericError(GenericErrorType::decoding(utf8TextOrEmpty(resource.data)));
  };
  if (!json.is_object()) throw notAList();
  for (const auto& [key, value] : json.items()) {
    if (!value.is_array()) throw notAList();
    for (const auto& element : value) {
      if (!element.is_string()) throw notAList();
    }
  }
  const auto chats = json.find("chats");
  if (chats == json.end()) return {};
  return chats->get<std::vector<std::string>>();
}

}  // namespace

KelXMPPService::KelXMPPService(SocketClientSlot socketClient, rx::SchedulerPtr waitScheduler)
    : SocketService(std::move(socketClient)),
      waitScheduler_(waitScheduler ? std::move(waitScheduler)
                                   : XMPPConnectionConstants::scheduler()) {}

rx::Observable<rx::Unit> KelXMPPService::socketClientAuthenticated() const {
  return rx::Observable<rx::Unit>::deferred([slot = socketClient(), scheduler = waitScheduler_] {
    const auto client = slot.value();
    if (!client) {
      return rx::Observable<rx::Unit>::error(
          makeError(ConnectionError(ConnectionErrorType::noSocketClient, -1)));
    }
    return client->socketConnectionEventChannel()
        .filter([](const SocketState& state) {
          return state.kind() == SocketState::Kind::authenticated;
        })
        .timeout(XMPPConnectionConstants::timeout, scheduler)
        .map([](const SocketState&) { return rx::Unit{}; })
        .take(1);
  });
}

template <class P>
rx::Single<Resource> KelXMPPService::sendWhenAuthenticated(Call<P> call) const {
  return socketClientAuthenticated()
      .flatMap([weak = weakSelf(this), call = std::move(call)](rx::Unit) {
        if (const auto self = weak.lock()) return self->send(call);
        return rx::Observable<Resource>::empty();
      })
      .take(1)
      .asSingle()
      .catchError([](std::exception_ptr error) {
        // The wait's time-out reaches the caller as the reactive error it is; everything else,
        // an answer that never came included, as an SDKError.
        try {
          std::rethrow_exception(error);
        } catch (const rx::TimeoutError&) {
          return rx::Single<Resource>::error(error);
        } catch (...) {
        }
        return rx::Single<Resource>::error(toSDKError(error));
      });
}

rx::Single<std::vector<std::string>> KelXMPPService::oneToOneChatList() {
  return sendWhenAuthenticated(Call<Path>{.pathname = Path::oneToOneChat, .method = "GET"})
      .map(&chatsIn);
}

rx::Completable KelXMPPService::addOneToOneChat(const std::string& jid) {
  return sendWhenAuthenticated(
             Call<Path>{.pathname = {Path::oneToOneChat, {PathRule::append(jid)}}, .method = "PUT"})
      .asCompletable();
}

rx::Completable KelXMPPService::deleteOneToOneChat(const std::string& jid) {
  return sendWhenAuthenticated(Call<Path>{.pathname = {Path::oneToOneChat, {PathRule::append(jid)}},
                                          .method = "DELETE"})
      .asCompletable();
}

}  // namespace kel
