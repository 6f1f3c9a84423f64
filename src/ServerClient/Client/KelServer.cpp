#include "ServerClient/Client/KelServer.h"

#include <stdexcept>
#include <utility>

#include <boost/url/scheme.hpp>

#include "ServerClient/AddressBooks/Event/AddressBooksEventHandler.h"
#include "ServerClient/AddressBooks/Service/AddressBooksService.h"
#include "ServerClient/Alert/Event/AlertsEventHandler.h"
#include "ServerClient/Alert/Service/AlertsService.h"
#include "ServerClient/Auth/Service/AuthService.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/ConferenceLog/Event/ConferenceLogEventHandler.h"
#include "ServerClient/ConferenceLog/Service/ConferenceLogService.h"
#include "ServerClient/Contact/Service/UserContactsService.h"
#include "ServerClient/Group/Event/GroupEventHandler.h"
#include "ServerClient/Group/Service/GroupService.h"
#include "ServerClient/KeepConnection/KeepConnectionService.h"
#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Meeting/Event/MeetingsEventHandler.h"
#include "ServerClient/Meeting/Service/MeetingsService.h"
#include "ServerClient/MissedCalls/Event/MissedCallsEventHandler.h"
#include "ServerClient/MissedCalls/Service/MissedCallsService.h"
#include "ServerClient/Presence/Event/PresencesEventHandler.h"
#include "ServerClient/Presence/Service/PresencesService.h"
#include "ServerClient/Push/PushService.h"
#include "ServerClient/User/UserService.h"
#include "ServerClient/Utils/Description.h"
#include "ServerClient/Utils/RepeatBehavior.h"
#include "ServerClient/XMPP/Event/IndividualChatListEventHandler.h"
#include "ServerClient/XMPP/Service/XMPPService.h"
#include "ServerClient/platform/WebSocketTaskConnectionWrapper.h"
#include "ServerClient/rx/Schedulers.h"

namespace kel {

namespace {

using Domain = ServiceProvider::Domain;

GenericError socketURLError(const boost::urls::url& socketURL) {
  return GenericError(GenericErrorType::invalidURL(std::string(socketURL.buffer())), "");
}

bool isDefault(const platform::TlsTrust& trust) {
  return trust.useSystemTrustStore && trust.extraCertificateAuthoritiesPem.empty() &&
         trust.extraCertificateAuthoritiesFile.empty() && trust.pins.empty();
}

}  // namespace

std::shared_ptr<KelServer> KelServer::create(boost::urls::url kelURL, boost::urls::url socketURL,
                                             std::string appVersion, std::string teamId,
                                             Options options) {
  auto server =
      std::make_shared<KelServer>(Passkey{}, std::move(kelURL), std::move(socketURL),
                                  std::move(appVersion), std::move(teamId), std::move(options));
  server->performActionsOnStateChange();
  return server;
}

KelServer::KelServer(Passkey, boost::urls::url kelURL, boost::urls::url socketURL,
                     std::string appVersion, std::string teamId, Options options)
    : kelURL_(std::move(kelURL)),
      socketURL_(std::move(socketURL)),
      appVersion_(std::move(appVersion)),
      teamId_(std::move(teamId)),
      options_(std::move(options)),
      capabilityValidator_(std::make_shared<CapabilityValidator>()),
      sessionState_(std::make_shared<ServerState>()),
      kelEventHandler_(std::make_shared<KelEventHandler>()) {
  if (!options_.mainScheduler) options_.mainScheduler = rx::MainScheduler::instance();
  if (!options_.makeUserInitiatedScheduler) {
    options_.makeUserInitiatedScheduler = [] {
      return std::make_shared<rx::ConcurrentDispatchQueueScheduler>();
    };
  }
  if (!options_.resumeTimeoutScheduler) {
    options_.resumeTimeoutScheduler = std::make_shared<rx::ConcurrentDispatchQueueScheduler>();
  }
  if (!options_.renewalScheduler) {
    options_.renewalScheduler =
        std::make_shared<rx::SerialDispatchQueueScheduler>("rx.global_dispatch_queue.serial");
  }
  if (!options_.keychain) options_.keychain = platform::SecretServiceKeychain::shared();
  if (!options_.userDefaults) {
    options_.userDefaults = platform::UserDefaults::forApplication(teamId_);
  }
  if (!options_.applicationLifecycle) {
    options_.applicationLifecycle = platform::ApplicationLifecycle::shared();
  }
  if (!options_.deviceInfo) options_.deviceInfo = AuthService::systemDeviceInfo();
  auto socketPlatform = options_.socketPlatform.value_or(SocketBuilder::Platform::system());
  if (const auto& trust = options_.trust; !isDefault(trust)) {
    if (options_.httpClient || (options_.socketPlatform && options_.socketPlatform->makeSocket)) {
      throw std::invalid_argument(
          "KelServerOptions::trust applies to the facade's own adapters: leave httpClient and "
          "socketPlatform->makeSocket empty, or set the trust in the adapters given");
    }
    options_.httpClient = std::make_shared<platform::BeastHTTPClient>(
        platform::BeastHTTPClient::Options{.trust = trust});
    socketPlatform.makeSocket = [trust](const boost::urls::url& url,
                                        std::vector<std::string> protocols) {
      platform::WebSocketTaskConnectionWrapper::Options socketOptions;
      socketOptions.useSystemTrustStore = trust.useSystemTrustStore;
      socketOptions.extraCertificateAuthoritiesPem = trust.extraCertificateAuthoritiesPem;
      socketOptions.extraCertificateAuthoritiesFile = trust.extraCertificateAuthoritiesFile;
      socketOptions.pins = trust.pins;
      return std::make_shared<platform::WebSocketTaskConnectionWrapper>(url, std::move(protocols),
                                                                        std::move(socketOptions));
    };
  }
  if (!options_.httpClient) options_.httpClient = AuthService::sharedHTTPClient();
  if (!socketPlatform.clientOptions.applicationLifecycle) {
    socketPlatform.clientOptions.applicationLifecycle = options_.applicationLifecycle;
  }
  if (!socketPlatform.clientOptions.metrics) {
    socketPlatform.clientOptions.metrics = std::make_shared<KelMetricsRecorder>();
  }
  metrics_ = socketPlatform.clientOptions.metrics;
  // Reads the subject in the slot at each call: an application's replacement is the one read.
  auto token = [slot = std::weak_ptr<UserSessionSlot>(slot_)]() -> std::optional<std::string> {
    auto held = slot.lock();
    if (!held) return std::nullopt;
    UserSession subject{std::nullopt};
    {
      std::lock_guard lock(held->mutex);
      subject = held->subject;
    }
    return SocketBuilder::tokenOf(subject)();
  };
  socketBuilder_ = SocketBuilder::create(kelURL_, socketURL_, kelEventHandler_, std::move(token),
                                         std::move(socketPlatform), options_.reconnectionAttempt);
  serviceProvider_ = makeServiceProvider();
}

KelServer::~KelServer() = default;

std::shared_ptr<ServiceProvider> KelServer::makeServiceProvider() const {
  auto provider = std::make_shared<ServiceProvider>(capabilityValidator_);
  provider->registerFactory(
      Domain::authorization,
      [http = options_.httpClient, device = options_.deviceInfo](SocketClientSlot slot) {
        return std::shared_ptr<SocketService>(
            std::make_shared<AuthService>(std::move(slot), http, device));
      });
  return provider;
}

template <class T>
std::shared_ptr<T> KelServer::service(Domain domain) {
  std::lock_guard lock(providerMutex_);
  return serviceProvider_->service<T>(domain, ServiceProvider::Dependencies::socket(socketClient_));
}

std::shared_ptr<UserService> KelServer::userService() {
  return service<UserService>(Domain::user);
}

std::shared_ptr<PushService> KelServer::pushService() {
  return service<PushService>(Domain::push);
}

std::shared_ptr<CacheAddressBooksService> KelServer::addressBooks() {
  return service<CacheAddressBooksService>(Domain::addressBooks);
}

std::shared_ptr<UserContactsService> KelServer::userContacts() {
  return service<UserContactsService>(Domain::userContacts);
}

std::shared_ptr<CachePresencesService> KelServer::presencesService() {
  return service<CachePresencesService>(Domain::presence);
}

std::shared_ptr<CacheGroupService> KelServer::groupService() {
  return service<CacheGroupService>(Domain::groups);
}

std::shared_ptr<MeetingsService> KelServer::meetingsService() {
  return service<MeetingsService>(Domain::meetings);
}

std::shared_ptr<ConferenceLogService> KelServer::conferenceLogService() {
  return service<ConferenceLogService>(Domain::conferenceLog);
}

std::shared_ptr<MissedCallsService> KelServer::missedCallsService() {
  return service<MissedCallsService>(Domain::missedCalls);
}

std::shared_ptr<AlertsService> KelServer::alerts() {
  return service<AlertsService>(Domain::alerts);
}

std::shared_ptr<XMPPService> KelServer::xmppService() {
  return service<XMPPService>(Domain::xmpp);
}

std::shared_ptr<AddressBooksEventHandler> KelServer::addressBooksEventHandler() {
  return addressBooksEventHandler_.get(kelEventHandler_, options_.mainScheduler);
}

void KelServer::setAddressBooksEventHandler(std::shared_ptr<AddressBooksEventHandler> handler) {
  addressBooksEventHandler_.set(std::move(handler));
}

std::shared_ptr<PresencesEventHandler> KelServer::presenceEventHandler() {
  return presenceEventHandler_.get(kelEventHandler_, options_.mainScheduler);
}

void KelServer::setPresenceEventHandler(std::shared_ptr<PresencesEventHandler> handler) {
  presenceEventHandler_.set(std::move(handler));
}

std::shared_ptr<GroupEventHandler> KelServer::groupEventHandler() {
  return groupEventHandler_.get(kelEventHandler_, options_.mainScheduler);
}

void KelServer::setGroupEventHandler(std::shared_ptr<GroupEventHandler> handler) {
  groupEventHandler_.set(std::move(handler));
}

std::shared_ptr<MeetingsEventHandler> KelServer::meetingsEventHandler() {
  return meetingsEventHandler_.get(kelEventHandler_, options_.mainScheduler);
}

void KelServer::setMeetingsEventHandler(std::shared_ptr<MeetingsEventHandler> handler) {
  meetingsEventHandler_.set(std::move(handler));
}

std::shared_ptr<ConferenceLogEventHandler> KelServer::conferenceLogEventHandler() {
  return conferenceLogEventHandler_.get(kelEventHandler_, options_.mainScheduler);
}

void KelServer::setConferenceLogEventHandler(std::shared_ptr<ConferenceLogEventHandler> handler) {
  conferenceLogEventHandler_.set(std::move(handler));
}

std::shared_ptr<MissedCallsEventHandler> KelServer::missedCallsEventHandler() {
  return missedCallsEventHandler_.get(kelEventHandler_, options_.mainScheduler);
}

void KelServer::setMissedCallsEventHandler(std::shared_ptr<MissedCallsEventHandler> handler) {
  missedCallsEventHandler_.set(std::move(handler));
}

std::shared_ptr<AlertsEventHandler> KelServer::alertsEventHandler() {
  return alertsEventHandler_.get(kelEventHandler_, options_.mainScheduler);
}

void KelServer::setAlertsEventHandler(std::shared_ptr<AlertsEventHandler> handler) {
  alertsEventHandler_.set(std::move(handler));
}

std::shared_ptr<IndividualChatListEventHandler> KelServer::individualChatListEventHandler() {
  return individualChatListEventHandler_.get(kelEventHandler_, options_.mainScheduler);
}

void KelServer::setIndividualChatListEventHandler(
    std::shared_ptr<IndividualChatListEventHandler> handler) {
  individualChatListEventHandler_.set(std::move(handler));
}

// --- Wiring -------------------------------------------------------------------------------------

void KelServer::performActionsOnStateChange() {
  std::weak_ptr<KelServer> weak = weak_from_this();

  socketClient_.asObservable()
      .subscribe([weak](const std::shared_ptr<SocketClient>& client) {
        auto self = weak.lock();
        if (!self) return;
        if (client) {
          self->sessionState_->setSocketEvents(client->socketConnectionEventChannel());
        } else {
          self->sessionState_->setSocketEvents(std::nullopt);
        }
      })
      .disposed(disposeBag_);

  sessionState_->needsNewSession()
      .subscribe([weak](rx::Unit) {
        if (auto self = weak.lock()) self->clearSessionInfo();
      })
      .disposed(disposeBag_);

  // Each entry into connected starts one renewal loop; the loop ends with the next disconnection.
  sessionState_->currentState()
      .asObservable()
      .distinctUntilChanged()
      .filter([](State state) { return state == State::connected; })
      .flatMap([weak](State) {
        auto self = weak.lock();
        return self ? self->renewSession() : rx::Observable<rx::Unit>::empty();
      })
      .subscribe([](rx::Unit) {})
      .disposed(disposeBag_);

  options_.applicationLifecycle->willEnterForeground()
      .subscribe([weak](rx::Unit) {
        if (auto self = weak.lock()) self->appIsInBackground_ = false;
      })
      .disposed(disposeBag_);
  options_.applicationLifecycle->didEnterBackground()
      .subscribe([weak](rx::Unit) {
        if (auto self = weak.lock()) self->appIsInBackground_ = true;
      })
      .disposed(disposeBag_);
}

void KelServer::onNewAuthenticationData(const AuthenticationData& data) {
  capabilityValidator_->setCapabilities(data.capabilities);
  sessionState_->setUserSession(data);
  userSession().onNext(data);
}

rx::Observable<rx::Unit> KelServer::renewSession() {
  std::call_once(renewOnce_, [this] {
    std::weak_ptr<KelServer> weak = weak_from_this();
    auto ended = sessionState_->currentState().asObservable().filter([](State state) {
      return state == State::disconnected || state == State::disconnectedBackground;
    });
    renewSession_ = rx::interval(renewalPeriod, options_.renewalScheduler)
                        .flatMapLatest([weak](std::int64_t) -> rx::Observable<rx::Unit> {
                          auto self = weak.lock();
                          if (!self) return rx::Observable<rx::Unit>::empty();
                          std::shared_ptr<KeepConnectionService> keepConnection;
                          try {
                            keepConnection =
                                self->service<KeepConnectionService>(Domain::keepConnection);
                          } catch (...) {
                            return rx::Observable<rx::Unit>::error(std::current_exception());
                          }
                          return keepConnection->renewSession(self->userSession()).retry();
                        })
                        .takeUntil(ended);
  });
  return renewSession_;
}

rx::Observable<rx::Unit> KelServer::waitForSocketDisconnected() const {
  return sessionState_->currentState()
      .asObservable()
      .filter([](State state) { return state == State::disconnected; })
      .take(1)
      .map([](State) { return rx::Unit{}; });
}

// --- Keychain -----------------------------------------------------------------------------------

std::optional<std::string> KelServer::keychainAccessGroup() const {
  return kel::keychainAccessGroup(teamId_);
}

KeychainTokenItem KelServer::tokenItem() const {
  return KeychainTokenItem(keychainService(), keychainAccessGroup(), options_.keychain);
}

std::string KelServer::storedServerURL() const {
  // The base URL without its last path component: "https://kel.example/api/v1" and
  // "https://kel.example/api/v1/" give "https://kel.example/api/"; a URL without a path is kept.
  boost::urls::url url = kelURL_;
  std::string path(url.encoded_path());
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  if (const auto slash = path.rfind('/'); slash != std::string::npos && path != "/") {
    path.resize(slash + 1);
    url.set_encoded_path(path);
  }
  return std::string(url.buffer());
}

void KelServer::saveToken(const AuthenticationData& data, std::string_view function) const {
  try {
    tokenItem().saveToken(data.token, storedServerURL());
  } catch (...) {
    KEL_LOG_ERROR(function, "Error saving token: " + describeError(std::current_exception()));
  }
}

bool KelServer::canRestoreSession() const {
  try {
    tokenItem().readToken();
  } catch (...) {
    return false;
  }
  return options_.userDefaults->boolForKey(keychainService());
}

std::string KelServer::lastUrlServer() const {
  try {
    return tokenItem().readToken().url;
  } catch (...) {
    return {};
  }
}

rx::SchedulerPtr KelServer::userInitiatedScheduler() const {
  return options_.makeUserInitiatedScheduler();
}

std::optional<GenericError> KelServer::cleartextSocketError() const {
  if (options_.allowsCleartextSocket || kelURL_.scheme_id() != boost::urls::scheme::https ||
      socketURL_.scheme_id() != boost::urls::scheme::ws) {
    return std::nullopt;
  }
  return GenericError(
      GenericErrorType::invalidURL(std::string(socketURL_.buffer())),
      "Refusing a clear-text socket (ws://) beside a TLS sign-in (https://): the session token "
      "would travel unencrypted. Use a wss:// socket URL, or allow it with "
      "KelServerOptions::allowsCleartextSocket.");
}

// --- Sign-in and restore ------------------------------------------------------------------------

rx::Single<AuthenticationData> KelServer::connect(std::string token) {
  if (auto refused = cleartextSocketError()) {
    KEL_LOG_ERROR("connect(using:)", refused->description());
    return rx::Single<AuthenticationData>::error(std::make_exception_ptr(*refused));
  }
  if (auto previous = socketClient_.value())
    previous->stop(platform::SocketCloseCode::normalClosure);
  auto client = socketBuilder_->newSocket();
  if (!client)
    return rx::Single<AuthenticationData>::error(
        std::make_exception_ptr(socketURLError(socketURL_)));
  KEL_LOG_DEBUG("connect(using:)", "KelServer: Starting connecting...");
  sessionState_->emit(State::connecting);
  socketClient_.accept(client);

  std::shared_ptr<AuthService> authService;
  try {
    authService = service<AuthService>(Domain::authorization);
  } catch (...) {
    return rx::Single<AuthenticationData>::error(toSDKError(std::current_exception()));
  }

  std::weak_ptr<KelServer> weak = weak_from_this();
  std::weak_ptr<AuthService> weakAuth = authService;
  auto chain =
      rx::Single<AuthenticationData>::deferred(
          [weakAuth, token = std::move(token), url = kelURL_, appVersion = appVersion_] {
            auto auth = weakAuth.lock();
            if (!auth) {
              return rx::Single<AuthenticationData>::error(
                  std::make_exception_ptr(ServiceProvider::serviceNotFound()));
            }
            return auth->registerUser(token, url, appVersion);
          })
          .map([weak](AuthenticationData data) {
            if (auto self = weak.lock()) {
              if (auto error = self->options_.userDefaults->setBool(true, keychainService())) {
                KEL_LOG_ERROR("connect(using:)",
                              "Error saving the restore flag: " + error.message());
              }
              self->saveToken(data, "connect(using:)");
              self->onNewAuthenticationData(data);
            }
            return data;
          })
          .subscribeOn(userInitiatedScheduler())
          .observeOn(options_.mainScheduler);
  return reportOutcome(std::move(chain), "connect(using:)", "Error connecting KEL session >> ");
}

rx::Single<AuthenticationData> KelServer::restoreSession(bool shouldCheckBackgroundState) {
  KeychainTokenItem::StoredToken stored;
  try {
    stored = tokenItem().readToken();
  } catch (...) {
    KEL_LOG_ERROR("restoreSession(shouldCheckBackgroundState:)", "No token to restore the session");
    return rx::Single<AuthenticationData>::error(std::make_exception_ptr(
        GenericError(GenericErrorType::notAllowed("No token to restore the session"), "")));
  }
  KEL_LOG_DEBUG("restoreSession(shouldCheckBackgroundState:)", "KelServer: Starting restoring...");
  const auto scheduler = userInitiatedScheduler();
  std::weak_ptr<KelServer> weak = weak_from_this();

  // The socket layer is reconnecting by itself: wait for it rather than sign in again.
  const auto client = socketClient_.value();
  const auto session = sessionState_->userSession();
  if (client && session &&
      client->currentStatus() ==
          SocketState::disconnected(SocketStateDisconnectedReason::lostConnection)) {
    KEL_LOG_DEBUG("restoreSession(shouldCheckBackgroundState:)",
                  "User connected: " + description(session->user));
    return client->socketConnectionEventChannel()
        .filter([](const SocketState& state) { return state == SocketState::authenticated(); })
        .take(1)
        .asSingle()
        .timeout(timeoutRestoreSession, options_.resumeTimeoutScheduler)
        .map([session = *session](const SocketState&) { return session; })
        .subscribeOn(scheduler)
        .observeOn(options_.mainScheduler)
        .catchError([weak](std::exception_ptr error) {
          auto self = weak.lock();
          if (!self) return rx::Single<AuthenticationData>::error(error);
          KEL_LOG_ERROR("restoreSession(shouldCheckBackgroundState:)",
                        "Session expired. Creating new session...");
          self->sessionState_->setUserSession(std::nullopt);
          self->userSession().onNext(std::nullopt);
          return self->restoreSession(true);
        });
  }

  if (shouldCheckBackgroundState && appIsInBackground_) {
    KEL_LOG_ERROR("restoreSession(shouldCheckBackgroundState:)",
                  "Session not restored because app is in background");
    return rx::Single<AuthenticationData>::error(std::make_exception_ptr(GenericError(
        GenericErrorType::notAllowed("Session not restored because app is in background"), "")));
  }

  if (auto refused = cleartextSocketError()) {
    KEL_LOG_ERROR("restoreSession(shouldCheckBackgroundState:)", refused->description());
    return rx::Single<AuthenticationData>::error(std::make_exception_ptr(*refused));
  }
  auto newClient = socketBuilder_->newSocket();
  if (!newClient) {
    return rx::Single<AuthenticationData>::error(
        std::make_exception_ptr(socketURLError(socketURL_)));
  }
  sessionState_->emit(State::connecting);
  socketClient_.accept(newClient);

  std::shared_ptr<AuthService> authService;
  try {
    authService = service<AuthService>(Domain::authorization);
  } catch (const GenericError&) {
    return rx::Single<AuthenticationData>::error(std::current_exception());
  } catch (...) {
    return rx::Single<AuthenticationData>::error(toSDKError(std::current_exception()));
  }

  std::weak_ptr<AuthService> weakAuth = authService;
  auto attempt = rx::Single<AuthenticationData>::deferred(
      [weakAuth, token = stored.token, url = kelURL_, appVersion = appVersion_] {
        auto auth = weakAuth.lock();
        if (!auth) {
          return rx::Single<AuthenticationData>::error(
              std::make_exception_ptr(ServiceProvider::serviceNotFound()));
        }
        return auth->session(token, url, appVersion);
      });
  auto shouldRetry = [weak](std::exception_ptr error) {
    bool decision = false;
    if (auto self = weak.lock()) {
      const auto* auth = errorAs<AuthError>(error);
      if (auth && rawValue(auth->type()) == "Wrong credentials") {
        decision = false;
      } else if (isCertificatePinMismatch(error)) {
        decision = false;
      } else {
        decision = self->sessionState_->currentState().value() != State::disconnectedBackground;
      }
    }
    KEL_LOG_ERROR(
        "restoreSession(shouldCheckBackgroundState:)",
        std::string("Should retry restoring KEL session >> ") + (decision ? "true" : "false"));
    return decision;
  };
  auto chain = retry(attempt, 1, RepeatBehavior::delayed(restoreAttempts, restoreDelaySeconds),
                     options_.mainScheduler, shouldRetry)
                   .map([weak](AuthenticationData data) {
                     if (auto self = weak.lock()) {
                       self->onNewAuthenticationData(data);
                       self->saveToken(data, "restoreSession(shouldCheckBackgroundState:)");
                     }
                     return data;
                   })
                   .subscribeOn(scheduler)
                   .observeOn(options_.mainScheduler);
  return reportOutcome(std::move(chain), "restoreSession(shouldCheckBackgroundState:)",
                       "Error restoring KEL session >> ");
}

rx::Single<AuthenticationData> KelServer::reportOutcome(rx::Single<AuthenticationData> chain,
                                                        std::string_view function,
                                                        std::string_view failure) {
  std::weak_ptr<KelServer> weak = weak_from_this();
  return chain
      .doOnSuccess([function](const AuthenticationData& data) {
        KEL_LOG_DEBUG(function, "User connected: " + description(data.user));
      })
      .doOnError([weak, function, failure](std::exception_ptr error) {
        auto self = weak.lock();
        KEL_LOG_ERROR(function, std::string(failure) +
                                    describeErrorWithSocketFailure(
                                        error, self ? self->socketClient_.value() : nullptr));
        if (self) self->sessionState_->emit(State::error);
      });
}

// --- Suspend, clear, logout ---------------------------------------------------------------------

void KelServer::suspend() {
  KEL_LOG_DEBUG("suspend()", "KelServer session disconnected");
  if (auto client = socketClient_.value()) client->stop(platform::SocketCloseCode::goingBackground);
}

void KelServer::clearSessionInfo() {
  KEL_LOG_DEBUG("clearSessionInfo()", "Deleting session info...");
  if (auto error = options_.userDefaults->setBool(false, keychainService())) {
    KEL_LOG_ERROR("clearSessionInfo()", "Error saving the restore flag: " + error.message());
  }
  try {
    tokenItem().deleteItem();
  } catch (...) {
  }
  sessionState_->setUserSession(std::nullopt);
  userSession().onNext(std::nullopt);
  kelEventHandler_->stopListeningForEvents();
  if (auto client = socketClient_.value()) client->stop(platform::SocketCloseCode::normalClosure);
}

rx::Single<rx::Unit> KelServer::logout(std::string deviceId) {
  std::optional<AuthenticationData> user;
  try {
    user = userSession().value();
  } catch (...) {
  }
  if (!user) return rx::Single<rx::Unit>::just(rx::Unit{});

  std::shared_ptr<AuthService> authService;
  std::shared_ptr<PushService> pushService;
  {
    std::lock_guard lock(providerMutex_);
    serviceProvider_ = makeServiceProvider();
  }
  try {
    authService = service<AuthService>(Domain::authorization);
    pushService = service<PushService>(Domain::push);
  } catch (...) {
    return rx::Single<rx::Unit>::error(std::make_exception_ptr(ServiceProvider::serviceNotFound()));
  }
  sessionState_->setIsLogout(true);

  std::weak_ptr<KelServer> weak = weak_from_this();
  auto unregister =
      pushService->deletePushToken(deviceId)
          .flatMap([authService, user = *user](rx::Unit) { return authService->unregister(user); })
          .asObservable();
  return rx::Observable<rx::Unit>::amb({unregister, waitForSocketDisconnected()})
      .take(1)
      .asSingle()
      .doOnSuccess([weak](rx::Unit) {
        if (auto self = weak.lock()) self->clearSessionInfo();
      });
}

// --- Metrics ------------------------------------------------------------------------------------

KelMetrics KelServer::metricsSnapshot() const {
  return metrics_->snapshot();
}

rx::Observable<KelMetrics> KelServer::metrics(rx::Duration every) const {
  if (every <= rx::Duration::zero()) {
    return rx::Observable<KelMetrics>::error(std::make_exception_ptr(
        GenericError(GenericErrorType::unknown(), "metrics(every:) needs a positive period")));
  }
  return rx::timer(rx::Duration::zero(), every, options_.mainScheduler)
      .map([metrics = metrics_](std::int64_t) { return metrics->snapshot(); });
}

// --- States -------------------------------------------------------------------------------------

rx::Observable<KelServer::State> KelServer::states() const {
  return sessionState_->currentState().asObservable().distinctUntilChanged();
}

rx::Observable<rx::Unit> KelServer::needsNewSession() const {
  {
    std::lock_guard lock(slot_->mutex);
    if (slot_->needsNewSession) return *slot_->needsNewSession;
  }
  return sessionState_->needsNewSession();
}

void KelServer::setNeedsNewSession(rx::Observable<rx::Unit> needsNewSession) {
  std::lock_guard lock(slot_->mutex);
  slot_->needsNewSession = std::move(needsNewSession);
}

KelServer::UserSession KelServer::userSession() const {
  std::lock_guard lock(slot_->mutex);
  return slot_->subject;
}

void KelServer::setUserSession(UserSession userSession) {
  std::lock_guard lock(slot_->mutex);
  slot_->subject = std::move(userSession);
}

}  // namespace kel
