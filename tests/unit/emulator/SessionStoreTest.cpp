#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <thread>

#include "emulator/SessionStore.h"

namespace kel::emulator {
namespace {

using namespace std::chrono_literals;

TEST(EmulatorSessionStore, SessionsLiveFromCreationThroughExpiryAndRenewalToTheirEnd) {
  SessionStore store(1h);
  EXPECT_THROW(store.createSession("ghost"), std::invalid_argument);
  store.addUser({"alice", {}});
  const auto token = store.createSession("alice").token;
  EXPECT_TRUE(store.expireSession(token));
  EXPECT_FALSE(store.validSession(token));
  EXPECT_TRUE(store.session(token)) << "an expired session is still known";
  EXPECT_TRUE(store.renewSession(token, 10s));
  EXPECT_TRUE(store.isValid(token));
  EXPECT_EQ(token, store.endSession(token)->token);
  EXPECT_FALSE(store.session(token));
  EXPECT_FALSE(store.renewSession(token));
}

TEST(EmulatorSessionStore, ChosenTokensMustBeFreshAndCreatedOnesAreDistinctAcrossThreads) {
  SessionStore store;
  store.addUser({"bob", {}});
  store.createSession("bob", std::nullopt, "chosen");
  EXPECT_THROW(store.createSession("bob", std::nullopt, "chosen"), std::invalid_argument);
  EXPECT_THROW(store.createSession("bob", std::nullopt, ""), std::invalid_argument);
  EXPECT_FALSE(store.isValid("Chosen"));

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) store.createSession("bob");
    });
  }
  for (auto& thread : threads) thread.join();
  std::set<std::string> tokens;
  std::set<std::string> ids;
  for (const auto& session : store.sessionsOf("bob")) {
    tokens.insert(session.token);
    ids.insert(session.sessionId);
  }
  EXPECT_EQ(201u, tokens.size());
  EXPECT_EQ(201u, ids.size());
}

}  // namespace
}  // namespace kel::emulator
