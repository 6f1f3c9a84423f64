// What the metrics recorder costs a request, against the round trip it measures: the calls that
// the socket client makes into it for one request that is answered, and the reference counts of
// handing it to the request. Its budget is 2 % of a library round trip on the same machine.

#include <benchmark/benchmark.h>

#include <memory>

#include "Ratios.h"
#include "ServerClient/Client/KelMetrics.h"

namespace {

void MetricsRecordingPerRequest(benchmark::State& state) {
  const auto metrics = std::make_shared<kel::KelMetricsRecorder>();
  constexpr std::size_t kFrame = 96;
  for (auto _ : state) {
    auto source = metrics;  // the send's source
    auto pending = source;  // the pending request
    const auto registeredAt = pending->now();
    pending->requestRegistered();
    pending->requestWritten();
    pending->messageSent(kFrame);
    pending->messageReceived(kFrame);
    pending->requestAnswered(registeredAt);
    benchmark::DoNotOptimize(pending);
  }
  benchmark::DoNotOptimize(metrics->snapshot());
}
BENCHMARK(MetricsRecordingPerRequest);
KEL_BENCH_COMPARE(MetricsRecordingPerRequest, SocketClientRoundTrip);

}  // namespace
