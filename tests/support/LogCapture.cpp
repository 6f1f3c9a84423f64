#include "support/LogCapture.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/base_sink.h>

#include <mutex>

#include "ServerClient/Log/ServerLog.h"

namespace kel::testing {

// Keeps each line's text under the sink's own lock, so tests may read while other threads log.
class LogCapture::Sink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<std::string> snapshot() {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    lines_.emplace_back(msg.payload.data(), msg.payload.size());
  }
  void flush_() override {}

 private:
  std::vector<std::string> lines_;  // guarded by base_sink::mutex_
};

LogCapture::LogCapture() : sink_(std::make_shared<Sink>()) {
  auto& log = ServerLog::sharedInstance();
  log.resetForTesting();
  log.setConsoleSink(sink_);
  log.addLoggers(LogLevel::verbose, false);
}

LogCapture::~LogCapture() {
  auto& log = ServerLog::sharedInstance();
  log.resetForTesting();
  log.setConsoleSink(nullptr);
}

std::vector<std::string> LogCapture::lines() {
  ServerLog::sharedInstance().flush();
  return sink_->snapshot();
}

std::size_t LogCapture::count(std::string_view text) {
  std::size_t n = 0;
  for (const auto& line : lines()) n += line.find(text) != std::string::npos ? 1 : 0;
  return n;
}

}  // namespace kel::testing
