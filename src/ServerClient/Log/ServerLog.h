#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace spdlog::sinks {
class sink;  // kept forward-declared so that every file that logs need not parse spdlog and fmt
}  // namespace spdlog::sinks

namespace kel {

/// What a logger lets through, as a bit mask of `LogFlag`s: a logger added with `level` admits a
/// message of flag `f` when `(level & f) != 0`. Each level includes every flag above it.
enum class LogLevel : unsigned {
  off = 0,
  error = 1,
  warning = 3,
  info = 7,
  debug = 15,
  verbose = 31
};

/// The kind of one message.
enum class LogFlag : unsigned { error = 1, warning = 2, info = 4, debug = 8, verbose = 16 };

/// True when a logger configured with `level` lets a message of kind `flag` through.
constexpr bool levelAdmits(LogLevel level, LogFlag flag) noexcept {
  return (static_cast<unsigned>(level) & static_cast<unsigned>(flag)) != 0;
}

/// The library's one logging entry point: every line of the library goes through
/// `sharedInstance()`. Nothing reaches any output until the application calls `addLoggers`.
///
/// A line is built on the caller's thread and then:
///  - if `shouldDisplayInRelease` is on, printed at once, synchronously, by the print sink
///    (stderr by default, each line prefixed like NSLog: local time, process name, pid and thread
///    id), whatever its level;
///  - queued for the library's own asynchronous dispatcher (one thread of its own, started with the
///    first queued line, never spdlog's global registry or default logger), which writes it to
///    every added logger whose level admits the line's flag. Today the only logger is the console
///    logger, whose sink is stderr by default (the console that a terminal, a container runtime or
///    journald collects on Linux); an application that wants syslog installs spdlog's
///    `syslog_sink_mt` with `setConsoleSink`.
///
/// Queue overflow: the dispatcher queue holds 8192 lines. When it is full the oldest queued line
/// is dropped (and the loss reported on stderr), so a thread that logs never waits for a slow
/// sink; it only takes the queue's mutex for the push. The dispatcher sleeps while there is
/// nothing to write, with no periodic wake-up, and keeps no memory once drained.
///
/// Errors: logging never throws. Any failure, on the caller's thread or on the logging thread,
/// goes to one handler that reports the first few on stderr and then stays quiet.
///
/// Threads: every operation may be called from any thread. `addLoggers` is meant for application
/// start-up, but is safe while other threads log.
///
/// The instance is created on first use and intentionally never destroyed, so static objects may
/// log during program exit; queued lines are flushed at normal exit (std::atexit), and a program
/// that ends otherwise should call `flush()` first.
class ServerLog {
 public:
  /// The process-wide instance, created thread-safely on first use.
  static ServerLog& sharedInstance();

  ServerLog(const ServerLog&) = delete;
  ServerLog& operator=(const ServerLog&) = delete;

  /// Stores `shouldDisplayInRelease`, then adds the console logger to the dispatcher with `level`.
  /// Calling it again replaces the console logger's level: it stays one logger.
  void addLoggers(LogLevel level, bool shouldDisplayInRelease);

  /// Logs `message` with the caller's source file path, function name and line, as an error.
  /// `message` is written as given: a caller that includes outside data passes it through
  /// displayText first. The KEL_LOG_ERROR macro fills in the rest.
  void error(std::string_view message, std::string_view file, std::string_view function,
             unsigned line) noexcept;
  /// The same at debug level (KEL_LOG_DEBUG).
  void debug(std::string_view message, std::string_view file, std::string_view function,
             unsigned line) noexcept;
  /// The same at verbose level (KEL_LOG_VERBOSE).
  void verbose(std::string_view message, std::string_view file, std::string_view function,
               unsigned line) noexcept;

  /// Whether a line of kind `flag` would reach any output now (an added logger admits it, or
  /// the print is on). Lock-free; call sites use it to skip building texts nobody receives.
  bool admits(LogFlag flag) const noexcept;

  /// Blocks until every line queued before the call has been written and the console sink has
  /// been flushed.
  void flush() noexcept;

  /// Replaces where the console logger writes (for example an ostream or syslog sink). The sink
  /// keeps its own pattern. `nullptr` restores the default stderr sink. Lines already queued are
  /// written to whichever sink is installed when the logging thread reaches them; call `flush()`
  /// first to keep them on the old one.
  void setConsoleSink(std::shared_ptr<spdlog::sinks::sink> sink);

  /// Replaces where the NSLog-style print writes; the sink receives the bare line and keeps its own
  /// pattern. `nullptr` restores the default stderr sink with the NSLog-like prefix.
  void setPrintSink(std::shared_ptr<spdlog::sinks::sink> sink);

  /// FOR TESTS ONLY. Flushes, then returns the instance to its initial state: no logger added,
  /// `shouldDisplayInRelease` false, default sinks. Lets tests share the singleton in any order.
  void resetForTesting();

 private:
  struct State;

  ServerLog();
  ~ServerLog();

  void log(LogFlag flag, std::string_view message, std::string_view file, std::string_view function,
           unsigned line) noexcept;

  std::unique_ptr<State> state_;  // never null; synchronised internally, see ServerLog.cpp
};

/// The file name shown in a line: the last non-empty "/"-separated piece of `file`, cut at its
/// first "." ("Sources/Client/KelServer.swift" -> "KelServer", "a/b/c.d.e" -> "c"); empty when
/// there is no such piece.
std::string logFileName(std::string_view file);

/// The text of one line:
/// `SDKLog - KEL - [<file name>]:[<line> <function>]: <message>`.
std::string formattedLine(std::string_view message, std::string_view file,
                          std::string_view function, unsigned line);

}  // namespace kel

// Call-site macros. `function` is the operation's documented name as shown in the line, in the
// labelled form "connect(using:)", "post(url:data:)": `__func__` would read "operator()" inside
// every lambda and a bare C++ name elsewhere. The message expression is evaluated only when some
// output admits the level; `msg` is anything convertible to std::string_view that outlives the
// statement.
#define KEL_LOG_AT_(kelMethod_, kelFlag_, function, msg)                                      \
  do {                                                                                        \
    ::kel::ServerLog& kelServerLog_ = ::kel::ServerLog::sharedInstance();                     \
    if (kelServerLog_.admits(::kel::LogFlag::kelFlag_)) {                                     \
      kelServerLog_.kelMethod_((msg), __FILE__, (function), static_cast<unsigned>(__LINE__)); \
    }                                                                                         \
  } while (false)

#define KEL_LOG_ERROR(function, msg) KEL_LOG_AT_(error, error, function, msg)
#define KEL_LOG_DEBUG(function, msg) KEL_LOG_AT_(debug, debug, function, msg)
#define KEL_LOG_VERBOSE(function, msg) KEL_LOG_AT_(verbose, verbose, function, msg)
