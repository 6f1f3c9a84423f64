#include "ServerClient/Client/KelMetrics.h"

#include <algorithm>
#include <bit>
#include <numeric>
#include <utility>

namespace kel {

namespace {

using std::chrono::microseconds;

constexpr std::uint64_t kSubBuckets = 8;

// Values below 8 have a bucket each; from there on a power of two [2^e, 2^(e+1)) is cut into
// eight equal parts, so a bucket is at most an eighth as wide as the values it holds.
std::size_t bucketOf(std::uint64_t micros, std::size_t buckets) noexcept {
  if (micros < kSubBuckets) return static_cast<std::size_t>(micros);
  const auto exponent = static_cast<std::uint64_t>(std::bit_width(micros)) - 1;  // 3 or more
  const auto part = (micros >> (exponent - 3)) & (kSubBuckets - 1);
  return std::min(static_cast<std::size_t>((exponent - 2) * kSubBuckets + part), buckets - 1);
}

// The highest value that bucketOf() puts into `bucket`.
std::uint64_t highestIn(std::size_t bucket) noexcept {
  if (bucket < kSubBuckets) return bucket;
  const std::uint64_t exponent = bucket / kSubBuckets + 2;
  const std::uint64_t part = bucket % kSubBuckets;
  const std::uint64_t width = std::uint64_t{1} << (exponent - 3);
  return (kSubBuckets + part) * width + width - 1;
}

template <class Counters, class Index>
std::uint64_t load(const Counters& counters, Index index) noexcept {
  return counters[static_cast<std::size_t>(index)].load(std::memory_order_relaxed);
}

}  // namespace

std::uint64_t KelMetrics::failedTotal() const noexcept {
  return std::accumulate(requestsFailed.begin(), requestsFailed.end(), requestsFailedOther);
}

std::uint64_t KelMetrics::reconnectionsTotal() const noexcept {
  return std::accumulate(reconnections.begin(), reconnections.end(), std::uint64_t{0});
}

void KelMetricsRecorder::Histogram::record(rx::Duration duration) noexcept {
  const auto micros =
      std::max<std::int64_t>(0, std::chrono::duration_cast<microseconds>(duration).count());
  last_.store(micros, std::memory_order_relaxed);
  auto max = max_.load(std::memory_order_relaxed);
  while (micros > max && !max_.compare_exchange_weak(max, micros, std::memory_order_relaxed)) {
  }
  // Released after the maximum: whoever reads this count reads a maximum at least this large.
  counts_[bucketOf(static_cast<std::uint64_t>(micros), kBuckets)].fetch_add(
      1, std::memory_order_release);
}

KelLatency KelMetricsRecorder::Histogram::summary() const noexcept {
  std::array<std::uint64_t, kBuckets> counts{};
  std::uint64_t total = 0;
  for (std::size_t i = 0; i < kBuckets; ++i) {
    counts[i] = counts_[i].load(std::memory_order_acquire);
    total += counts[i];
  }
  KelLatency latency;
  if (total == 0) return latency;
  const auto max = static_cast<std::uint64_t>(max_.load(std::memory_order_relaxed));
  const auto percentile = [&](std::uint64_t perThousand) {
    // The rank of the percentile among the sorted durations, counted from 1.
    const std::uint64_t rank = std::max<std::uint64_t>(1, (total * perThousand + 999) / 1000);
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < kBuckets; ++i) {
      seen += counts[i];
      if (seen >= rank) {
        return microseconds(i + 1 == kBuckets ? max : std::min(highestIn(i), max));
      }
    }
    return microseconds(max);
  };
  latency.count = total;
  latency.p50 = percentile(500);
  latency.p90 = percentile(900);
  latency.p99 = percentile(990);
  latency.max = microseconds(max);
  latency.last = microseconds(last_.load(std::memory_order_relaxed));
  return latency;
}

KelMetricsRecorder::KelMetricsRecorder(rx::SchedulerPtr clock) : clock_(std::move(clock)) {}

rx::TimePoint KelMetricsRecorder::now() const {
  return clock_ ? clock_->now() : std::chrono::steady_clock::now();
}

KelMetrics KelMetricsRecorder::snapshot() const {
  KelMetrics metrics;
  metrics.requestsSent = sent_.load(std::memory_order_relaxed);
  metrics.requestsAnswered = answered_.load(std::memory_order_relaxed);
  metrics.requestsTimedOut = timedOut_.load(std::memory_order_relaxed);
  for (std::size_t i = 0; i < kConnectionErrorTypeCount; ++i) {
    metrics.requestsFailed[i] = load(failed_, i);
  }
  metrics.requestsFailedOther = load(failed_, kConnectionErrorTypeCount);
  metrics.requestsStopped = stopped_.load(std::memory_order_relaxed);
  metrics.requestsCancelled = cancelled_.load(std::memory_order_relaxed);
  metrics.requestsPending = static_cast<std::uint64_t>(
      std::max<std::int64_t>(0, pending_.load(std::memory_order_relaxed)));
  metrics.roundTrip = roundTrip_.summary();
  for (std::size_t i = 0; i < kDisconnectedReasonCount; ++i) {
    metrics.connectionsEnded[i] = load(connectionsEnded_, i);
    metrics.reconnections[i] = load(reconnections_, i);
  }
  metrics.reconnectionAttempts = reconnectionAttempts_.load(std::memory_order_relaxed);
  metrics.authentication = authentication_.summary();
  metrics.bytesSent = bytesSent_.load(std::memory_order_relaxed);
  metrics.bytesReceived = bytesReceived_.load(std::memory_order_relaxed);
  return metrics;
}

void KelMetricsRecorder::requestRefused(const std::exception_ptr& error) noexcept {
  const auto* connection = errorAs<ConnectionError>(error);
  add(failed_[connection ? static_cast<std::size_t>(connection->type())
                         : kConnectionErrorTypeCount]);
}

void KelMetricsRecorder::requestFailed(const std::exception_ptr& error,
                                       rx::TimePoint registeredAt) noexcept {
  settled();
  const auto* connection = errorAs<ConnectionError>(error);
  if (!connection) return add(failed_[kConnectionErrorTypeCount]);
  add(failed_[static_cast<std::size_t>(connection->type())]);
  roundTrip_.record(now() - registeredAt);
}

void KelMetricsRecorder::requestRegistered() noexcept {
  pending_.fetch_add(1, std::memory_order_relaxed);
}

void KelMetricsRecorder::requestWritten() noexcept {
  add(sent_);
}

void KelMetricsRecorder::requestAnswered(rx::TimePoint registeredAt) noexcept {
  settled();
  add(answered_);
  roundTrip_.record(now() - registeredAt);
}

void KelMetricsRecorder::requestTimedOut() noexcept {
  settled();
  add(timedOut_);
}

void KelMetricsRecorder::requestStopped() noexcept {
  settled();
  add(stopped_);
}

void KelMetricsRecorder::requestCancelled() noexcept {
  settled();
  add(cancelled_);
}

void KelMetricsRecorder::messageSent(std::size_t bytes) noexcept {
  add(bytesSent_, bytes);
}

void KelMetricsRecorder::messageReceived(std::size_t bytes) noexcept {
  add(bytesReceived_, bytes);
}

void KelMetricsRecorder::connectionEnded(SocketStateDisconnectedReason reason) noexcept {
  add(connectionsEnded_[static_cast<std::size_t>(reason)]);
}

void KelMetricsRecorder::reconnectionStarted(SocketStateDisconnectedReason cause) noexcept {
  add(reconnections_[static_cast<std::size_t>(cause)]);
}

void KelMetricsRecorder::reconnectionAttempted() noexcept {
  add(reconnectionAttempts_);
}

void KelMetricsRecorder::authenticated(rx::Duration sinceOpen) noexcept {
  authentication_.record(sinceOpen);
}

}  // namespace kel
