#pragma once

// What the emulator's domains share: the accounts they read, the one push function through which
// their events leave, the clock of the domains that keep time, the refusal that turns into an
// error answer, and the checks of JSON bodies and fixture parts.
//
// A domain validates a request completely before it changes anything, so a refused request
// (400, 403, 404, 409) leaves its state as it was. Events are pushed while the domain's mutex is
// held, so that they leave in the order of the changes; pushing only queues frames.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/Observation.h"
#include "emulator/ResourceRouter.h"
#include "emulator/SessionStore.h"
#include "emulator/SignIn.h"

namespace kel::emulator {

/// Sends an event "3" + {"path", "method", "body"} to the recipients; returns how many sockets it
/// was queued for (Emulator::pushEvent).
using PushEvent = std::function<std::size_t(const Recipients& to, std::string_view path,
                                            std::string_view method, const nlohmann::json& body)>;

/// The users a fixture may refer to: those already known and those it adds.
using UserIds = std::set<std::string, std::less<>>;

/// A user's presence address: "kel-user:" + id.
inline constexpr std::string_view kUserAddressPrefix = "kel-user:";

using TimePoint = std::chrono::system_clock::time_point;

/// Milliseconds since the Unix epoch, as instants travel on the wire.
std::int64_t millis(TimePoint time);
TimePoint fromMillis(std::int64_t millis);

/// The time of the domains that keep it (call history, alerts): the system clock until a test
/// sets its own, so that expiry is driven without waiting.
class DomainClock {
 public:
  TimePoint now() const;
  /// An empty function restores the system clock.
  void set(std::function<TimePoint()> now);

 private:
  mutable std::mutex mutex_;  // guards now_
  std::function<TimePoint()> now_;
};

struct DomainContext {
  SessionStore& store;
  SignIn& signIn;
  PushEvent push;

  /// The user record ("userObj" of the sign-in answer) of a known user.
  std::optional<nlohmann::json> user(std::string_view userId) const;
  bool knows(std::string_view userId) const { return store.user(userId).has_value(); }
  /// Every known user id, in order.
  std::vector<std::string> userIds() const;
};

/// A request refused before anything changed; answered with its status and {"message": what()}.
/// Fixture checks throw it too (status 400), naming the offending member.
class Refusal : public std::runtime_error {
 public:
  Refusal(int status, const std::string& message) : std::runtime_error(message), status_(status) {}
  int status() const noexcept { return status_; }

 private:
  int status_;
};

/// A handler whose Refusals are answered instead of failing the request with 500.
ResourceHandler refusing(ResourceHandler handler);

/// The request must address the route exactly ("/usersGroup/g1", not "/usersGroup/g1/x"): 404
/// otherwise.
void requireExactPath(const ResourceRequest& request);

// --- Checks of JSON members -------------------------------------------------------------------
// `where` prefixes the member's name in the message, e.g. "groups[0]." for a fixture part and ""
// for a request body. A member holding null counts as absent.

enum class JsonKind { text, boolean, integer, object, list };

/// The member, or nullptr when it is absent and not required. Throws Refusal(400) when the value
/// is not an object, or the member is required and absent, or of another kind.
const nlohmann::json* member(const nlohmann::json& object, std::string_view key, JsonKind kind,
                             std::string_view where, bool required = true);
std::string text(const nlohmann::json& object, std::string_view key, std::string_view where = {});
/// A text that is not empty (an identifier).
std::string identifier(const nlohmann::json& object, std::string_view key,
                       std::string_view where = {});
/// A JSON number (integer or not) as whole milliseconds.
std::int64_t instant(const nlohmann::json& object, std::string_view key, std::string_view where);
std::optional<std::int64_t> optionalInstant(const nlohmann::json& object, std::string_view key,
                                            std::string_view where);
/// A body that carries nothing: an empty object or list (what clients send without a body).
void requireEmptyBody(const nlohmann::json& body);
std::optional<std::string> optionalText(const nlohmann::json& object, std::string_view key,
                                        std::string_view where = {});
/// Throws Refusal(400) naming the first member of `object` whose key is not in `known`.
void onlyKnownKeys(const nlohmann::json& object, std::initializer_list<std::string_view> known,
                   std::string_view where);
/// `where` + `key`, quoted: the name of a member in messages.
std::string memberName(std::string_view where, std::string_view key);

/// Whether `user` is among `users`.
bool contains(const std::vector<std::string>& users, std::string_view user);
/// Where the entries of a list member are: `where` + key + "[" + index + "].".
std::string entryWhere(std::string_view where, std::string_view key, std::size_t index);

/// Checks a contact record: "id" and "name" texts ("id" not empty), "favorite" true or false,
/// optional "associatedUserId" text, optional "phones" ({"type", "value", "primary"}) and "emails"
/// ({"type", optional "value", "primary"}) lists.
void checkContact(const nlohmann::json& contact, std::string_view where);

}  // namespace kel::emulator
