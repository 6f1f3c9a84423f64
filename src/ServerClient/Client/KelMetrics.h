#pragma once

/// @file
/// What a session's socket did: requests and how they ended, round-trip and authentication
/// times, lost connections and reconnections, and traffic. KelServer::metricsSnapshot() and
/// KelServer::metrics() hand them to the application.

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Socket/Model/SocketStateDisconnectedReason.h"
#include "ServerClient/rx/Scheduler.h"

namespace kel {

/// The number of cases of ConnectionErrorType, the size of KelMetrics::requestsFailed.
inline constexpr std::size_t kConnectionErrorTypeCount =
    static_cast<std::size_t>(ConnectionErrorType::unknown) + 1;
/// The number of cases of SocketStateDisconnectedReason, the size of the arrays indexed by one.
inline constexpr std::size_t kDisconnectedReasonCount =
    static_cast<std::size_t>(SocketStateDisconnectedReason::background) + 1;

/// A distribution of durations. Percentiles come from a log-scale histogram: each is the highest
/// duration of the bucket that holds it, so it is never below the true percentile and at most an
/// eighth above it (and never above `max`). All zero while nothing was measured.
struct KelLatency {
  std::uint64_t count = 0;           ///< How many durations were measured.
  std::chrono::microseconds p50{};   ///< Half of the durations were at most this long.
  std::chrono::microseconds p90{};   ///< Nine in ten were at most this long.
  std::chrono::microseconds p99{};   ///< 99 in 100 were at most this long.
  std::chrono::microseconds max{};   ///< The longest, exactly.
  std::chrono::microseconds last{};  ///< The latest.

  /// Field by field.
  bool operator==(const KelLatency&) const = default;
};

/// What the socket clients of one facade have done since the facade was made, across
/// reconnections and new sessions. Each counter is exact; they are read one after the other, so
/// a snapshot taken while requests run need not add up at that very instant.
///
/// Every request that was sent ends once, in one of: answered, timed out, failed, stopped,
/// cancelled, or it is still pending.
struct KelMetrics {
  /// Request frames written to the socket.
  std::uint64_t requestsSent = 0;
  /// Requests that got their answer (a Resource).
  std::uint64_t requestsAnswered = 0;
  /// Requests that got no answer within their timeout: ConnectionError(timeout, -1).
  std::uint64_t requestsTimedOut = 0;
  /// Requests that failed with a ConnectionError, by its type: the server's error answers
  /// (a `timeout` here is the server's 408, never a time-out of the client's own), and
  /// `noSocketClient` for requests refused because the socket was not authenticated (those were
  /// never sent).
  std::array<std::uint64_t, kConnectionErrorTypeCount> requestsFailed{};
  /// Requests that failed with any other error: a request that could not be framed
  /// (GenericError encoding), or one whose socket client was gone (never sent).
  std::uint64_t requestsFailedOther = 0;
  /// Requests completed without an answer because their socket client was stopped.
  std::uint64_t requestsStopped = 0;
  /// Requests given up by their caller (disposed) before they were answered.
  std::uint64_t requestsCancelled = 0;
  /// Requests waiting for their answer now.
  std::uint64_t requestsPending = 0;
  /// From a request being registered, just before its frame is written, to its answer being
  /// matched, for every answer, an error answer included: what the caller waited beyond the
  /// hand-over to the socket's queue.
  KelLatency roundTrip;

  /// Connections that ended after they had opened, by the reason of the disconnection (a
  /// connection attempt that never opened does not count).
  std::array<std::uint64_t, kDisconnectedReasonCount> connectionsEnded{};
  /// Reconnections started, by the reason of the disconnection that started them (today only
  /// lostConnection starts one).
  std::array<std::uint64_t, kDisconnectedReasonCount> reconnections{};
  /// Connection attempts made by reconnections, one per period while the socket stays down.
  std::uint64_t reconnectionAttempts = 0;
  /// From the socket opening to the server acknowledging its authentication, for every
  /// authentication: the first of each session and each after a reconnection.
  KelLatency authentication;

  /// Payload bytes of the text messages written (request frames and authentication frames).
  std::uint64_t bytesSent = 0;
  /// Payload bytes of the messages received (responses, events, pings and the rest).
  std::uint64_t bytesReceived = 0;

  /// requestsFailed for `type`.
  std::uint64_t failed(ConnectionErrorType type) const noexcept {
    return requestsFailed[static_cast<std::size_t>(type)];
  }
  /// Every failed request: requestsFailed and requestsFailedOther.
  std::uint64_t failedTotal() const noexcept;
  /// Every reconnection started, whatever its cause.
  std::uint64_t reconnectionsTotal() const noexcept;

  /// Field by field.
  bool operator==(const KelMetrics&) const = default;
};

/// Counts for KelMetrics. A facade owns one and hands it to each socket client it makes
/// (KelSocketClientOptions::metrics); an application that makes its own socket clients may share
/// one between them the same way.
///
/// Threads: every member may be called from any thread at any time. Recording is a few relaxed
/// atomic operations on counters of fixed size, with no lock and no allocation, so that it costs
/// next to nothing on the request path whether or not anybody reads the figures; snapshot() reads
/// them without stopping the recording.
class KelMetricsRecorder {
 public:
  /// `clock` times round trips and authentications (a test passes its virtual-time scheduler);
  /// the steady clock when null.
  explicit KelMetricsRecorder(rx::SchedulerPtr clock = nullptr);
  KelMetricsRecorder(const KelMetricsRecorder&) = delete;
  KelMetricsRecorder& operator=(const KelMetricsRecorder&) = delete;

  /// The figures as they are now.
  KelMetrics snapshot() const;
  /// The time on the recorder's clock, for the start of what it later times.
  rx::TimePoint now() const;

  /// @name What the socket client reports
  /// @{

  /// A request failed before it was registered (never sent), with `error`.
  void requestRefused(const std::exception_ptr& error) noexcept;
  /// A request was registered: it is pending until one of the outcomes below.
  void requestRegistered() noexcept;
  /// A registered request's frame was handed to the socket.
  void requestWritten() noexcept;
  /// A pending request got its answer; `registeredAt` is now() at its registration.
  void requestAnswered(rx::TimePoint registeredAt) noexcept;
  /// A pending request timed out.
  void requestTimedOut() noexcept;
  /// A pending request failed with `error`: an error answer (a ConnectionError, whose round trip
  /// counts from `registeredAt`), or a frame that could not be made.
  void requestFailed(const std::exception_ptr& error, rx::TimePoint registeredAt) noexcept;
  /// A pending request was completed without an answer by stop().
  void requestStopped() noexcept;
  /// A pending request was disposed of by its caller, or dropped with its socket client.
  void requestCancelled() noexcept;
  /// A text message of `bytes` bytes was handed to the socket.
  void messageSent(std::size_t bytes) noexcept;
  /// A message of `bytes` bytes arrived.
  void messageReceived(std::size_t bytes) noexcept;
  /// An open connection ended with `reason`.
  void connectionEnded(SocketStateDisconnectedReason reason) noexcept;
  /// A reconnection started after a disconnection with `cause`.
  void reconnectionStarted(SocketStateDisconnectedReason cause) noexcept;
  /// A reconnection made one connection attempt.
  void reconnectionAttempted() noexcept;
  /// The server acknowledged an authentication `sinceOpen` after the socket opened.
  void authenticated(rx::Duration sinceOpen) noexcept;

  /// @}

 private:
  using Counter = std::atomic<std::uint64_t>;

  // Counts per log-scale bucket of microseconds: 8 exact buckets below 8 µs, then 8 buckets per
  // power of two up to 2^35 µs (some 9.5 hours; longer durations share the last bucket).
  class Histogram {
   public:
    void record(rx::Duration duration) noexcept;
    KelLatency summary() const noexcept;

   private:
    static constexpr std::size_t kBuckets = 8 * 33;
    std::array<Counter, kBuckets> counts_{};
    std::atomic<std::int64_t> max_{0};   // microseconds
    std::atomic<std::int64_t> last_{0};  // microseconds
  };

  static void add(Counter& counter, std::uint64_t amount = 1) noexcept {
    counter.fetch_add(amount, std::memory_order_relaxed);
  }
  void settled() noexcept { pending_.fetch_sub(1, std::memory_order_relaxed); }

  const rx::SchedulerPtr clock_;
  Counter sent_{0};
  Counter answered_{0};
  Counter timedOut_{0};
  Counter stopped_{0};
  Counter cancelled_{0};
  // By ConnectionErrorType, then one for every other error.
  std::array<Counter, kConnectionErrorTypeCount + 1> failed_{};
  // Signed: a snapshot never reads it below zero, but a reader should not have to trust that.
  std::atomic<std::int64_t> pending_{0};
  Histogram roundTrip_;
  std::array<Counter, kDisconnectedReasonCount> connectionsEnded_{};
  std::array<Counter, kDisconnectedReasonCount> reconnections_{};
  Counter reconnectionAttempts_{0};
  Histogram authentication_;
  Counter bytesSent_{0};
  Counter bytesReceived_{0};
};

}  // namespace kel
