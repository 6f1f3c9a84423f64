#pragma once

// The emulator's domains without a network: requests go through a ResourceRouter, events into a
// list. Users alice, bob and carol exist; by default each asks from its own socket (1, 2, 3).

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/Fixture.h"
#include "emulator/domains/Domains.h"

namespace kel::emulator::test {

using nlohmann::json;

struct Pushed {
  /// A user id, or "#" + a socket id.
  std::string to;
  std::string path;
  std::string method;
  json body;
  bool operator==(const Pushed&) const = default;
};

inline void PrintTo(const Pushed& p, std::ostream* out) {
  *out << p.to << " " << p.method << " " << p.path << " " << p.body.dump();
}

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

class DomainHarness {
 public:
  DomainHarness()
      : signIn_(
            store_, [](std::string_view) { return false; }, false),
        domains_(store_, signIn_,
                 [this](const Recipients& to, std::string_view path, std::string_view method,
                        const json& body) -> std::size_t {
                   const bool socket = to.kind() == Recipients::Kind::socket;
                   pushed.push_back({socket ? "#" + std::to_string(to.socketId()) : to.key(),
                                     std::string(path), std::string(method), body});
                   return socket && closedSockets.contains(to.socketId()) ? 0 : 1;
                 }) {
    domains_.install(router_);
    for (const auto* id : {"alice", "bob", "carol"}) signIn_.addAccount(defaultAccount(id));
  }

  Reply call(const std::string& user, const std::string& method, const std::string& path,
             json body = json::object()) {
    ResourceRequest request;
    request.id = 1;
    request.method = method;
    request.path = path;
    request.body = std::move(body);
    request.userId = user;
    request.socket = user == "alice" ? 1 : user == "bob" ? 2 : 3;
    Reply answer{0, json(), std::nullopt};
    router_.dispatch(std::move(request), Responder::capturing(1, [&](Reply r) { answer = r; }));
    return answer;
  }

  /// The user record that groups carry as their owner.
  json user(const std::string& id) const { return signIn_.account(id)->user; }

  /// Everything the domains hold, to tell whether a request changed anything.
  json state() const {
    json state;
    for (const auto* id : {"alice", "bob", "carol"}) {
      state["books"][id] = domains_.addressBooks.booksFor(id);
      state["presences"][id] = *domains_.presences.presence(id);
      state["subscribers"][id] = domains_.presences.subscribers(id);
    }
    state["groups"] = domains_.groups.groups();
    return state;
  }

  SessionStore& store() { return store_; }
  SignIn& signIn() { return signIn_; }
  Domains& domains() { return domains_; }

  std::vector<Pushed> pushed;
  std::set<SocketId> closedSockets;

 private:
  SessionStore store_;
  SignIn signIn_;
  Domains domains_;
  ResourceRouter router_;
};

}  // namespace kel::emulator::test
