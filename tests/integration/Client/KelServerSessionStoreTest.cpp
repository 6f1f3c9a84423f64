// Two applications of different teams on one desktop account, each with its own facade, over the
// real Secret Service keychain and real defaults files, signed in against the emulator. Run
// under scripts/with-session-bus.

#include "ServerClient/Client/KelServer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <system_error>

#include <boost/url/parse.hpp>

#include "emulator/Emulator.h"
#include "support/StreamRecorder.h"

namespace kel {
namespace {

namespace fs = std::filesystem;

TEST(KelServerSessionStoreTest, OneTeamsLogoutLeavesAnotherTeamsStoredSessionAlone) {
  // The defaults files go to a directory of this test's own, read when each team's store is
  // first made; the teams are new on every run, so the process has no store of theirs yet.
  const fs::path config = fs::temp_directory_path() / ("kel-store-" + std::to_string(::getpid()));
  ::setenv("XDG_CONFIG_HOME", config.c_str(), 1);
  std::random_device random;
  const std::string suffix = std::to_string(random());
  const std::string teamA = "APPA" + suffix;
  const std::string teamB = "APPB" + suffix;

  emulator::Emulator emulator(emulator::Options{});
  emulator.addAccount(emulator::defaultAccount("ann", "outside-a"));
  emulator.addAccount(emulator::defaultAccount("bob", "outside-b"));
  const auto urls = emulator.start();
  const auto facade = [&](const std::string& team) {
    return KelServer::create(boost::urls::parse_absolute_uri(urls.kelURL).value(),
                             boost::urls::parse_absolute_uri(urls.socketURL).value(), "1.0.0",
                             team);
  };

  auto a = facade(teamA);
  ASSERT_NO_THROW(testing::await(a->connect("outside-a")));
  a->suspend();
  auto b = facade(teamB);
  ASSERT_NO_THROW(testing::await(b->connect("outside-b")));
  EXPECT_NO_THROW(testing::await(b->logout("device-b")));
  EXPECT_FALSE(b->canRestoreSession());

  // Another run of A's application still finds its session and resumes it.
  a.reset();
  auto again = facade(teamA);
  EXPECT_TRUE(again->canRestoreSession());
  EXPECT_EQ(urls.kelURL, again->lastUrlServer());
  EXPECT_NO_THROW(testing::await(again->restoreSession(false)));
  EXPECT_TRUE(fs::exists(config / "ServerClient" / ("defaults-" + teamA + ".json")));

  again->clearSessionInfo();
  EXPECT_FALSE(again->canRestoreSession());
  // Forgetting the session closes the socket; the test ends once it is closed, as an application
  // exits: a connection still open at exit keeps its pending reads on the network thread, which
  // LeakSanitizer reports.
  EXPECT_NO_THROW(testing::await(
      again->states()
          .filter([](KelServer::State state) { return state == KelServer::State::disconnected; })
          .take(1)
          .asSingle()));
  // A facade's background work may still be replacing a defaults file (write, then rename), so
  // a file can vanish under the removal; what is left is only this test's own directory.
  std::error_code ignored;
  fs::remove_all(config, ignored);
}

}  // namespace
}  // namespace kel
