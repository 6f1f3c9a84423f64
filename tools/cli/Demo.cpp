// `kel demo`: one whole session against an emulator in this process, narrated step by step.

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/url/parse.hpp>
#include <nlohmann/json.hpp>

#include "ServerClient/AddressBooks/Event/AddressBooksEventHandler.h"
#include "ServerClient/AddressBooks/Service/AddressBooksService.h"
#include "ServerClient/Alert/Event/AlertsEventHandler.h"
#include "ServerClient/Alert/Service/AlertsService.h"
#include "ServerClient/Auth/Service/AuthService.h"
#include "ServerClient/Client/KelServer.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/ConferenceLog/Service/ConferenceLogService.h"
#include "ServerClient/Contact/Service/UserContactsService.h"
#include "ServerClient/Group/Event/GroupEventHandler.h"
#include "ServerClient/Group/Service/GroupService.h"
#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Meeting/Event/MeetingsEventHandler.h"
#include "ServerClient/Meeting/Service/MeetingsService.h"
#include "ServerClient/MissedCalls/Service/MissedCallsService.h"
#include "ServerClient/Presence/Event/PresencesEventHandler.h"
#include "ServerClient/Presence/Service/PresencesService.h"
#include "ServerClient/Push/PushService.h"
#include "ServerClient/User/UserService.h"
#include "ServerClient/XMPP/Service/XMPPService.h"
#include "ServerClient/platform/InMemoryKeychain.h"
#include "ServerClient/platform/UserDefaults.h"
#include "cli/Commands.h"
#include "cli/MainLoop.h"
#include "cli/Output.h"
#include "emulator/Emulator.h"

namespace kel::cli {

namespace {

using namespace std::chrono_literals;
using State = KelServer::State;
using emulator::Emulator;
using emulator::Recipients;

constexpr std::string_view kUser = "alice";
constexpr std::string_view kSignInToken = "alice-sign-in-token";
// The second user, who sees what the first one changes.
constexpr std::string_view kOtherUser = "bob";
constexpr std::string_view kOtherSignInToken = "bob-sign-in-token";
constexpr std::string_view kGroupId = "demo-team";
// Both users belong to it, so that each sees the other's alerts.
constexpr std::string_view kUserDomain = "demo.kel";
constexpr std::string_view kAlertTemplate = "demo-drill";
constexpr std::string_view kDeviceId = "demo-device";
constexpr std::string_view kPushToken = "demo-push-token";
// Shorter than the library's 3 s so that the demo does not sit idle; the facade takes it as an
// option for exactly this kind of caller.
constexpr std::chrono::seconds kDemoReconnectionAttempt{1};
// Bounds on the waits that only involve loopback traffic.
constexpr std::chrono::milliseconds kStepTimeout = 10s;

struct StepFailed {
  std::string text;
};

std::string secondsText(std::chrono::steady_clock::duration duration) {
  const auto tenths = std::chrono::duration_cast<std::chrono::milliseconds>(duration).count() / 100;
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

class Demo {
 public:
  explicit Demo(const CommandLine& line) : line_(line) {}
  const std::string& currentStep() const noexcept { return current_; }

  ~Demo() {
    subscriptions_.reset();
    other_.reset();
    server_.reset();
    loop_.runFor(50ms);
    emulator_.reset();
  }

  void run() {
    step("start the emulator", [&] { startEmulator(); });
    step("create the facade", [&] { createServer(); });
    step("sign in", [&] { signIn(); });
    step("request over the socket", [&] { fetchUser(); });
    step("register a push token", [&] { registerPush(); });
    step("a second user", [&] { signInOtherUser(); });
    step("presence seen by the other user", [&] { sharePresence(); });
    step("a group of both users", [&] { shareGroup(); });
    step("a contact in the address book", [&] { addContact(); });
    step("a meeting the other user is invited to", [&] { shareMeeting(); });
    step("a missed call", [&] { missCall(); });
    step("an alert accepted by the other user", [&] { shareAlert(); });
    step("a chat in the chat list", [&] { addChat(); });
    step("the second user goes away", [&] { signOutOtherUser(); });
    step("session renewal", [&] { waitForRenewal(); });
    step("dropped connection", [&] { dropConnection(); });
    step("restore from the keychain", [&] { suspendAndRestore(); });
    step("session ended by the server", [&] { serverEndsSession(); });
    step("sign in again", [&] { signIn(); });
    step("logout", [&] { logout(); });
  }

 private:
  template <class F>
  void step(std::string_view name, F body) {
    current_ = name;
    say("--- " + std::string(name));
    body();
  }

  [[noreturn]] void fail(const std::string& text) { throw StepFailed{text}; }

  template <class T>
  T await(const std::string& what, const rx::Single<T>& single,
          std::chrono::milliseconds timeout = kStepTimeout) {
    auto outcome = loop_.await(single, timeout);
    if (outcome.error) {
      fail(what + " failed: [" + errorKind(outcome.error) + "] " + describeError(outcome.error));
    }
    if (!outcome.value) fail(what + ": no answer within " + secondsText(timeout));
    return std::move(*outcome.value);
  }

  void await(const std::string& what, const rx::Completable& completable) {
    await(what, completable.andThen(rx::Single<rx::Unit>::just(rx::Unit{})));
  }

  void waitFor(const std::string& what, const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = kStepTimeout) {
    if (!loop_.runUntil(condition, timeout)) fail("no " + what + " within " + secondsText(timeout));
  }

  /// Waits for `state` among the states seen since index `from`; returns the index after it.
  std::size_t waitForState(State state, std::size_t from,
                           std::chrono::milliseconds timeout = kStepTimeout) {
    std::size_t found = 0;
    waitFor(
        "state " + std::string(name(state)),
        [&] {
          for (std::size_t i = from; i < states_.size(); ++i) {
            if (states_[i] == state) {
              found = i + 1;
              return true;
            }
          }
          return false;
        },
        timeout);
    return found;
  }

  void startEmulator() {
    emulator::Options options;
    options.host = "127.0.0.1";
    options.port = 0;
    if (line_.verbose) {
      options.log = [](std::string_view text) { std::cerr << "emulator: " << text << std::endl; };
    }
    emulator_ = std::make_unique<Emulator>(std::move(options));
    for (const auto& [user, token] :
         {std::pair{kUser, kSignInToken}, std::pair{kOtherUser, kOtherSignInToken}}) {
      auto account = emulator::defaultAccount(std::string(user), std::string(token));
      // Without them the library refuses the presence and conference-log services.
      account.capabilities["domain"] = nlohmann::json::array({"presence", "call-history"});
      account.user["domain"] = kUserDomain;
      emulator_->addAccount(std::move(account));
    }
    emulator_->alerts().addTemplate({{"templateId", kAlertTemplate},
                                     {"title", "Fire drill"},
                                     {"payload", "Meet at the assembly point"}});
    urls_ = emulator_->start();
    say("emulator listening on " + urls_.kelURL + ", socket " + urls_.socketURL);
    say("alert template \"" + std::string(kAlertTemplate) + "\" for the domain " +
        std::string(kUserDomain));
    say("two users, \"" + std::string(kUser) + "\" and \"" + std::string(kOtherUser) +
        "\", who sign in with the tokens \"" + std::string(kSignInToken) + "\" and \"" +
        std::string(kOtherSignInToken) + "\"");
  }

  /// A facade of the demo's own: in-memory keychain and defaults unless --real-keychain.
  std::shared_ptr<KelServer> makeServer(const std::string& team,
                                        const std::string& deviceIdentifier, bool realKeychain) {
    KelServerOptions options;
    if (realKeychain) {
      options.keychain = platform::SecretServiceKeychain::shared();
    } else {
      options.keychain = std::make_shared<platform::InMemoryKeychain>();
    }
    // The restore flag would otherwise go to the user's defaults file.
    options.userDefaults = std::make_shared<platform::InMemoryUserDefaults>();
    // This machine's description, but an identifier of the demo's own: the system one is
    // created on first use in the user's configuration directory.
    const auto system = AuthService::systemDeviceInfo();
    auto device = std::make_shared<platform::FixedDeviceInfo>();
    device->name = system->systemName();
    device->version = system->systemVersion();
    device->model = system->modelName();
    device->identifier = deviceIdentifier;
    options.deviceInfo = std::move(device);
    options.reconnectionAttempt = kDemoReconnectionAttempt;
    return KelServer::create(
        boost::urls::url(boost::urls::parse_absolute_uri(urls_.kelURL).value()),
        boost::urls::url(boost::urls::parse_absolute_uri(urls_.socketURL).value()), "1.0.0", team,
        std::move(options));
  }

  void createServer() {
    say(line_.realKeychain ? "keychain: the Secret Service (--real-keychain)"
                           : "keychain: in memory, private to this run");
    say("reconnection attempts every " + std::to_string(kDemoReconnectionAttempt.count()) +
        " s for this demo (the library's default is " +
        std::to_string(kReconnectionAttempt.count()) + " s)");
    server_ = makeServer("KELDEMO", "0DE70DE7-0000-4000-8000-000000000001", line_.realKeychain);
    const auto main = rx::MainScheduler::instance();
    server_->states()
        .observeOn(main)
        .subscribe([this](State state) {
          states_.push_back(state);
          say("state: " + std::string(name(state)));
        })
        .disposed(*subscriptions_);
    server_->needsNewSession()
        .observeOn(main)
        .subscribe([this](rx::Unit) {
          ++needsNewSession_;
          say("needsNewSession: the server closed the session, a new sign-in is needed");
        })
        .disposed(*subscriptions_);
    if (server_->canRestoreSession()) {
      say("the keychain already holds a session; signing in replaces it");
    }
  }

  void signIn() {
    const auto from = states_.size();
    const auto data = await("connect", server_->connect(std::string(kSignInToken)));
    waitForState(State::connected, from);
    token_ = data.token;
    say("signed in as " + data.user.userId + " <" + data.user.email + ">, role " + data.user.role +
        ", session " + data.session.sessionID);
    std::string capabilities;
    for (const auto& capability : data.capabilities->active()) {
      capabilities += (capabilities.empty() ? "" : ", ") + capability;
    }
    say("capabilities: " + (capabilities.empty() ? std::string("(none)") : capabilities));
    if (data.permissions) {
      say("permissions: recording " + data.permissions->recording.recordingType.value_or("-") +
          ", voicemail " +
          (data.permissions->voicemail.enabled.value_or(false) ? "enabled" : "disabled"));
    }
    if (!server_->canRestoreSession()) fail("the session was not stored in the keychain");
    say("session stored in the keychain for " + server_->lastUrlServer());
    connectedAt_ = std::chrono::steady_clock::now();
  }

  void fetchUser() {
    const auto user =
        await("GET /users/" + std::string(kUser), server_->userService()->user(std::string(kUser)));
    say("GET /users/" + std::string(kUser) + " over the socket: " + userJson(user).dump());
  }

  void registerPush() {
    await("sendPushToken", server_->pushService()->sendPushToken(std::string(kPushToken), false,
                                                                 std::string(kDeviceId)));
    const auto registrations = emulator_->signIn().pushRegistrations();
    if (registrations.size() != 1 || registrations.front().deviceId != kDeviceId) {
      fail("the emulator holds no push registration for " + std::string(kDeviceId));
    }
    say("push token registered for device " + std::string(kDeviceId));
  }

  /// Collects what `stream` delivers into `into`; a stream that fails fails the step that waits.
  template <class T>
  void collect(const rx::Observable<T>& stream, std::vector<T>& into, const std::string& what) {
    stream
        .subscribe([&into](const T& value) { into.push_back(value); },
                   [this, what](std::exception_ptr error) {
                     streamFailure_ = what + " failed: " + describeError(error);
                   })
        .disposed(*subscriptions_);
  }

  void waitForEvent(const std::string& what, const std::function<bool()>& seen) {
    waitFor(what, [&] { return seen() || streamFailure_; });
    if (streamFailure_) fail(*streamFailure_);
  }

  void signInOtherUser() {
    other_ = makeServer("KELDEMO.B", "0DE70DE7-0000-4000-8000-000000000002", false);
    const auto data = await("connect", other_->connect(std::string(kOtherSignInToken)));
    say("signed in as " + data.user.userId + " with a facade of its own (in-memory keychain)");
    collect(other_->presenceEventHandler()->presenceUpdated(), otherPresences_, "presence events");
    collect(other_->groupEventHandler()->newGroup(), otherNewGroups_, "new-group events");
    collect(other_->groupEventHandler()->groupUpdated(), otherGroupUpdates_, "group events");
    collect(server_->addressBooksEventHandler()->newContact(), newContacts_, "contact events");
    collect(other_->meetingsEventHandler()->newMeeting(), otherMeetings_, "meeting events");
    collect(other_->alertsEventHandler()->newAlert(), otherAlerts_, "alert events");
    collect(server_->alertsEventHandler()->updatedAlert(), updatedAlerts_, "alert events");
    say(std::string(kOtherUser) + " listens to presence, group, meeting and alert events, " +
        std::string(kUser) + " to contact and alert events");
  }

  void sharePresence() {
    const auto address = std::string(kKelUserPrefix) + std::string(kUser);
    const auto subscribed = await("subscribe", other_->presencesService()->subscribe(address));
    say(std::string(kOtherUser) + " subscribed to " + address + " (" +
        (subscribed.presence.online.value_or(false) ? "online" : "offline") + ", activity \"" +
        subscribed.presence.activity.value_or("") + "\")");
    PresenceUpdateRequest change;
    change.address = address;
    change.online = true;
    change.activity = "busy";
    change.note = "showing the demo";
    change.avatar = "";  // keeps the picture
    await("update", server_->presencesService()->update(change));
    say(std::string(kUser) + " is now online, busy, \"showing the demo\"");
    waitForEvent("presence event at " + std::string(kOtherUser), [&] {
      return std::any_of(otherPresences_.begin(), otherPresences_.end(), [&](const PresenceDTO& p) {
        return p.address == address && p.activity == "busy";
      });
    });
    say(std::string(kOtherUser) +
        " received PUT /presence: " + otherPresences_.back().address.value_or("") + " " +
        otherPresences_.back().activity.value_or("") + ", note \"" +
        otherPresences_.back().note.value_or("") + "\"");
  }

  void shareGroup() {
    auto groups = server_->groupService();
    const auto created = await(
        "createGroup", groups->createGroup("Demo team", std::string(kGroupId)).take(1).asSingle());
    say(std::string(kUser) + " created the group " + created.groupId + " \"" + created.name + "\"");
    for (const auto user : {kUser, kOtherUser}) {
      await("add " + std::string(user), groups->add(std::string(user), created.groupId));
    }
    say("added " + std::string(kUser) + " and " + std::string(kOtherUser) + " as participants");
    const std::vector<std::string> order = {std::string(kOtherUser), std::string(kUser)};
    await("reorderParticipants", groups->reorderParticipants(created.groupId, order));
    const RingingStrategyDTO strategy = SequentialRingingStrategyDTO{10, 2};
    await("changeRingingStrategy", groups->changeRingingStrategy(created.groupId, strategy));
    say("reordered: " + order[0] + " rings first, then " + order[1] +
        ", one after the other (sequential, delay 10, 2 steps)");
    const auto current = await("group", groups->group(created.groupId, false));
    if (current.participants != order || current.ringingStrategy != strategy) {
      fail("the server's group differs: " + nlohmann::json(current).dump());
    }
    waitForEvent("group events at " + std::string(kOtherUser), [&] {
      return !otherNewGroups_.empty() && !otherGroupUpdates_.empty() &&
             otherGroupUpdates_.back().participants == order &&
             otherGroupUpdates_.back().ringingStrategy == strategy;
    });
    say(std::string(kOtherUser) + " received POST /usersGroup (added to " +
        otherNewGroups_.front().groupId + ") and " + std::to_string(otherGroupUpdates_.size()) +
        " PUT /usersGroup, the last with the new order and strategy");
  }

  void addContact() {
    Contact contact;
    contact.id = "demo-contact";
    contact.name = "Bob from the demo";
    contact.phones = std::vector<Contact::Phone>{{"work", "+15550100", true}};
    contact.associatedUserId = std::string(kOtherUser);
    await("add contact", server_->userContacts()->add(contact));
    say(std::string(kUser) + " added the contact \"" + contact.name + "\"");
    waitForEvent("contact event", [&] {
      return std::any_of(
          newContacts_.begin(), newContacts_.end(),
          [&](const AddressBookSocketDTO& e) { return e.contact && e.contact->id == contact.id; });
    });
    say(std::string(kUser) + " received POST /addressbooks for the book " +
        newContacts_.back().id.value_or("-"));
    const auto books =
        await("addressBooks", server_->addressBooks()->addressBooks({"contacts"}, false));
    const bool listed = std::any_of(books.begin(), books.end(), [&](const AddressBookDTO& book) {
      return book.type == AddressBookType::contacts && book.contacts &&
             std::any_of(book.contacts->begin(), book.contacts->end(),
                         [&](const Contact& entry) { return entry.id == contact.id; });
    });
    if (!listed) fail("the contact is not in the \"contacts\" address book");
    say("the \"contacts\" address book lists it");
  }

  void shareMeeting() {
    const auto now = std::chrono::system_clock::now();
    MeetingInvitation::Participant invited;
    invited.email = std::string(kOtherUser) + "@emulator.kel";
    const MeetingInvitation invitation("Demo review", {invited}, "en", now, now + 1h, std::nullopt,
                                       true, false);
    const auto meeting =
        await("createMeeting", server_->meetingsService()->createMeeting(invitation));
    say(std::string(kUser) + " created the meeting " + meeting.id + " \"" + meeting.name +
        "\" at " + meeting.url + ", inviting " + *invited.email +
        (meeting.isPasswordProtected ? ", with a password" : ""));
    waitForEvent("meeting event at " + std::string(kOtherUser), [&] {
      return std::any_of(otherMeetings_.begin(), otherMeetings_.end(),
                         [&](const Meeting& m) { return m.id == meeting.id; });
    });
    say(std::string(kOtherUser) + " received POST /meetings for " + meeting.id);
    MeetingSearch search;
    search.name = "review";
    const auto found = await("meetings", other_->meetingsService()->meetings(search));
    if (found.size() != 1 || found.front().id != meeting.id) {
      fail("searching \"review\" does not find the meeting for " + std::string(kOtherUser));
    }
    say(std::string(kOtherUser) + " finds it by searching its name");
  }

  void missCall() {
    const auto entry = emulator_->placeCall(
        {std::string(kOtherUser), std::string(kUser), emulator::CallOutcome::missed, 20s});
    const auto entryId = entry.value("id", "");
    say("emulator: " + std::string(kOtherUser) + " called " + std::string(kUser) +
        ", who did not answer within 20 s (conference " + entryId + ")");
    for (auto* facade : {server_.get(), other_.get()}) {
      const auto entries =
          await("conferencesEntries", facade->conferenceLogService()
                                          ->conferencesEntries(std::nullopt, std::nullopt, 5, true)
                                          .take(1)
                                          .asSingle());
      const auto user = facade->userSession().value()->user.userId;
      if (entries.empty() || entries.front().id != entryId || entries.front().invites.empty() ||
          entries.front().invites.front().state != ConferenceEntry::CallState::timeout) {
        fail("the call is not the newest entry of " + user + "'s conference log");
      }
      say(user + "'s conference log: " + entryId + ", " +
          std::string(rawValue(entries.front().invites.front().state)));
    }
    auto missed = server_->missedCallsService();
    const auto userId = std::string(kUser);
    auto items = [&] {
      const auto calls = await("getMissedCalls", missed->getMissedCalls({userId}));
      return calls.data.value_or(MissedCallsDTO::MissedCallData{})
          .items.value_or(std::vector<MissedCallItemDTO>{});
    };
    const auto unread = items();
    if (unread.size() != 1 || !unread.front().id) fail("expected one missed call");
    say(std::string(kUser) + " has the missed call " + *unread.front().id);
    await("setReadMissedCalls", missed->setReadMissedCalls({userId, *unread.front().id}));
    if (!items().empty()) fail("the missed call is still unread after marking it read");
    say(std::string(kUser) + " marked it read: no missed calls left");
  }

  void shareAlert() {
    const auto templates = await("alertTemplates", server_->alerts()->alertTemplates());
    const auto drill =
        std::find_if(templates.begin(), templates.end(),
                     [](const ServerAlertTemplate& t) { return t.templateId == kAlertTemplate; });
    if (drill == templates.end()) fail("no alert template " + std::string(kAlertTemplate));
    await("sendAlert", server_->alerts()->sendAlert(*drill));
    say(std::string(kUser) + " raised \"" + drill->title + "\" from the template " +
        drill->templateId);
    waitForEvent("alert event at " + std::string(kOtherUser), [&] {
      return std::any_of(otherAlerts_.begin(), otherAlerts_.end(),
                         [&](const ServerAlert& a) { return a.from == kUser; });
    });
    const auto alertId = otherAlerts_.back().alertId;
    say(std::string(kOtherUser) + " received POST /alerts for " + alertId);
    await("accept", other_->alerts()->accept(alertId));
    waitForEvent("accepted alert at " + std::string(kUser), [&] {
      return std::any_of(updatedAlerts_.begin(), updatedAlerts_.end(), [&](const ServerAlert& a) {
        return a.alertId == alertId && a.acceptedBy == kOtherUser;
      });
    });
    say(std::string(kOtherUser) + " accepted it; " + std::string(kUser) +
        " received PUT /alerts with acceptedBy " + std::string(kOtherUser));
  }

  void addChat() {
    const auto jid = std::string(kOtherUser) + "@" + std::string(kUserDomain);
    auto chats = server_->xmppService();
    await("addOneToOneChat", chats->addOneToOneChat(jid));
    const auto list = await("oneToOneChatList", chats->oneToOneChatList());
    if (std::find(list.begin(), list.end(), jid) == list.end()) {
      fail("the chat list does not hold " + jid);
    }
    say(std::string(kUser) + " added the chat with " + jid + "; the chat list holds it");
  }

  void signOutOtherUser() {
    other_->clearSessionInfo();
    other_.reset();
    say(std::string(kOtherUser) + "'s facade forgot its session and closed its socket");
  }

  bool renewalSeen() const {
    for (const auto& frame : emulator_->receivedFrames()) {
      if (frame.kind != emulator::FrameKind::request) continue;
      if (frame.data.find("\"PUT\"") != std::string::npos &&
          frame.data.find("/sessions/") != std::string::npos) {
        return true;
      }
    }
    return false;
  }

  void waitForRenewal() {
    say("waiting for the renewal that the library sends every " +
        std::to_string(KelServer::renewalPeriod.count()) + " s while connected...");
    waitFor(
        "renewal (PUT /sessions/<id>)", [&] { return renewalSeen(); },
        KelServer::renewalPeriod + kStepTimeout);
    say("session renewed: PUT /sessions/... after " +
        secondsText(std::chrono::steady_clock::now() - connectedAt_) + " connected");
  }

  void dropConnection() {
    const auto from = states_.size();
    const auto dropped = emulator_->dropSockets(Recipients::all());
    if (dropped == 0) fail("the emulator had no socket to drop");
    say("emulator reset the connection (TCP reset, no close frame)");
    const auto after = waitForState(State::disconnected, from);
    const auto lostAt = std::chrono::steady_clock::now();
    waitForState(State::connected, after);
    say("reconnected and authenticated again by itself after " +
        secondsText(std::chrono::steady_clock::now() - lostAt));
  }

  void suspendAndRestore() {
    const auto from = states_.size();
    server_->suspend();
    waitForState(State::disconnectedBackground, from);
    say("suspended: socket closed as for the background");
    if (!server_->canRestoreSession()) fail("nothing to restore in the keychain");
    const auto attemptsBefore = emulator_->signIn().attempts().size();
    const auto data = await("restoreSession", server_->restoreSession(false));
    waitForState(State::connected, from);
    const auto attempts = emulator_->signIn().attempts();
    if (attempts.size() <= attemptsBefore || attempts.back().path != "/login/sessionToken") {
      fail("the restore did not sign in with the stored session token");
    }
    token_ = data.token;
    say("restored " + data.user.userId + " with the session token from the keychain (POST " +
        attempts.back().path + ")");
  }

  void serverEndsSession() {
    const auto before = needsNewSession_;
    if (!emulator_->endSession(token_)) fail("the emulator does not know the session");
    say("emulator ended the session and closed its socket (1000)");
    waitFor("needsNewSession", [&] { return needsNewSession_ > before; });
    waitFor("forgetting the session", [&] { return !server_->canRestoreSession(); });
    say("the facade forgot the session: nothing left to restore");
  }

  void logout() {
    const auto user = server_->userSession().value();
    await("logout", server_->logout(std::string(kDeviceId)));
    if (server_->canRestoreSession()) fail("a session is still stored after logout");
    if (!emulator_->signIn().pushRegistrations().empty()) {
      fail("the push registration is still on the server after logout");
    }
    if (user && emulator_->session(user->token)) fail("the server session is still alive");
    say("logged out: push token removed, server session ended, nothing stored");
  }

  const CommandLine& line_;
  MainLoop loop_;
  std::unique_ptr<Emulator> emulator_;
  emulator::Urls urls_;
  std::shared_ptr<KelServer> server_;
  std::shared_ptr<KelServer> other_;
  std::vector<PresenceDTO> otherPresences_;
  std::vector<GroupDTO> otherNewGroups_;
  std::vector<GroupDTO> otherGroupUpdates_;
  std::vector<AddressBookSocketDTO> newContacts_;
  std::vector<Meeting> otherMeetings_;
  std::vector<ServerAlert> otherAlerts_;
  std::vector<ServerAlert> updatedAlerts_;
  std::optional<std::string> streamFailure_;
  std::unique_ptr<rx::DisposeBag> subscriptions_ = std::make_unique<rx::DisposeBag>();
  std::vector<State> states_;
  int needsNewSession_ = 0;
  std::string token_;
  std::chrono::steady_clock::time_point connectedAt_{};
  std::string current_;
};

}  // namespace

int runDemo(const CommandLine& line) {
  if (line.json) narrateTo(stderr);
  const auto started = std::chrono::steady_clock::now();
  std::optional<std::string> failure;
  std::string failedStep;
  {
    Demo demo(line);
    try {
      demo.run();
    } catch (const StepFailed& failed) {
      failure = failed.text;
    } catch (const std::exception&) {
      failure = describeError(std::current_exception());
    }
    failedStep = demo.currentStep();
  }
  const auto elapsed = secondsText(std::chrono::steady_clock::now() - started);
  if (failure) {
    say("FAILED at step \"" + failedStep + "\": " + *failure);
    if (!line.json)
      std::cerr << "kel demo: step \"" << failedStep << "\" failed: " << *failure << std::endl;
  } else {
    say("demo finished in " + elapsed + ": every step succeeded");
  }
  if (line.json) {
    nlohmann::json result = {{"command", "demo"}, {"ok", !failure}, {"duration", elapsed}};
    if (failure) result["error"] = {{"kind", "step"}, {"step", failedStep}, {"message", *failure}};
    std::cout << result.dump() << std::endl;
  }
  return failure ? 1 : 0;
}

}  // namespace kel::cli
