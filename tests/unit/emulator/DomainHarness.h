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
  if (body.contains("participants")) {
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

struct DomainHarness {
  DomainHarness() {
    signIn.install(http, router);
    domains.install(router);
    for (const auto* id : {"alice", "bob", "carol"}) signIn.addAccount(defaultAccount(id));
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
    for (const auto& s : store.sessions()) {
      state["sessions"].push_back({s.token, s.expiry.time_since_epoch().count()});
    }
    return state;
  }

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
