#include "ServerClient/Log/ServerLog.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kel {
namespace {

constexpr std::string_view kLineTag = "SDKLog - KEL - ";
constexpr const char* kLoggerName = "ServerClient";
constexpr std::size_t kQueueCapacity = 8192;
constexpr std::chrono::seconds kExitFlushPatience{2};
constexpr unsigned kMaxReportedErrors = 10;

// The one error handler: a logging failure must never reach the code that logged, and a broken
// sink must not flood stderr either.
void reportLoggingError(std::string_view what) noexcept {
  static std::atomic<unsigned> reported{0};
  const unsigned count = reported.fetch_add(1, std::memory_order_relaxed);
  if (count < kMaxReportedErrors) {
    std::fprintf(stderr, "[ServerLog] logging failed: %.*s\n", static_cast<int>(what.size()),
                 what.data());
  } else if (count == kMaxReportedErrors) {
    std::fputs("[ServerLog] further logging failures are not reported\n", stderr);
  }
}

// Flags travel through spdlog as its levels; the mapping is one-to-one so sinks can recover them.
spdlog::level::level_enum spdlogLevel(LogFlag flag) noexcept {
  switch (flag) {
    case LogFlag::error:
      return spdlog::level::err;
    case LogFlag::warning:
      return spdlog::level::warn;
    case LogFlag::info:
      return spdlog::level::info;
    case LogFlag::debug:
      return spdlog::level::debug;
    case LogFlag::verbose:
      return spdlog::level::trace;
  }
  return spdlog::level::err;
}

std::optional<LogFlag> logFlag(spdlog::level::level_enum level) noexcept {
  switch (level) {
    case spdlog::level::err:
      return LogFlag::error;
    case spdlog::level::warn:
      return LogFlag::warning;
    case spdlog::level::info:
      return LogFlag::info;
    case spdlog::level::debug:
      return LogFlag::debug;
    case spdlog::level::trace:
      return LogFlag::verbose;
    default:
      return std::nullopt;
  }
}

// "%*" in our patterns: the flag's own name, so that verbose lines do not read "trace".
class FlagNameFormatter final : public spdlog::custom_flag_formatter {
 public:
  void format(const spdlog::details::log_msg& msg, const std::tm& /*time*/,
              spdlog::memory_buf_t& dest) override {
    std::string_view name = "unknown";
    if (const auto flag = logFlag(msg.level)) {
      switch (*flag) {
        case LogFlag::error:
          name = "error";
          break;
        case LogFlag::warning:
          name = "warning";
          break;
        case LogFlag::info:
          name = "info";
          break;
        case LogFlag::debug:
          name = "debug";
          break;
        case LogFlag::verbose:
          name = "verbose";
          break;
      }
    }
    dest.append(name.data(), name.data() + name.size());
  }

  std::unique_ptr<spdlog::custom_flag_formatter> clone() const override {
    return std::make_unique<FlagNameFormatter>();
  }
};

std::shared_ptr<spdlog::sinks::sink> makeDefaultConsoleSink() {
  auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  auto formatter = std::make_unique<spdlog::pattern_formatter>();
  formatter->add_flag<FlagNameFormatter>('*').set_pattern("%Y-%m-%d %H:%M:%S.%e [%*] %v");
  sink->set_formatter(std::move(formatter));
  return sink;
}

// Like NSLog: "2024-05-06 10:11:12.345678+02:00 app[pid:tid] line". The print is synchronous,
// so the thread id is the logging thread's own.
std::shared_ptr<spdlog::sinks::sink> makeDefaultPrintSink() {
  std::string processName;
  for (const char* c = program_invocation_short_name; c != nullptr && *c != '\0'; ++c) {
    if (*c == '%') processName += '%';  // a literal '%' in a pattern is written "%%"
    processName += *c;
  }
  auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  sink->set_pattern("%Y-%m-%d %H:%M:%S.%f%z " + processName + "[%P:%t] %v");
  return sink;
}

// A logger of the dispatcher whose output can be swapped without changing its identity, so that
// re-adding it replaces its level and a test can capture it.
class ForwardingSink final : public spdlog::sinks::sink {
 public:
  explicit ForwardingSink(std::shared_ptr<spdlog::sinks::sink> target)
      : target_(std::move(target)) {}

  void setTarget(std::shared_ptr<spdlog::sinks::sink> target) {
    std::lock_guard lock(mutex_);
    target_ = std::move(target);
  }

  // The lock is held while writing so that once setTarget returns nothing reaches the old target.
  void log(const spdlog::details::log_msg& msg) override {
    std::lock_guard lock(mutex_);
    if (target_->should_log(msg.level)) target_->log(msg);
  }

  void flush() override {
    std::lock_guard lock(mutex_);
    target_->flush();
  }

  // The target keeps the pattern it was configured with.
  void set_pattern(const std::string& /*pattern*/) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter> /*formatter*/) override {}

 private:
  std::mutex mutex_;
  std::shared_ptr<spdlog::sinks::sink> target_;  // guarded by mutex_; never null
};

// The library's dispatcher: passes each line to every added logger whose level admits its flag.
// Runs on the logging thread; loggers are added from any thread.
class DispatchSink final : public spdlog::sinks::sink {
 public:
  void add(const std::shared_ptr<spdlog::sinks::sink>& logger, LogLevel level) {
    std::lock_guard lock(mutex_);
    bool found = false;
    for (auto& entry : entries_) {
      if (entry.logger == logger) {
        entry.level = level;
        found = true;
      }
    }
    if (!found) entries_.push_back({logger, level});
    updateMask();
  }

  void removeAll() {
    std::lock_guard lock(mutex_);
    entries_.clear();
    updateMask();
  }

  bool admits(LogFlag flag) const noexcept {
    return (mask_.load(std::memory_order_relaxed) & static_cast<unsigned>(flag)) != 0;
  }

  void log(const spdlog::details::log_msg& msg) override {
    const auto flag = logFlag(msg.level);
    if (!flag) return;
    std::lock_guard lock(mutex_);
    for (const auto& entry : entries_) {
      if (levelAdmits(entry.level, *flag)) entry.logger->log(msg);
    }
  }

  void flush() override {
    std::lock_guard lock(mutex_);
    for (const auto& entry : entries_) entry.logger->flush();
  }

  // Each added logger formats lines its own way.
  void set_pattern(const std::string& /*pattern*/) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter> /*formatter*/) override {}

 private:
  struct Entry {
    std::shared_ptr<spdlog::sinks::sink> logger;
    LogLevel level;
  };

  void updateMask() {
    unsigned mask = 0;
    for (const auto& entry : entries_) mask |= static_cast<unsigned>(entry.level);
    mask_.store(mask, std::memory_order_relaxed);
  }

  std::mutex mutex_;
  std::vector<Entry> entries_;     // guarded by mutex_
  std::atomic<unsigned> mask_{0};  // union of the entries' levels, for the lock-free check
};

// The queue between the threads that log and the one thread that writes. Bounded: when it is full
// the oldest line is dropped, so a thread that logs never waits for a slow sink, it only takes the
// mutex for the push. The writing thread starts with the first line and then sleeps on the
// condition with no time-out, so an idle process is never woken by its logger, and a drained
// queue keeps no memory.
class LineQueue {
 public:
  explicit LineQueue(std::shared_ptr<DispatchSink> dispatch) : dispatch_(std::move(dispatch)) {}

  void push(spdlog::log_clock::time_point time, spdlog::level::level_enum level, std::string text) {
    {
      std::lock_guard lock(mutex_);
      if (!started_) start();
      if (lines_.size() >= kQueueCapacity) {
        lines_.pop_front();
        ++dropped_;
      }
      lines_.push_back({time, level, std::move(text)});
    }
    wake_.notify_one();
  }

  // Writes every line pushed before the call and flushes the loggers; false if `deadline`
  // passed first.
  bool flushUntil(std::optional<std::chrono::steady_clock::time_point> deadline) {
    std::unique_lock lock(mutex_);
    if (!started_) start();
    const std::uint64_t request = ++flushesRequested_;
    wake_.notify_one();
    const auto done = [&] { return flushesDone_ >= request; };
    if (!deadline) {
      flushed_.wait(lock, done);
      return true;
    }
    return flushed_.wait_until(lock, *deadline, done);
  }

 private:
  struct Line {
    spdlog::log_clock::time_point time;
    spdlog::level::level_enum level;
    std::string text;
  };

  // Under mutex_. The thread is never joined: the queue lives as long as the process.
  void start() {
    std::thread([this] {
      pthread_setname_np(pthread_self(), "kel-log");
      run();
    }).detach();
    started_ = true;
  }

  void run() {
    std::deque<Line> batch;
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [&] { return !lines_.empty() || flushesDone_ < flushesRequested_; });
      batch.swap(lines_);
      const std::uint64_t flushes = flushesRequested_;
      const std::uint64_t dropped = std::exchange(dropped_, 0);
      lock.unlock();
      if (dropped > 0) {
        reportLoggingError(std::to_string(dropped) + " lines dropped, the log queue was full");
      }
      write(batch);
      batch = {};  // gives the memory back while idle
      if (flushes > flushesDone_) flushLoggers();
      lock.lock();
      if (flushes > flushesDone_) {
        flushesDone_ = flushes;
        flushed_.notify_all();
      }
    }
  }

  void write(const std::deque<Line>& batch) noexcept {
    for (const Line& line : batch) {
      try {
        // No source location is passed on: its pointers would dangle by now.
        dispatch_->log(spdlog::details::log_msg(line.time, {}, kLoggerName, line.level, line.text));
      } catch (const std::exception& e) {
        reportLoggingError(e.what());
      } catch (...) {
        reportLoggingError("unknown exception while writing");
      }
    }
  }

  void flushLoggers() noexcept {
    try {
      dispatch_->flush();
    } catch (const std::exception& e) {
      reportLoggingError(e.what());
    } catch (...) {
      reportLoggingError("unknown exception while flushing");
    }
  }

  const std::shared_ptr<DispatchSink> dispatch_;
  std::mutex mutex_;  // guards everything below
  std::condition_variable wake_;
  std::condition_variable flushed_;
  std::deque<Line> lines_;
  std::uint64_t dropped_ = 0;
  std::uint64_t flushesRequested_ = 0;
  std::uint64_t flushesDone_ = 0;  // every line pushed before this request was written
  bool started_ = false;
};

ServerLog* sharedInstancePointer = nullptr;

}  // namespace

std::string logFileName(std::string_view file) {
  // Last non-empty piece between slashes.
  std::string_view last;
  std::size_t end = file.size();
  while (end > 0) {
    const std::size_t slash = file.rfind('/', end - 1);
    const std::size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
    if (begin < end) {
      last = file.substr(begin, end - begin);
      break;
    }
    if (slash == std::string_view::npos) break;
    end = slash;
  }
  // First non-empty piece between dots.
  const std::size_t begin = last.find_first_not_of('.');
  if (begin == std::string_view::npos) return {};
  const std::size_t dot = last.find('.', begin);
  return std::string(last.substr(begin, dot == std::string_view::npos ? dot : dot - begin));
}

std::string formattedLine(std::string_view message, std::string_view file,
                          std::string_view function, unsigned line) {
  char digits[16];
  const auto converted = std::to_chars(std::begin(digits), std::end(digits), line);
  const std::string_view lineText(digits, static_cast<std::size_t>(converted.ptr - digits));
  const std::string fileName = logFileName(file);

  std::string text;
  text.reserve(kLineTag.size() + fileName.size() + lineText.size() + function.size() +
               message.size() + 8);
  text.append(kLineTag).append("[").append(fileName).append("]:[");
  text.append(lineText).append(" ").append(function).append("]: ").append(message);
  return text;
}

struct ServerLog::State {
  State()
      : consoleLogger(std::make_shared<ForwardingSink>(makeDefaultConsoleSink())),
        printer(std::make_shared<ForwardingSink>(makeDefaultPrintSink())),
        dispatch(std::make_shared<DispatchSink>()),
        queue(dispatch) {}

  std::shared_ptr<ForwardingSink> consoleLogger;  // the console logger, added by addLoggers
  std::shared_ptr<ForwardingSink> printer;        // the NSLog-style print, synchronous
  std::shared_ptr<DispatchSink> dispatch;
  LineQueue queue;
  std::atomic<bool> shouldDisplayInRelease{false};
};

ServerLog::ServerLog() : state_(std::make_unique<State>()) {}

ServerLog::~ServerLog() = default;

ServerLog& ServerLog::sharedInstance() {
  // Never destroyed: static objects of the application may still log while the program exits.
  static ServerLog* const instance = [] {
    auto* created = new ServerLog();
    sharedInstancePointer = created;
    std::atexit([] {
      try {
        sharedInstancePointer->state_->queue.flushUntil(std::chrono::steady_clock::now() +
                                                        kExitFlushPatience);
      } catch (...) {
        // Nothing sensible is left to do with a failure while the program ends.
      }
    });
    return created;
  }();
  return *instance;
}

void ServerLog::addLoggers(LogLevel level, bool shouldDisplayInRelease) {
  state_->shouldDisplayInRelease.store(shouldDisplayInRelease);
  state_->dispatch->add(state_->consoleLogger, level);
}

void ServerLog::error(std::string_view message, std::string_view file, std::string_view function,
                      unsigned line) noexcept {
  log(LogFlag::error, message, file, function, line);
}

void ServerLog::debug(std::string_view message, std::string_view file, std::string_view function,
                      unsigned line) noexcept {
  log(LogFlag::debug, message, file, function, line);
}

void ServerLog::verbose(std::string_view message, std::string_view file, std::string_view function,
                        unsigned line) noexcept {
  log(LogFlag::verbose, message, file, function, line);
}

bool ServerLog::admits(LogFlag flag) const noexcept {
  return state_->shouldDisplayInRelease.load(std::memory_order_relaxed) ||
         state_->dispatch->admits(flag);
}

void ServerLog::log(LogFlag flag, std::string_view message, std::string_view file,
                    std::string_view function, unsigned line) noexcept {
  try {
    State& state = *state_;
    const bool print = state.shouldDisplayInRelease.load();
    const bool dispatch = state.dispatch->admits(flag);
    if (!print && !dispatch) return;

    std::string text = formattedLine(message, file, function, line);
    const auto level = spdlogLevel(flag);
    const auto now = spdlog::log_clock::now();
    if (print) {
      state.printer->log(spdlog::details::log_msg(now, {}, kLoggerName, level, text));
    }
    if (dispatch) state.queue.push(now, level, std::move(text));
  } catch (const std::exception& e) {
    reportLoggingError(e.what());
  } catch (...) {
    reportLoggingError("unknown exception");
  }
}

void ServerLog::flush() noexcept {
  try {
    state_->queue.flushUntil(std::nullopt);
  } catch (const std::exception& e) {
    reportLoggingError(e.what());
  } catch (...) {
    reportLoggingError("unknown exception while flushing");
  }
}

void ServerLog::setConsoleSink(std::shared_ptr<spdlog::sinks::sink> sink) {
  state_->consoleLogger->setTarget(sink ? std::move(sink) : makeDefaultConsoleSink());
}

void ServerLog::setPrintSink(std::shared_ptr<spdlog::sinks::sink> sink) {
  state_->printer->setTarget(sink ? std::move(sink) : makeDefaultPrintSink());
}

void ServerLog::resetForTesting() {
  flush();
  state_->dispatch->removeAll();
  state_->shouldDisplayInRelease.store(false);
  setConsoleSink(nullptr);
  setPrintSink(nullptr);
}

}  // namespace kel
