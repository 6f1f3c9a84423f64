#include "ServerClient/Log/ServerLog.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/ostream_sink.h>

#include <future>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace kel {
namespace {

using Lines = std::vector<std::string>;

Lines linesOf(const std::ostringstream& stream) {
  Lines lines;
  std::istringstream in(stream.str());
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class ThrowingSink final : public spdlog::sinks::base_sink<std::mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg&) override { throw std::runtime_error("sink"); }
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

  ServerLog& log_ = ServerLog::sharedInstance();
  std::ostringstream console_;
  std::ostringstream print_;
};

TEST_F(ServerLogTest, TheConsoleWritesUpToItsLevelAndThePrintEverythingAtOnce) {
  const std::string e = "SDKLog - KEL - [KelServer]:[1 connect(using:)]: e";
  const std::string d = "SDKLog - KEL - [KelServer]:[2 connect(using:)]: d";
  const std::string v = "SDKLog - KEL - [KelServer]:[3 connect(using:)]: v";
  const struct {
    std::vector<std::pair<LogLevel, bool>> configurations;
    Lines console, print;
  } cases[] = {
      {{}, {}, {}},  // nothing before addLoggers
      {{{LogLevel::debug, false}}, {e, d}, {}},
      {{{LogLevel::error, true}}, {e}, {e, d, v}},
      {{{LogLevel::verbose, true}, {LogLevel::error, false}}, {e}, {}},  // replaced, not added
      {{{LogLevel::verbose, false}, {LogLevel::off, false}}, {}, {}},
  };
  for (const auto& c : cases) {
    SetUp();
    for (const auto& [level, display] : c.configurations) log_.addLoggers(level, display);
    log_.error("e", "Sources/Client/KelServer.swift", "connect(using:)", 1);
    log_.debug("d", "Sources/Client/KelServer.swift", "connect(using:)", 2);
    log_.verbose("v", "Sources/Client/KelServer.swift", "connect(using:)", 3);
    EXPECT_EQ(c.print, linesOf(print_)) << "the print is synchronous: no flush needed";
    log_.flush();
    EXPECT_EQ(c.console, linesOf(console_));
    EXPECT_EQ(!c.print.empty() || c.console.size() > 1, log_.admits(LogFlag::debug));
    console_.str("");
    print_.str("");
  }
}

TEST_F(ServerLogTest, MacrosPassTheCallSiteAndSkipUnadmittedMessages) {
  int built = 0;
  auto message = [&] {
    ++built;
    return std::string("hello");
  };
  KEL_LOG_ERROR("op(label:)", message());
  log_.addLoggers(LogLevel::debug, false);
  KEL_LOG_VERBOSE("op(label:)", message());
  EXPECT_EQ(0, built);
  const unsigned line = __LINE__ + 1;
  KEL_LOG_DEBUG("op(label:)", message());
  EXPECT_EQ(1, built);
  log_.flush();
  EXPECT_EQ(
      Lines{"SDKLog - KEL - [ServerLogTest]:[" + std::to_string(line) + " op(label:)]: hello"},
      linesOf(console_));
}

TEST_F(ServerLogTest, FailingSinksNeverReachTheCaller) {
  log_.setConsoleSink(std::make_shared<ThrowingSink>());
  log_.setPrintSink(std::make_shared<ThrowingSink>());
  log_.addLoggers(LogLevel::verbose, true);
  // The functions are noexcept: an escaping exception would terminate.
  log_.error("e", "f.cpp", "g", 1);
  log_.verbose("v", "f.cpp", "g", 1);
  log_.flush();
}

TEST_F(ServerLogTest, ConcurrentLoggingLosesNoLineAndFlushWaitsForAll) {
  log_.addLoggers(LogLevel::debug, false);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this] {
      for (int i = 0; i < 250; ++i) log_.debug("line", "f.cpp", "worker", 1);
    });
  }
  // Reconfiguring while others log must be race-free (checked by the TSan build).
  threads.emplace_back([this] {
    for (int i = 0; i < 50; ++i) log_.addLoggers(LogLevel::debug, false);
  });
  for (auto& thread : threads) thread.join();
  log_.flush();
  const auto lines = linesOf(console_);
  ASSERT_EQ(1000u, lines.size());
  for (const auto& line : lines) EXPECT_EQ("SDKLog - KEL - [f]:[1 worker]: line", line);
}

// A sink that holds the writing thread on its first line until released.
class GateSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::promise<void> entered, release;
  Lines lines;

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    if (lines.empty()) {
      entered.set_value();
      release.get_future().wait();
    }
    lines.emplace_back(msg.payload.data(), msg.payload.size());
  }
  void flush_() override {}
};

TEST_F(ServerLogTest, AFullQueueDropsItsOldestLinesNeverTheCaller) {
  auto gate = std::make_shared<GateSink>();
  log_.setConsoleSink(gate);
  log_.addLoggers(LogLevel::debug, false);
  log_.debug("first", "f.cpp", "g", 1);
  gate->entered.get_future().wait();
  constexpr int kQueued = 8192, kOver = 100;
  for (int i = 0; i < kQueued + kOver; ++i) log_.debug(std::to_string(i), "f.cpp", "g", 1);
  gate->release.set_value();
  log_.flush();
  ASSERT_EQ(1u + kQueued, gate->lines.size());
  EXPECT_EQ("SDKLog - KEL - [f]:[1 g]: " + std::to_string(kOver), gate->lines[1]);
  EXPECT_EQ("SDKLog - KEL - [f]:[1 g]: " + std::to_string(kQueued + kOver - 1), gate->lines.back());
}

TEST(FormattedLine, HasTheFixedLayoutNamingTheFileByItsLastPathPieceUpToItsFirstDot) {
  EXPECT_EQ("SDKLog - KEL - [KelServer]:[237 connect(using:)]: Starting...",
            formattedLine("Starting...", "ServerClient/Sources/Client/KelServer.swift",
                          "connect(using:)", 237));
  EXPECT_EQ("SDKLog - KEL - []:[4294967295 ]: ", formattedLine("", "", "", 4294967295u));
  const std::pair<std::string, std::string> cases[] = {
      {"a/b/c.d.e", "c"}, {"noslash.x", "noslash"},      {"/", ""},
      {"a//b/", "b"},     {"dir/.hidden.txt", "hidden"}, {"dir/...", ""},
  };
  for (const auto& [path, name] : cases) EXPECT_EQ(name, logFileName(path)) << path;
}

}  // namespace
}  // namespace kel
