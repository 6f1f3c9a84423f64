#pragma once

// The emulator's domains and session resources without a network: requests go through a
// ResourceRouter, events into a list. Users alice, bob and carol exist; each asks from its own
// socket (1, 2, 3).

#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "emulator/Fixture.h"
#include "emulator/domains/Domains.h"

namespace kel::emulator::test {

using nlohmann::json;

/// True when every member of `expected` is in `actual` with a value that includes it, and a null
/// member of `expected` is absent from `actual`; lists must match element by element.
inline bool includes(const json& actual, const json& expected) {
  if (expected.is_object() && actual.is_object()) {
    for (const auto& [key, value] : expected.items()) {
      if (value.is_null() ? actual.contains(key)
                          : !actual.contains(key) || !includes(actual.at(key), value)) {
        return false;
      }
    }
    return true;
  }
  if (expected.is_array() && actual.is_array()) {
    if (expected.size() != actual.size()) return false;
    for (std::size_t i = 0; i < expected.size(); ++i) {
      if (!includes(actual[i], expected[i])) return false;
    }
    return true;
  }
  return actual == expected;
}

/// An event in short: "<to> <method> <path> <what>", where <to> is a user or "#" and a socket,
/// and <what> a group's "id[participants]", a contact's "id:name", a presence's address, or else
/// the body.
inline std::string summary(const std::string& to, std::string_view method, std::string_view path,
                           const json& body) {
  std::string what = body.dump();
  if (body.contains("url")) {
    // A meeting: its id and registered participants.
    what = body["id"].get<std::string>() + "[";
    for (const auto& p : body["participants"]) {
      if (p.contains("userId")) what += p["userId"].get<std::string>() + " ";
    }
    if (what.ends_with(' ')) what.pop_back();
    what += "]";
  } else if (body.contains("invites")) {
    // A conference-log entry: its id and how the invitation ended.
    what = body["id"].get<std::string>() + " " + body["invites"][0]["state"].get<std::string>();
  } else if (body.contains("alertId") && body.contains("cancelled")) {
    what = body["alertId"].get<std::string>() +
           (body.contains("acceptedBy") ? " accepted by " + body["acceptedBy"].get<std::string>()
            : body["cancelled"].get<bool>() ? " cancelled"
            : body.contains("resolvedAt")   ? " expired"
                                            : " active");
  } else if (body.contains("participants")) {
    what = body["groupId"].get<std::string>() + "[";
    for (const auto& user : body["participants"]) what += user.get<std::string>() + " ";
    if (what.ends_with(' ')) what.pop_back();
    what += "]";
  } else if (body.contains("contact")) {
    what =
        body["contact"]["id"].get<std::string>() + ":" + body["contact"]["name"].get<std::string>();
  } else if (body.contains("address")) {
    what = body["address"].get<std::string>();
  }
  return to + " " + std::string(method) + " " + std::string(path) + " " + what;
}

/// What the client sends where it sends no body.
inline const nlohmann::json kNoBody = nlohmann::json::array();

/// One request of a table: "user METHOD path" with its body (none unless given), the status and
/// what the answer must include (see includes(); null: not looked at), and the summaries of
/// exactly the events it pushes, "; "-separated.
struct Step {
  Step(std::string line, int expectedStatus, nlohmann::json expectedAnswer,
       std::string pushedEvents = "")
      : Step(std::move(line), kNoBody, expectedStatus, std::move(expectedAnswer),
             std::move(pushedEvents)) {}
  Step(std::string line, nlohmann::json sent, int expectedStatus, nlohmann::json expectedAnswer,
       std::string pushedEvents = "")
      : request(std::move(line)),
        body(std::move(sent)),
        status(expectedStatus),
        answer(std::move(expectedAnswer)),
        events(std::move(pushedEvents)) {}
  std::string request;
  nlohmann::json body;
  int status;
  nlohmann::json answer;
  std::string events;
};

/// [{key: value}, ...]: how answers list records by their ids.
inline nlohmann::json each(const std::string& key, const std::vector<std::string>& values) {
  auto list = nlohmann::json::array();
  for (const auto& value : values) list.push_back({{key, value}});
  return list;
}

/// A request that must be refused with `status`.
struct Refused {
  std::string request;
  nlohmann::json body;
  int status;
};

inline nlohmann::json ids(const std::vector<std::string>& values) {
  return each("id", values);
}

/// An invitation as the client writes it (instants as floating-point milliseconds).
inline json invitation(const std::string& name, json participants, json more = json::object()) {
  json body = {{"name", name},
               {"participants", std::move(participants)},
               {"language", "en"},
               {"validSince", 1700000000000.0},
               {"record", {{"type", "none"}}}};
  body.update(more);
  return body;
}

struct DomainHarness {
  DomainHarness() {
    signIn.install(http, router);
    domains.install(router);
    domains.installControl(http);
    for (const auto* id : {"alice", "bob", "carol"}) signIn.addAccount(defaultAccount(id));
    domains.clock.set([this] { return now; });
  }

  /// Sends "user METHOD path" from the user's socket.
  Reply call(const std::string& line, json body = json::object()) {
    std::istringstream words(line);
    ResourceRequest request;
    words >> request.userId >> request.method >> request.path;
    request.id = 1;
    request.body = std::move(body);
    request.socket = request.userId == "alice" ? 1 : request.userId == "bob" ? 2 : 3;
    Reply answer{0, json(), std::nullopt};
    router.dispatch(std::move(request), Responder::capturing(1, [&](Reply r) { answer = r; }));
    return answer;
  }

  /// Everything the domains and the sessions hold, to tell whether a request changed anything.
  json state() const {
    json state;
    for (const auto* id : {"alice", "bob", "carol"}) {
      state["books"][id] = domains.addressBooks.booksFor(id);
      state["presences"][id] = *domains.presences.presence(id);
      state["subscribers"][id] = domains.presences.subscribers(id);
    }
    state["groups"] = domains.groups.groups();
    state["meetings"] = domains.meetings.meetings();
    state["conferences"] = domains.callHistory.entries();
    state["alerts"] = domains.alerts.alerts();
    state["alertTemplates"] = domains.alerts.templates();
    for (const auto* id : {"alice", "bob", "carol"}) {
      state["missedCalls"][id] = domains.callHistory.missedCalls(id);
      state["chats"][id] = domains.chatLists.chats(id);
    }
    for (const auto& s : store.sessions()) {
      state["sessions"].push_back({s.token, s.expiry.time_since_epoch().count()});
    }
    return state;
  }

  /// Runs the steps in order, each expecting its answer and events.
  void run(const std::vector<Step>& steps) {
    for (const auto& step : steps) {
      SCOPED_TRACE(step.request + " " + step.body.dump());
      pushed.clear();
      const auto reply = call(step.request, step.body);
      EXPECT_EQ(step.status, reply.status) << reply.body.dump();
      EXPECT_TRUE(step.answer.is_null() || includes(reply.body, step.answer)) << reply.body.dump();
      EXPECT_EQ(step.events, takeEvents());
    }
  }

  /// The summaries of the events pushed since the last call, "; "-separated.
  std::string takeEvents() {
    std::string events;
    for (const auto& event : pushed) events += (events.empty() ? "" : "; ") + event;
    pushed.clear();
    return events;
  }

  /// Each request is answered with its status (a refusal with a reason), and changes and pushes
  /// nothing.
  void expectRefusedWithoutChange(const std::vector<Refused>& refused) {
    const auto before = state();
    pushed.clear();
    for (const auto& [request, body, status] : refused) {
      SCOPED_TRACE(request + " " + body.dump());
      const auto reply = call(request, body);
      EXPECT_EQ(status, reply.status);
      EXPECT_TRUE(status < 400 || reply.body.contains("message")) << reply.body.dump();
      EXPECT_EQ(before, state());
      EXPECT_TRUE(pushed.empty());
    }
  }

  /// The domains' clock.
  TimePoint now = fromMillis(1'700'000'000'000);
  SessionStore store;
  SignIn signIn{store, [this](std::string_view token) { return !!store.endSession(token); }, false};
  /// summary() of each event pushed.
  std::vector<std::string> pushed;
  std::set<SocketId> closedSockets;
  Domains domains{
      store, signIn,
      [this](const Recipients& to, std::string_view path, std::string_view method,
             const json& body) -> std::size_t {
        const bool socket = to.kind() == Recipients::Kind::socket;
        pushed.push_back(
            summary(socket ? "#" + std::to_string(to.socketId()) : to.key(), method, path, body));
        return socket && closedSockets.contains(to.socketId()) ? 0 : 1;
      }};
  HttpRouter http;
  ResourceRouter router;
};

}  // namespace kel::emulator::test
