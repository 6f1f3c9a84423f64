#include "ServerClient/Log/ServerLog.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/ostream_sink.h>

#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kel {
namespace {

std::vector<std::string> linesOf(const std::ostringstream& stream) {
  std::vector<std::string> lines;
  std::istringstream in(stream.str());
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class ThrowingSink final : public spdlog::sinks::base_sink<std::mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg& /*msg*/) override {
    throw std::runtime_error("sink failure");
  }
  void flush_() override {}
};

// The logger is a process-wide singleton: every test starts from and leaves the initial state,
// with both outputs captured.
class ServerLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_.resetForTesting();
    auto console = std::make_shared<spdlog::sinks::ostream_sink_mt>(console_);
    console->set_pattern("%v");
    log_.setConsoleSink(console);
    auto print = std::make_shared<spdlog::sinks::ostream_sink_mt>(print_);
    print->set_pattern("%v");
    log_.setPrintSink(print);
  }

  void TearDown() override { log_.resetForTesting(); }

  void logOneOfEach() {
    log_.error("e", "Sources/Client/KelServer.swift", "connect(using:)", 1);
    log_.debug("d", "Sources/Client/KelServer.swift", "connect(using:)", 2);
    log_.verbose("v", "Sources/Client/KelServer.swift", "connect(using:)", 3);
  }

  ServerLog& log_ = ServerLog::sharedInstance();
  std::ostringstream console_;
  std::ostringstream print_;
};

TEST_F(ServerLogTest, NothingIsWrittenBeforeAddLoggers) {
  for (auto flag : {LogFlag::error, LogFlag::debug, LogFlag::verbose}) {
    EXPECT_FALSE(log_.admits(flag));
  }
  logOneOfEach();
  KEL_LOG_ERROR("op(label:)", "from macro");
  log_.flush();
  EXPECT_EQ("", console_.str());
  EXPECT_EQ("", print_.str());
}

TEST_F(ServerLogTest, ConsoleAtDebugWritesErrorAndDebugOnly) {
  log_.addLoggers(LogLevel::debug, false);
  EXPECT_TRUE(log_.admits(LogFlag::error));
  EXPECT_TRUE(log_.admits(LogFlag::debug));
  EXPECT_FALSE(log_.admits(LogFlag::verbose));

  logOneOfEach();
  log_.flush();
  EXPECT_EQ((std::vector<std::string>{
                "SDKLog - KEL - [KelServer]:[1 connect(using:)]: e",
                "SDKLog - KEL - [KelServer]:[2 connect(using:)]: d",
            }),
            linesOf(console_));
  EXPECT_EQ("", print_.str());
}

TEST_F(ServerLogTest, DisplayInReleasePrintsEveryLevelAtOnce) {
  log_.addLoggers(LogLevel::error, true);
  EXPECT_TRUE(log_.admits(LogFlag::verbose));

  logOneOfEach();
  // The print is synchronous: no flush needed to see it.
  EXPECT_EQ(3u, linesOf(print_).size());
  EXPECT_EQ("SDKLog - KEL - [KelServer]:[3 connect(using:)]: v", linesOf(print_).back());

  log_.flush();
  EXPECT_EQ(std::vector<std::string>{"SDKLog - KEL - [KelServer]:[1 connect(using:)]: e"},
            linesOf(console_));
}

TEST_F(ServerLogTest, AddingAgainReplacesTheConsoleLevel) {
  log_.addLoggers(LogLevel::verbose, true);
  log_.addLoggers(LogLevel::error, false);  // also turns the print off again
  EXPECT_FALSE(log_.admits(LogFlag::debug));

  logOneOfEach();
  log_.flush();
  // One console logger: the error line appears once, the others not at all.
  EXPECT_EQ(1u, linesOf(console_).size());
  EXPECT_EQ("", print_.str());

  log_.addLoggers(LogLevel::off, false);
  EXPECT_FALSE(log_.admits(LogFlag::error));
}

TEST_F(ServerLogTest, MacrosPassTheCallSiteAndSkipUnadmittedMessages) {
  int built = 0;
  auto message = [&] {
    ++built;
    return std::string("hello");
  };
  KEL_LOG_VERBOSE("op(label:)", message());
  EXPECT_EQ(0, built);

  log_.addLoggers(LogLevel::debug, false);
  KEL_LOG_VERBOSE("op(label:)", message());
  EXPECT_EQ(0, built);
  const unsigned line = __LINE__ + 1;
  KEL_LOG_DEBUG("op(label:)", message());
  EXPECT_EQ(1, built);

  log_.flush();
  EXPECT_EQ(std::vector<std::string>{"SDKLog - KEL - [ServerLogTest]:[" + std::to_string(line) +
                                     " op(label:)]: hello"},
            linesOf(console_));
}

TEST_F(ServerLogTest, FailingSinksNeverReachTheCaller) {
  log_.setConsoleSink(std::make_shared<ThrowingSink>());
  log_.setPrintSink(std::make_shared<ThrowingSink>());
  log_.addLoggers(LogLevel::verbose, true);
  logOneOfEach();  // the functions are noexcept: an escaping exception would terminate
  log_.flush();
}

TEST_F(ServerLogTest, ConcurrentLoggingLosesNoLineAndFlushWaitsForAll) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 250;
  log_.addLoggers(LogLevel::debug, false);

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this] {
      for (int i = 0; i < kPerThread; ++i) log_.debug("line", "f.cpp", "worker", 1);
    });
  }
  // Reconfiguring while others log must be race-free (checked by the TSan build).
  threads.emplace_back([this] {
    for (int i = 0; i < 50; ++i) log_.addLoggers(LogLevel::debug, false);
  });
  for (auto& thread : threads) thread.join();

  log_.flush();
  const auto lines = linesOf(console_);
  ASSERT_EQ(static_cast<std::size_t>(kThreads * kPerThread), lines.size());
  for (const auto& line : lines) EXPECT_EQ("SDKLog - KEL - [f]:[1 worker]: line", line);
}

TEST(LogLevel, EachLevelAdmitsItsFlagAndTheMoreSevereOnes) {
  const LogFlag flags[] = {LogFlag::error, LogFlag::warning, LogFlag::info, LogFlag::debug,
                           LogFlag::verbose};
  const LogLevel levels[] = {LogLevel::off,  LogLevel::error, LogLevel::warning,
                             LogLevel::info, LogLevel::debug, LogLevel::verbose};
  for (int l = 0; l < 6; ++l) {
    for (int f = 0; f < 5; ++f) {
      EXPECT_EQ(f < l, levelAdmits(levels[l], flags[f])) << "level " << l << " flag " << f;
    }
  }
}

TEST(FormattedLine, HasTheFixedLayout) {
  EXPECT_EQ("SDKLog - KEL - [KelServer]:[237 connect(using:)]: KelServer: Starting connecting...",
            formattedLine("KelServer: Starting connecting...",
                          "ServerClient/Sources/Client/KelServer.swift", "connect(using:)", 237));
  EXPECT_EQ("SDKLog - KEL - []:[0 ]: ", formattedLine("", "", "", 0));
  EXPECT_EQ("SDKLog - KEL - [Model]:[4294967295 from(data:)]: x",
            formattedLine("x", "ServerClient/Sources/Utils/Model", "from(data:)", 4294967295u));
}

TEST(FormattedLine, FileNameIsTheLastPathPieceUpToItsFirstDot) {
  const std::pair<std::string, std::string> cases[] = {
      {"ServerClient/Sources/Client/KelServer.swift", "KelServer"},
      {"a/b/c.d.e", "c"},
      {"noslash.x", "noslash"},
      {"", ""},
      {"/", ""},
      {"a//b/", "b"},
      {"dir/.hidden.txt", "hidden"},
      {"dir/...", ""},
      {"/abs/path/File", "File"},
  };
  for (const auto& [path, name] : cases) EXPECT_EQ(name, logFileName(path)) << path;
}

}  // namespace
}  // namespace kel
