#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <boost/url/url.hpp>

#include "ServerClient/Auth/Model/AuthenticationData.h"
#include "ServerClient/Client/CapabilityValidator.h"
#include "ServerClient/Client/KelMetrics.h"
#include "ServerClient/Client/KelServerState.h"
#include "ServerClient/Client/ServerState.h"
#include "ServerClient/Client/ServiceProvider.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Socket/Client/SocketClient.h"
#include "ServerClient/Socket/Events/KelEventHandler.h"
#include "ServerClient/Socket/SocketBuilder.h"
#include "ServerClient/Utils/KeychainTokenItem.h"
#include "ServerClient/platform/ApplicationLifecycle.h"
#include "ServerClient/platform/DeviceInfo.h"
#include "ServerClient/platform/HTTPClient.h"
#include "ServerClient/platform/Keychain.h"
#include "ServerClient/platform/UserDefaults.h"
#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Scheduler.h"
#include "ServerClient/rx/Subjects.h"

namespace kel {

class AddressBooksEventHandler;
class AlertsEventHandler;
class AlertsService;
class CacheAddressBooksService;
class CacheGroupService;
class CachePresencesService;
class ConferenceLogEventHandler;
class ConferenceLogService;
class GroupEventHandler;
class IndividualChatListEventHandler;
class KeepConnectionService;
class MeetingsEventHandler;
class MeetingsService;
class MissedCallsEventHandler;
class MissedCallsService;
class PresencesEventHandler;
class PushService;
class UserContactsService;
class UserService;
class XMPPService;

/// A domain event handler that the facade makes on first use, with its own KelEventHandler, and
/// that the application may replace. Thread-safe.
template <class Handler>
class LazyEventHandler {
 public:
  /// The handler set last, or, when none is there, a new one made on `kelEventHandler`
  /// delivering on `scheduler`, which is then kept.
  std::shared_ptr<Handler> get(const std::shared_ptr<KelEventHandler>& kelEventHandler,
                               const rx::SchedulerPtr& scheduler) {
    std::lock_guard lock(mutex_);
    if (!handler_) handler_ = std::make_shared<Handler>(kelEventHandler, scheduler);
    return handler_;
  }
  /// Makes `handler` the one get() hands out from now on; null makes get() build a new one.
  /// Streams already taken from the previous handler keep working.
  void set(std::shared_ptr<Handler> handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
  }

 private:
  std::mutex mutex_;  // guards handler_
  std::shared_ptr<Handler> handler_;
};

/// What the facade takes from its surroundings; empty members take the defaults named.
struct KelServerOptions {
  /// Where results reach the application and where restore retries wait: MainScheduler.
  rx::SchedulerPtr mainScheduler{};
  /// Runs each sign-in and restore: a new concurrent scheduler per call by default.
  std::function<rx::SchedulerPtr()> makeUserInitiatedScheduler{};
  /// Times the 3-second wait of a restore while the socket reconnects: a concurrent scheduler.
  rx::SchedulerPtr resumeTimeoutScheduler{};
  /// Runs the renewal loop: the serial queue "rx.global_dispatch_queue.serial".
  rx::SchedulerPtr renewalScheduler{};
  /// The keychain of the token store: the Secret Service.
  std::shared_ptr<platform::Keychain> keychain{};
  /// Holds the "session can be restored" flag: UserDefaults::forApplication(teamId), a file of
  /// the application's own, so that applications of other teams on the same account never see
  /// or reset it.
  std::shared_ptr<platform::UserDefaults> userDefaults{};
  /// Foreground and background notifications, for the facade and for every socket client it
  /// makes (unless socketPlatform names another): ApplicationLifecycle::shared().
  std::shared_ptr<platform::ApplicationLifecycle> applicationLifecycle{};
  /// Sign-in over HTTP: the Beast client with the shared cookie storage.
  std::shared_ptr<platform::HTTPClient> httpClient{};
  /// The sign-in's device description: this machine's.
  std::shared_ptr<const platform::DeviceInfo> deviceInfo{};
  /// The socket's platform: the Beast WebSocket, shared cookies, netlink reachability.
  std::optional<SocketBuilder::Platform> socketPlatform{};
  /// What the HTTPS sign-in and the WSS sockets that the facade makes trust: the system's
  /// authorities by default, further authorities, and pinned server keys (TlsTrust::pins, with
  /// backup pins for a key rotation), the same for both. A pin mismatch fails sign-in and restore
  /// with a GenericError whose underlying error names the server and says the pin did not match;
  /// neither restore nor the socket's reconnection retries it. Set only with the facade's own
  /// adapters: create() throws std::invalid_argument when this differs from the default while
  /// httpClient or socketPlatform->makeSocket is given, so that no pin is ever silently ignored,
  /// and for an authority or pin that cannot be read.
  platform::TlsTrust trust{};
  /// The period of reconnection attempts after a lost connection.
  rx::Duration reconnectionAttempt = kReconnectionAttempt;
  /// Allows a clear-text socket (ws://) beside a TLS sign-in (https://). Off: such a pair of URLs
  /// is refused at sign-in and restore, since the session token that the TLS sign-in protected
  /// would then travel in the clear. Plain http with ws, and https or http with wss, are always
  /// allowed.
  bool allowsCleartextSocket = false;
};

/// The one object through which an application uses the server: sign-in, restore, suspend,
/// logout, the session's state and user data, and the domain services.
///
///                 connect() / restore builds a socket
///   new, error, ... --------------------------------> connecting
///   connecting --sign-in or restore succeeds--> connected --(renewal every 20 s while here)
///   connecting --fails--> error
///   any --socket: expectedClose, lostConnection, error--> disconnected
///   any --socket: background (suspend())--> disconnectedBackground
///   disconnected --socket authenticated again, user present--> connected
///
/// An expected close (the server ended the session, or the client was stopped with the normal
/// code) while no logout is under way raises needsNewSession once; the facade then clears the
/// session.
///
/// Where the session is kept: the token item of KeychainTokenItem in the access group
/// keychainAccessGroup(teamId) (every read, write and delete names it, so that one team's
/// clearSessionInfo() or logout leaves another team's session alone; an empty team id is the
/// default group only), and the restore flag in the application's own user defaults (see
/// KelServerOptions::userDefaults).
///
/// The application may replace userSession and needsNewSession:
/// - setUserSession(subject) makes `subject` the one the library works with from then on: sign-in,
///   restore and clearSessionInfo() publish on it, logout and renewal read it, and the socket
///   builder reads the token for a reconnection from it (it reads through the facade at each
///   reconnection, never a copy taken earlier, so a replacement during a reconnection is seen by
///   the next one). The previous subject gets nothing more. The subject's current value is taken
///   as it is: replacing it does not sign in, restore or change the facade's state.
/// - setNeedsNewSession(stream) changes what needsNewSession() hands out; the facade's own
///   reaction to the server ending the session (clearSessionInfo()) follows ServerState and does
///   not depend on it.
///
/// Threads: operations may be called from any thread. Sign-in and restore run on a concurrent
/// scheduler and deliver on the main scheduler; their side effects (flag, keychain,
/// onNewAuthenticationData) happen before that hand-over. The renewal loop runs on its own serial
/// queue. Every long-lived subscription holds the facade weakly. The service provider is guarded
/// by a mutex; the slot and subjects are thread-safe; the background flag is atomic.
class KelServer : public std::enable_shared_from_this<KelServer> {
 public:
  /// The facade's connection state (see the diagram above).
  using State = KelServerState;
  /// What create() takes from its surroundings.
  using Options = KelServerOptions;

  /// How long a restore waits for a reconnecting socket to authenticate again.
  static constexpr std::chrono::seconds timeoutRestoreSession{3};
  /// The period of session renewal while connected.
  static constexpr std::chrono::seconds renewalPeriod{20};
  /// Attempts (in all) and seconds between them of a full restore.
  static constexpr std::uint64_t restoreAttempts = 30;
  /// Seconds between two attempts of a full restore, waited on the main scheduler.
  static constexpr double restoreDelaySeconds = 2.0;

  /// A facade for the server whose HTTPS sign-in is at `kelURL` and whose WebSocket is at
  /// `socketURL`. `appVersion` goes into the sign-in's device description; `teamId` names the
  /// keychain access group and the user-defaults file that keep the session (see the class
  /// comment). Nothing is sent until connect() or restoreSession(); empty options take the
  /// defaults named in KelServerOptions. Throws std::invalid_argument for options.trust given
  /// together with own adapters, or for an authority or pin that cannot be read.
  static std::shared_ptr<KelServer> create(boost::urls::url kelURL, boost::urls::url socketURL,
                                           std::string appVersion, std::string teamId,
                                           Options options = {});
  /// Ends the facade's own subscriptions (socket states, lifecycle, renewal loop). It neither
  /// stops the socket client nor tells the server anything: call suspend(), clearSessionInfo()
  /// or logout() first for an orderly end.
  ~KelServer();
  KelServer(const KelServer&) = delete;
  KelServer& operator=(const KelServer&) = delete;

  /// Signs in with an outside sign-in token. At the call, the previous socket client is stopped
  /// (normal closure), a new one takes its place and the state becomes connecting; when the
  /// result is subscribed, the token goes to "<kelURL>/login" over HTTPS, the socket connects
  /// and authenticates with the session token, and the user's permissions are read. On success
  /// the session token is saved in the keychain, the restore flag is set, the capabilities and
  /// userSession() are updated and the state becomes connected, all before the result is
  /// delivered on the main scheduler. Fails with: GenericError(invalidURL) at once when no socket
  /// can be made for the socket URL or a ws:// socket is refused beside an https:// sign-in;
  /// AuthError(wrongCredentials) for HTTP 401/403; the mapped ConnectionError for other 4xx;
  /// GenericError(invalidResponse) for an empty answer, GenericError(decoding) for an answer
  /// that is not session data, GenericError(underlying) for a transport failure (certificate pin
  /// mismatch included); ConnectionError(timeout, -1) when the socket does not open or
  /// authenticate within 20 s; ConnectionError(noSocketClient, -1, kClosedDuringSignIn) when it
  /// closes meanwhile. A failure moves the state to error. Disposing drops the result; an HTTP
  /// exchange already under way runs to its end.
  rx::Single<AuthenticationData> connect(std::string token);
  /// Resumes the session whose token the keychain holds. When the socket of a present session
  /// is reconnecting by itself (lost connection), waits up to timeoutRestoreSession for it to
  /// authenticate again and yields that session; failing that, forgets it and restores in full
  /// as with `shouldCheckBackgroundState` true. A full restore makes a new socket client (state
  /// connecting) and, when subscribed, signs in with the stored token at
  /// "<kelURL>/login/sessionToken", then connects and reads the permissions as connect() does;
  /// it is tried restoreAttempts times in all, restoreDelaySeconds apart, but never again after
  /// an AuthError(wrongCredentials), a certificate pin mismatch, or while the state is
  /// disconnectedBackground. On success the capabilities, userSession() and the stored token are
  /// renewed; the result arrives on the main scheduler. Fails at once with
  /// GenericError(notAllowed) when no token can be read from the keychain, or when
  /// `shouldCheckBackgroundState` is set and the application is in the background; otherwise
  /// with connect()'s errors (the last attempt's). A failure moves the state to error. Disposing
  /// stops the retries.
  rx::Single<AuthenticationData> restoreSession(bool shouldCheckBackgroundState);
  /// Signs out: removes the push registration of `deviceId`, then ends the server session
  /// (DELETE "/sessions/<id>"), and on success forgets the session as clearSessionInfo() does.
  /// Succeeds at once, doing nothing, when no user is signed in. At the call the domain services
  /// are dropped (services obtained earlier keep working through the same socket; the accessors
  /// make new ones) and the coming close is marked as asked for, so that it raises no
  /// needsNewSession. When subscribed, the first of these decides: both requests answered
  /// (success), the state becoming disconnected (success: the server closed the socket), or
  /// either request failing (that error, e.g. ConnectionError(noSocketClient) when the socket is
  /// not authenticated; the local session is then kept, and clearSessionInfo() forgets it).
  /// The result arrives on the socket's network thread or the thread that saw the state change
  /// (at once on the subscribing thread when nobody is signed in).
  rx::Single<rx::Unit> logout(std::string deviceId);
  /// Closes the socket for the background (close code goingBackground): the state becomes
  /// disconnectedBackground, nothing reconnects, and the stored session stays for a later
  /// restoreSession(). Pending requests complete without an element. Does nothing without a
  /// socket client.
  void suspend();
  /// Forgets the session locally: clears the restore flag, deletes the keychain items (failures
  /// ignored), empties userSession(), completes the event channel and stops the socket (normal
  /// closure). The event channel stays completed: every domain event handler's streams end, and
  /// this facade delivers no further server events, even after a new sign-in. The facade calls
  /// it itself after logout() and when the server ends the session.
  void clearSessionInfo();

  /// The facade's states without consecutive repeats: the current one at once, then each
  /// change. States arrive on the thread that caused them (the socket's network thread, the
  /// sign-in chain's, or the caller's for connecting), not on the main scheduler; add
  /// observeOn(mainScheduler) for a user interface. Never fails; disposing only unsubscribes.
  rx::Observable<State> states() const;
  /// The subject that holds the signed-in user's data, or nothing.
  using UserSession = rx::BehaviorSubject<std::optional<AuthenticationData>>;
  /// Emits when the server closed the session and a new sign-in is needed (or what the
  /// application set in its place). Usually arrives on the socket's network thread.
  rx::Observable<rx::Unit> needsNewSession() const;
  /// Makes needsNewSession() hand out `needsNewSession` from now on (see the class comment).
  void setNeedsNewSession(rx::Observable<rx::Unit> needsNewSession);
  /// The signed-in user's data, or empty; see the top for replacing it. The subject emits on
  /// the thread of the sign-in chain (usually the socket's network thread) or of the caller of
  /// clearSessionInfo().
  UserSession userSession() const;
  /// Makes `userSession` the subject the library works with (see the class comment).
  void setUserSession(UserSession userSession);
  /// A stored token can be read and the flag says the session may be restored. Reads the
  /// keychain synchronously; never throws.
  bool canRestoreSession() const;
  /// The server URL text stored with the token; empty when none can be read.
  std::string lastUrlServer() const;

  /// What the facade's socket clients have done since it was made (see KelMetrics), counted
  /// across reconnections and sessions. The recorder is socketPlatform->clientOptions.metrics
  /// when the application set one, else the facade's own. From any thread, without a lock.
  KelMetrics metricsSnapshot() const;
  /// metricsSnapshot() at once and then every `every`, on the main scheduler, for as long as the
  /// subscription lasts: a timer runs only while subscribed, and disposing of the subscription
  /// cancels it. A sample at a steady pace rather than one per change, since the figures change
  /// with every request and a display or a log wants them at its own rate. Fails at once with
  /// GenericError(unknown) when `every` is not positive.
  rx::Observable<KelMetrics> metrics(rx::Duration every) const;

  /// @name Domain services
  /// Each accessor makes its domain's service on first use and hands out that same instance
  /// until logout(). A service reaches the server through the current socket client, whatever
  /// it was when the service was made. Each throws what the service provider throws (see
  /// ServiceProvider), at least GenericError(underlying, "Service not found"). Their results
  /// arrive on the socket's network thread.
  ///@{

  /// Reads and updates server users.
  std::shared_ptr<UserService> userService();
  /// Registers and removes the device's push token.
  std::shared_ptr<PushService> pushService();
  /// The address books, cached.
  std::shared_ptr<CacheAddressBooksService> addressBooks();
  /// The user's own contacts.
  std::shared_ptr<UserContactsService> userContacts();
  /// Presence, cached. Refused (GenericError notAllowed "presence") while the user lacks the
  /// presence capability.
  std::shared_ptr<CachePresencesService> presencesService();
  /// Groups, cached.
  std::shared_ptr<CacheGroupService> groupService();
  /// Meetings.
  std::shared_ptr<MeetingsService> meetingsService();
  /// The conference log (call history). Refused (GenericError notAllowed "+call-history") while
  /// the user lacks the call-history capability.
  std::shared_ptr<ConferenceLogService> conferenceLogService();
  /// Missed calls.
  std::shared_ptr<MissedCallsService> missedCallsService();
  /// Alerts.
  std::shared_ptr<AlertsService> alerts();
  /// The chat list.
  std::shared_ptr<XMPPService> xmppService();
  ///@}

  /// @name Domain event handlers
  /// Each getter makes its domain's handler on first use, on the facade's event channel and
  /// delivering on the main scheduler (Options::mainScheduler), and then keeps it; each setter
  /// replaces it (null: the next get makes a new one). A handler's streams start listening once
  /// the main scheduler has run their subscription, and end when the session is cleared (see
  /// clearSessionInfo()). Thread-safe.
  ///@{

  /// Contacts and address-book changes.
  std::shared_ptr<AddressBooksEventHandler> addressBooksEventHandler();
  /// Replaces the address-book handler.
  void setAddressBooksEventHandler(std::shared_ptr<AddressBooksEventHandler> handler);
  /// Presence changes of the addresses subscribed to.
  std::shared_ptr<PresencesEventHandler> presenceEventHandler();
  /// Replaces the presence handler.
  void setPresenceEventHandler(std::shared_ptr<PresencesEventHandler> handler);
  /// Groups made, changed and deleted, and participants removed.
  std::shared_ptr<GroupEventHandler> groupEventHandler();
  /// Replaces the group handler.
  void setGroupEventHandler(std::shared_ptr<GroupEventHandler> handler);
  /// Meetings made, changed and deleted.
  std::shared_ptr<MeetingsEventHandler> meetingsEventHandler();
  /// Replaces the meetings handler.
  void setMeetingsEventHandler(std::shared_ptr<MeetingsEventHandler> handler);
  /// New conference-log entries.
  std::shared_ptr<ConferenceLogEventHandler> conferenceLogEventHandler();
  /// Replaces the conference-log handler.
  void setConferenceLogEventHandler(std::shared_ptr<ConferenceLogEventHandler> handler);
  /// New missed calls.
  std::shared_ptr<MissedCallsEventHandler> missedCallsEventHandler();
  /// Replaces the missed-calls handler.
  void setMissedCallsEventHandler(std::shared_ptr<MissedCallsEventHandler> handler);
  /// Alerts raised and alerts changed.
  std::shared_ptr<AlertsEventHandler> alertsEventHandler();
  /// Replaces the alerts handler.
  void setAlertsEventHandler(std::shared_ptr<AlertsEventHandler> handler);
  /// Chats added to and removed from the chat list.
  std::shared_ptr<IndividualChatListEventHandler> individualChatListEventHandler();
  /// Replaces the chat-list handler.
  void setIndividualChatListEventHandler(std::shared_ptr<IndividualChatListEventHandler> handler);
  ///@}

  /// @name The parts, for the application and for tests
  ///@{

  /// The one event channel of the facade's sockets, which every domain handler filters.
  const std::shared_ptr<KelEventHandler>& kelEventHandler() const noexcept {
    return kelEventHandler_;
  }
  /// The current socket client, null before the first sign-in or restore; replaced by each.
  const rx::BehaviorRelay<std::shared_ptr<SocketClient>>& socketClient() const noexcept {
    return socketClient_;
  }
  /// The state machine behind states() and needsNewSession().
  const std::shared_ptr<ServerState>& sessionState() const noexcept { return sessionState_; }
  /// The capabilities of the last sign-in, which the service accessors check.
  const std::shared_ptr<CapabilityValidator>& capabilityValidator() const noexcept {
    return capabilityValidator_;
  }
  /// Whether the last lifecycle notification was did-enter-background.
  bool appIsInBackground() const noexcept { return appIsInBackground_.load(); }
  /// The keychain service name, also the key of the restore flag.
  static std::string keychainService() { return std::string(kKeychainServiceIdentifier); }
  /// The keychain access group of the team id given to create(); nothing for an empty one.
  std::optional<std::string> keychainAccessGroup() const;
  /// The sign-in base URL given to create().
  const boost::urls::url& kelURL() const noexcept { return kelURL_; }
  /// The WebSocket URL given to create().
  const boost::urls::url& socketURL() const noexcept { return socketURL_; }
  ///@}

 private:
  struct Passkey {
    explicit Passkey() = default;
  };

 public:
  /// For std::make_shared inside create() only (the key is private); use create().
  KelServer(Passkey, boost::urls::url kelURL, boost::urls::url socketURL, std::string appVersion,
            std::string teamId, Options options);

 private:
  template <class T>
  std::shared_ptr<T> service(ServiceProvider::Domain domain);
  std::shared_ptr<ServiceProvider> makeServiceProvider() const;
  void performActionsOnStateChange();
  void onNewAuthenticationData(const AuthenticationData& data);
  rx::Observable<rx::Unit> waitForSocketDisconnected() const;
  rx::Observable<rx::Unit> renewSession();
  KeychainTokenItem tokenItem() const;
  std::string storedServerURL() const;
  void saveToken(const AuthenticationData& data, std::string_view function) const;
  /// Logs how a sign-in or restore chain ended, as `function`, and moves to `error` on failure.
  /// Both texts are literals.
  rx::Single<AuthenticationData> reportOutcome(rx::Single<AuthenticationData> chain,
                                               std::string_view function, std::string_view failure);
  rx::SchedulerPtr userInitiatedScheduler() const;
  std::optional<GenericError> cleartextSocketError() const;

  const boost::urls::url kelURL_;
  const boost::urls::url socketURL_;
  const std::string appVersion_;
  const std::string teamId_;
  Options options_;

  // Shared with the socket builder's token reader, so that a replaced subject is the one read.
  struct UserSessionSlot {
    mutable std::mutex mutex;  // guards both members
    UserSession subject{std::nullopt};
    std::optional<rx::Observable<rx::Unit>> needsNewSession;
  };
  const std::shared_ptr<UserSessionSlot> slot_ = std::make_shared<UserSessionSlot>();
  rx::BehaviorRelay<std::shared_ptr<SocketClient>> socketClient_{nullptr};
  std::shared_ptr<CapabilityValidator> capabilityValidator_;
  std::shared_ptr<ServerState> sessionState_;
  std::atomic<bool> appIsInBackground_ = false;
  std::shared_ptr<KelEventHandler> kelEventHandler_;
  std::shared_ptr<SocketBuilder> socketBuilder_;
  std::shared_ptr<KelMetricsRecorder> metrics_;  // handed to every socket client made

  mutable std::mutex providerMutex_;  // guards serviceProvider_ (replaced by logout)
  std::shared_ptr<ServiceProvider> serviceProvider_;

  LazyEventHandler<AddressBooksEventHandler> addressBooksEventHandler_;
  LazyEventHandler<PresencesEventHandler> presenceEventHandler_;
  LazyEventHandler<GroupEventHandler> groupEventHandler_;
  LazyEventHandler<MeetingsEventHandler> meetingsEventHandler_;
  LazyEventHandler<ConferenceLogEventHandler> conferenceLogEventHandler_;
  LazyEventHandler<MissedCallsEventHandler> missedCallsEventHandler_;
  LazyEventHandler<AlertsEventHandler> alertsEventHandler_;
  LazyEventHandler<IndividualChatListEventHandler> individualChatListEventHandler_;

  std::once_flag renewOnce_;
  rx::Observable<rx::Unit> renewSession_ = rx::Observable<rx::Unit>::empty();
  rx::DisposeBag disposeBag_;
};

}  // namespace kel
