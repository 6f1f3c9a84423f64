#include "ServerClient/Socket/SocketBuilder.h"

#include <exception>
#include <utility>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Common/SafeText.h"
#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Socket/Events/KelSocketEventHandler.h"
#include "ServerClient/platform/HTTPCookieStorage.h"
#include "ServerClient/platform/NetlinkNetworkManager.h"
#include "ServerClient/platform/WebSocketTaskConnectionWrapper.h"
#include "ServerClient/platform/detail/HttpText.h"

namespace kel {

SocketBuilderPlatform SocketBuilderPlatform::system() {
  SocketBuilderPlatform platform;
  platform.makeSocket = [](const boost::urls::url& url, std::vector<std::string> protocols) {
    return std::make_shared<platform::WebSocketTaskConnectionWrapper>(url, std::move(protocols));
  };
  platform.cookieHeaders = [](boost::urls::url_view url)
      -> std::optional<std::vector<platform::UpgradeRequest::HeaderField>> {
    const auto cookies = platform::HTTPCookieStorage::shared()->cookies(url);
    if (cookies.empty()) return std::nullopt;
    return platform::HTTPCookieStorage::requestHeaderFields(cookies);
  };
  platform.makeNetworkManager = []() -> std::shared_ptr<platform::OvNetworkManager> {
    return platform::NetlinkNetworkManager::shared();
  };
  return platform;
}

std::vector<std::string> socketSubProtocols(const boost::urls::url& socketURL) {
  std::string last;
  for (auto segment : boost::urls::url_view(socketURL).segments()) {
    if (!segment.empty()) last = segment;
  }
  // The header carries tokens only; offering none lets the server pick its default rather than
  // failing the whole sign-in on a URL the application cannot change.
  if (last.empty()) {
    KEL_LOG_DEBUG("newSocket()", "No sub-protocol offered: " + redactSecrets(socketURL.buffer()) +
                                     " has no last path segment");
    return {};
  }
  if (!platform::detail::isToken(last)) {
    KEL_LOG_DEBUG("newSocket()", "No sub-protocol offered: the last path segment of " +
                                     redactSecrets(socketURL.buffer()) + " is not an HTTP token");
    return {};
  }
  return {last};
}

std::shared_ptr<SocketBuilder> SocketBuilder::create(
    boost::urls::url kelURL, boost::urls::url socketURL,
    std::shared_ptr<ServerEventHandler> kelEventHandler, SessionToken userSession,
    Platform platform, rx::Duration reconnectionAttempt) {
  return std::make_shared<SocketBuilder>(Passkey{}, std::move(kelURL), std::move(socketURL),
                                         std::move(kelEventHandler), std::move(userSession),
                                         std::move(platform), reconnectionAttempt);
}

SocketBuilder::SocketBuilder(Passkey, boost::urls::url kelURL, boost::urls::url socketURL,
                             std::shared_ptr<ServerEventHandler> kelEventHandler,
                             SessionToken userSession, Platform platform,
                             rx::Duration reconnectionAttempt)
    : kelURL_(std::move(kelURL)),
      socketURL_(std::move(socketURL)),
      kelEventHandler_(std::move(kelEventHandler)),
      userSession_(std::move(userSession)),
      platform_(std::move(platform)),
      reconnectionAttempt_(reconnectionAttempt) {}

std::shared_ptr<SocketClient> SocketBuilder::newSocket() {
  std::shared_ptr<platform::Socket> socket;
  try {
    if (platform_.makeSocket)
      socket = platform_.makeSocket(socketURL_, socketSubProtocols(socketURL_));
  } catch (...) {
    KEL_LOG_ERROR("newSocket()",
                  "Could not make the socket: " + describeError(std::current_exception()));
    return nullptr;
  }
  if (!socket) {
    KEL_LOG_ERROR("newSocket()", "No socket for " + redactSecrets(socketURL_.buffer()));
    return nullptr;
  }

  auto request = socket->request();
  request.setShouldHandleCookies(true);
  socket->setRequest(std::move(request));

  auto socketEventHandler = KelSocketEventHandler::create(socket);

  std::weak_ptr<const SocketBuilder> weak = weak_from_this();
  auto reconnectAuth = [weak]() -> std::optional<std::string> {
    auto self = weak.lock();
    if (!self || !self->userSession_) return std::nullopt;
    return self->userSession_();
  };

  auto options = platform_.clientOptions;
  options.cookieHeaders = platform_.cookieHeaders;
  if (platform_.makeNetworkManager) options.networkManager = platform_.makeNetworkManager();
  return KelSocketClient::create(std::move(socket), std::move(socketEventHandler), kelEventHandler_,
                                 std::move(reconnectAuth), reconnectionAttempt_,
                                 std::move(options));
}

}  // namespace kel
