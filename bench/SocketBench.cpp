// Requests through the socket client against the same exchange done by hand with Beast, on one
// loopback emulator: what the library's framing, pending-request store, time-outs and thread
// hand-overs cost.
//
// Hand-overs of one library round trip: two. (1) The caller's thread -> the WebSocket's network
// thread, where the "KelSocket" queue runs: the request is framed, registered with its deadline
// and written there, the write starting at once. The response is read, matched and delivered on
// that same thread, which (2) wakes the waiting caller. The raw echo does the write and the read
// on the caller's thread: no hand-over. (With the queue on the shared pool, as before, a round
// trip took three: caller -> pool -> network thread -> caller.)

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <new>

#include <malloc.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/url/parse.hpp>
#include <nlohmann/json.hpp>

#include "Ratios.h"
#include "ServerClient/Client/KelMetrics.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Socket/Client/KelSocketClient.h"
#include "ServerClient/Socket/Events/KelEventHandler.h"
#include "ServerClient/Socket/Model/PathRepresentable.h"
#include "ServerClient/Socket/Model/Request.h"
#include "ServerClient/Socket/SocketBuilder.h"
#include "ServerClient/platform/OvNetworkManager.h"
#include "ServerClient/platform/WebSocketTaskConnectionWrapper.h"
#include "ServerClient/rx/DispatchQueue.h"
#include "ServerClient/rx/Schedulers.h"
#include "emulator/Emulator.h"

// Every allocation of the process is counted while counting is on: the library's per request,
// beside the emulator's and Beast's in the raw baseline. The replacements pair malloc with free,
// which GCC cannot tell once they are inlined into the callers of new and delete.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
namespace {
std::atomic<bool> countingAllocations = false;
std::atomic<std::uint64_t> allocations = 0;
}  // namespace

void* operator new(std::size_t size) {
  if (countingAllocations.load(std::memory_order_relaxed)) {
    allocations.fetch_add(1, std::memory_order_relaxed);
  }
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
namespace beast = boost::beast;
namespace asio = boost::asio;

enum class BenchPath { echo };
[[maybe_unused]] constexpr auto pathTable(BenchPath) {
  return kel::makePathTable<BenchPath>({{BenchPath::echo, "/echo"}});
}

const nlohmann::json& smallBody() {
  static const nlohmann::json body = {{"status", "available"}, {"message", "at my desk"}};
  return body;
}

kel::JsonRequest<BenchPath> echoRequest() {
  return {.pathname = BenchPath::echo, .body = smallBody(), .method = "PUT"};
}

std::size_t threadCount() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("Threads:", 0) == 0) return std::stoul(line.substr(8));
  }
  return 0;
}

std::size_t heapInUse() {
  return mallinfo2().uordblks;
}

// No wait in these benchmarks is open-ended: what does not happen within this fails the run.
constexpr auto kWaitLimit = 10s;

// Set once by a callback; waited for with a limit.
class Signal {
 public:
  void set() {
    {
      std::lock_guard lock(mutex_);
      set_ = true;
    }
    changed_.notify_all();
  }
  bool waitFor(Clock::duration limit = kWaitLimit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return set_; });
  }

 private:
  std::mutex mutex_;  // guards set_
  std::condition_variable changed_;
  bool set_ = false;
};

// Polls `condition` until it holds; false once `limit` has passed. Sleeps between polls so as not
// to take a core from the threads it waits for.
template <class Condition>
bool pollUntil(Condition condition, Clock::duration limit = kWaitLimit) {
  const auto giveUp = Clock::now() + limit;
  while (!condition()) {
    if (Clock::now() > giveUp) return false;
    std::this_thread::sleep_for(100us);
  }
  return true;
}

// The raw client reads synchronously, which no time-out bounds. This thread shuts its socket
// down once an armed exchange has made no progress for kWaitLimit: the blocked read then fails,
// and so does the benchmark.
class Watchdog {
 public:
  explicit Watchdog(int fd)
      : fd_(fd), thread_([this](const std::stop_token& stop) { watch(stop); }) {}
  ~Watchdog() {
    thread_.request_stop();
    changed_.notify_all();
  }

  void arm(bool armed) { armed_.store(armed, std::memory_order_relaxed); }
  void progress() { progress_.fetch_add(1, std::memory_order_relaxed); }

 private:
  void watch(const std::stop_token& stop) {
    std::unique_lock lock(mutex_);
    auto seen = progress_.load(std::memory_order_relaxed);
    auto since = Clock::now();
    while (!stop.stop_requested()) {
      changed_.wait_for(lock, stop, 500ms, [] { return false; });
      const auto now = Clock::now();
      const auto progress = progress_.load(std::memory_order_relaxed);
      if (!armed_.load(std::memory_order_relaxed) || progress != seen) {
        seen = progress;
        since = now;
      } else if (now - since > kWaitLimit) {
        ::shutdown(fd_, SHUT_RDWR);
        return;
      }
    }
  }

  const int fd_;
  std::atomic<bool> armed_ = false;
  std::atomic<std::uint64_t> progress_ = 0;
  std::mutex mutex_;  // for the condition variable only
  std::condition_variable_any changed_;
  std::jthread thread_;
};

// The emulator, one authenticated library client and one authenticated raw client, made once.
class Loopback {
 public:
  // Null, with the benchmark failed, when the loopback could not be set up.
  static Loopback* shared(benchmark::State& state) {
    try {
      static Loopback loopback;
      return &loopback;
    } catch (const std::exception& e) {
      state.SkipWithError(e.what());
      return nullptr;
    }
  }

  const std::shared_ptr<kel::KelSocketClient>& client() const { return client_; }
  const std::shared_ptr<kel::KelSocketClient>& poolQueueClient() const { return poolQueueClient_; }
  const std::shared_ptr<kel::KelSocketClient>& meteredClient() const { return meteredClient_; }
  const std::shared_ptr<kel::KelSocketClient>& unmeteredTwin() const { return unmeteredTwin_; }
  kel::emulator::Emulator& emulator() { return emulator_; }

  // A synchronous echo of one request frame by hand.
  void rawRoundTrip(const std::string& frame) {
    raw_.write(asio::buffer(frame));
    buffer_.clear();
    raw_.read(buffer_);
    watchdog_->progress();
  }
  // `count` frames written, then `count` answers read.
  void rawPipelined(const std::string& frame, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) raw_.write(asio::buffer(frame));
    for (std::size_t i = 0; i < count; ++i) {
      buffer_.clear();
      raw_.read(buffer_);
      watchdog_->progress();
    }
  }
  // Runs raw exchanges under the watchdog; false, with the benchmark failed, if one failed.
  template <class Exchanges>
  bool guarded(benchmark::State& state, Exchanges exchanges) {
    watchdog_->arm(true);
    try {
      exchanges();
      watchdog_->arm(false);
      return true;
    } catch (const std::exception& e) {
      watchdog_->arm(false);
      state.SkipWithError((std::string("the raw client failed: ") + e.what()).c_str());
      return false;
    }
  }

  // Withholds every answer from construction to release(). release() first waits until the
  // emulator has withheld `requests` more answers, so that requests written but not read yet
  // are not answered late, to whatever request is pending under their identifier by then.
  class Withholding {
   public:
    Withholding(kel::emulator::Emulator& emulator, std::size_t requests)
        : emulator_(emulator), until_(withheld(emulator) + requests) {
      emulator_.faultAllRequests(kel::emulator::Fault::withhold());
    }
    ~Withholding() { release(); }
    Withholding(const Withholding&) = delete;
    Withholding& operator=(const Withholding&) = delete;

    // Whether the emulator has seen all of them, waiting up to kWaitLimit.
    bool allSeen() const {
      return emulator_.waitUntil([this] { return withheld(emulator_) >= until_; }, kWaitLimit);
    }
    // False when the emulator did not see them all within kWaitLimit. Without `waitForAll`
    // (their socket is closed, so no answer can reach the client) it does not wait.
    bool release(bool waitForAll = true) {
      if (released_) return true;
      released_ = true;
      const bool seen = !waitForAll || allSeen();
      emulator_.clearFaults();
      return seen;
    }

   private:
    static std::size_t withheld(const kel::emulator::Emulator& emulator) {
      std::size_t total = 0;
      for (const auto& socket : emulator.sockets()) total += socket.responsesWithheld;
      return total;
    }
    kel::emulator::Emulator& emulator_;
    const std::size_t until_;
    bool released_ = false;
  };

 private:
  Loopback() : emulator_(options()), raw_(ioContext_) {
    emulator_.addUser("bench");
    const auto token = emulator_.createSession("bench");
    const auto urls = emulator_.start();

    kel::SocketBuilder::Platform platform = kel::SocketBuilder::Platform::system();
    platform.makeNetworkManager = [] {
      return std::make_shared<kel::platform::InMemoryNetworkManager>();
    };
    const auto connected = [&](kel::SocketBuilder::Platform with) {
      auto builder = kel::SocketBuilder::create(
          boost::urls::url(urls.kelURL), boost::urls::url(urls.socketURL), events_,
          [token] { return std::optional(token); }, std::move(with));
      auto client = std::dynamic_pointer_cast<kel::KelSocketClient>(builder->newSocket());
      Signal authenticated;
      auto subscription =
          client->connect(token).subscribe([&](kel::rx::Unit) { authenticated.set(); });
      if (!authenticated.waitFor()) {
        subscription.dispose();
        throw std::runtime_error("the library's client did not authenticate in time");
      }
      builders_.push_back(std::move(builder));
      return client;
    };
    client_ = connected(platform);
    unmeteredTwin_ = connected(platform);
    auto metered = platform;
    metered.clientOptions.metrics = std::make_shared<kel::KelMetricsRecorder>();
    meteredClient_ = connected(metered);
    platform.clientOptions.socketScheduler =
        std::make_shared<kel::rx::SerialDispatchQueueScheduler>("KelSocket");
    poolQueueClient_ = connected(platform);

    asio::ip::tcp::resolver resolver(ioContext_);
    asio::connect(raw_.next_layer(), resolver.resolve("127.0.0.1", std::to_string(urls.port)));
    watchdog_ = std::make_unique<Watchdog>(raw_.next_layer().native_handle());
    watchdog_->arm(true);
    raw_.set_option(beast::websocket::stream_base::decorator([](beast::websocket::request_type& r) {
      r.set(beast::http::field::sec_websocket_protocol, "websocket");
    }));
    raw_.handshake("127.0.0.1:" + std::to_string(urls.port), "/kel/websocket");
    raw_.text(true);
    raw_.write(asio::buffer("AUTH " + token));
    raw_.read(buffer_);
    watchdog_->arm(false);
  }

  static kel::emulator::Options options() {
    kel::emulator::Options options;
    options.recordFrames = false;
    return options;
  }

  kel::emulator::Emulator emulator_;
  std::shared_ptr<kel::KelEventHandler> events_ = std::make_shared<kel::KelEventHandler>();
  std::vector<std::shared_ptr<kel::SocketBuilder>> builders_;
  std::shared_ptr<kel::KelSocketClient> client_;
  // Its "KelSocket" queue on the shared pool rather than the socket's thread.
  std::shared_ptr<kel::KelSocketClient> poolQueueClient_;
  // Like client_, one counting into a metrics recorder and one not, both used by one benchmark
  // only: the emulator's side of a socket that served many requests answers more slowly.
  std::shared_ptr<kel::KelSocketClient> meteredClient_;
  std::shared_ptr<kel::KelSocketClient> unmeteredTwin_;
  asio::io_context ioContext_;
  beast::websocket::stream<asio::ip::tcp::socket> raw_;
  beast::flat_buffer buffer_;
  std::unique_ptr<Watchdog> watchdog_;
};

// Counts the allocations made, on every thread, while it lives.
class AllocationCount {
 public:
  AllocationCount() : start_(allocations.load()) { countingAllocations = true; }
  ~AllocationCount() { countingAllocations = false; }
  AllocationCount(const AllocationCount&) = delete;
  AllocationCount& operator=(const AllocationCount&) = delete;

  void report(benchmark::State& state, std::uint64_t perIterations = 1) const {
    if (state.iterations() == 0) return;
    state.counters["allocs_per_request"] =
        static_cast<double>(allocations.load() - start_) /
        static_cast<double>(static_cast<std::uint64_t>(state.iterations()) * perIterations);
  }

 private:
  const std::uint64_t start_;
};

void reportPercentiles(benchmark::State& state, std::vector<double>& micros) {
  if (micros.empty()) return;
  std::sort(micros.begin(), micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
}

// One request through KelSocketClient::send, waiting for its response: the microseconds it took,
// or nothing, with the benchmark failed.
std::optional<double> roundTrip(benchmark::State& state, kel::KelSocketClient& client) {
  const auto start = Clock::now();
  const kel::AnyRequest request = echoRequest();
  Signal done;
  bool answered = false;
  auto subscription =
      client.send(request).subscribe([&](const kel::Resource&) { answered = true; },
                                     [&](std::exception_ptr) { done.set(); }, [&] { done.set(); });
  if (!done.waitFor()) {
    subscription.dispose();
    state.SkipWithError("a request was not answered in time");
    return std::nullopt;
  }
  if (!answered) {
    state.SkipWithError("a request failed");
    return std::nullopt;
  }
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// One request at a time, waiting for each response.
void roundTrips(benchmark::State& state, const std::shared_ptr<kel::KelSocketClient>& client) {
  std::vector<double> micros;
  AllocationCount counted;
  for (auto _ : state) {
    const auto took = roundTrip(state, *client);
    if (!took) break;
    micros.push_back(*took);
  }
  counted.report(state);
  reportPercentiles(state, micros);
}

void SocketClientRoundTrip(benchmark::State& state) {
  if (auto* loopback = Loopback::shared(state)) roundTrips(state, loopback->client());
}
BENCHMARK(SocketClientRoundTrip)->UseRealTime();

// The same with the client's queue on the shared pool: one hand-over more per request.
void SocketClientRoundTripPoolQueue(benchmark::State& state) {
  if (auto* loopback = Loopback::shared(state)) roundTrips(state, loopback->poolQueueClient());
}
BENCHMARK(SocketClientRoundTripPoolQueue)->UseRealTime();
KEL_BENCH_COMPARE(SocketClientRoundTripPoolQueue, RawEchoRoundTrip);

// What counting metrics adds to a round trip, end to end: the client that counts and the one
// that does not take turns, request by request, so that both meet the same load; the row compares
// the median round trip of each. Its target is loose: the two clients' network threads land on
// the cores as the system places them, which on a loaded two-core machine moves the ratio by some
// 5 % either way from run to run, far more than counting costs; it catches a lock or an allocation
// on the request path. MetricsRecordingPerRequest (MetricsBench.cpp) holds the cost itself to 2 %.
void SocketClientRoundTripMetrics(benchmark::State& state) {
  auto* loopback = Loopback::shared(state);
  if (!loopback) return;
  std::vector<double> with;
  std::vector<double> without;
  bool meteredFirst = true;
  for (auto _ : state) {
    for (const bool metered : {meteredFirst, !meteredFirst}) {
      const auto took =
          roundTrip(state, metered ? *loopback->meteredClient() : *loopback->unmeteredTwin());
      if (!took) return;
      (metered ? with : without).push_back(*took);
    }
    meteredFirst = !meteredFirst;
  }
  const auto median = [](std::vector<double>& micros) {
    std::nth_element(micros.begin(), micros.begin() + std::ssize(micros) / 2, micros.end());
    return micros[micros.size() / 2];
  };
  if (with.empty()) return;
  kel::bench::record("RoundTripWithMetrics", "RoundTripWithoutMetrics", median(with),
                     median(without));
}
// Fixed iterations: a run to find their number would add a row of its own.
BENCHMARK(SocketClientRoundTripMetrics)->UseRealTime()->Iterations(3000);

// The same frame written and its answer read by hand, synchronously, with Beast.
void RawEchoRoundTrip(benchmark::State& state) {
  auto* loopback = Loopback::shared(state);
  if (!loopback) return;
  const auto frame = echoRequest().toMessage().value_or("");
  std::vector<double> micros;
  AllocationCount counted;
  loopback->guarded(state, [&] {
    for (auto _ : state) {
      const auto start = Clock::now();
      loopback->rawRoundTrip(frame);
      micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
  });
  counted.report(state);
  reportPercentiles(state, micros);
}
BENCHMARK(RawEchoRoundTrip)->UseRealTime();
KEL_BENCH_COMPARE(SocketClientRoundTrip, RawEchoRoundTrip);
KEL_BENCH_COMPARE_COUNTER(RoundTripP50, SocketClientRoundTrip, RawEchoRoundTrip, p50_us);
KEL_BENCH_COMPARE_COUNTER(RoundTripP99, SocketClientRoundTrip, RawEchoRoundTrip, p99_us);

// Two threads that keep both cores busy while they live, as an application's own work would.
class BusyCores {
 public:
  BusyCores() {
    for (auto& thread : threads_) {
      thread = std::jthread([](const std::stop_token& stop) {
        std::uint64_t spin = 0;
        while (!stop.stop_requested()) benchmark::DoNotOptimize(++spin);
      });
    }
  }

 private:
  std::array<std::jthread, 2> threads_;
};

// The two round trips again, competing with busy threads for the cores.
void SocketClientRoundTripBusyCores(benchmark::State& state) {
  BusyCores busy;
  SocketClientRoundTrip(state);
}
BENCHMARK(SocketClientRoundTripBusyCores)->UseRealTime();

void RawEchoRoundTripBusyCores(benchmark::State& state) {
  BusyCores busy;
  RawEchoRoundTrip(state);
}
BENCHMARK(RawEchoRoundTripBusyCores)->UseRealTime();
KEL_BENCH_COMPARE(SocketClientRoundTripBusyCores, RawEchoRoundTripBusyCores);

// Sends `total` requests keeping `inFlight` of them pending, each answer sending the next.
class Pump : public std::enable_shared_from_this<Pump> {
 public:
  Pump(std::shared_ptr<kel::KelSocketClient> client, std::size_t total)
      : client_(std::move(client)), remaining_(total), left_(total) {}

  void start(std::size_t inFlight) {
    for (std::size_t i = 0; i < inFlight; ++i) next();
  }
  // False when not every request settled within kWaitLimit.
  bool wait() { return finished_.waitFor(); }
  std::size_t failures() const { return failures_.load(); }

 private:
  void next() {
    if (remaining_.fetch_sub(1) <= 0) return;
    auto self = shared_from_this();
    client_->send(echoRequest())
        .subscribe([](const kel::Resource&) {},
                   [self](std::exception_ptr error) {
                     if (self->failures_++ == 0) {
                       std::fprintf(stderr, "first failure: %s\n",
                                    kel::describeError(error).c_str());
                     }
                     self->finished();
                   },
                   [self] { self->finished(); });
  }
  void finished() {
    if (left_.fetch_sub(1) == 1) finished_.set();
    next();
  }

  std::shared_ptr<kel::KelSocketClient> client_;
  std::atomic<std::ptrdiff_t> remaining_;
  std::atomic<std::size_t> left_;
  std::atomic<std::size_t> failures_ = 0;
  Signal finished_;
};

constexpr std::size_t kInFlight = 1'000;
constexpr std::size_t kBatch = 10'000;

// Sustained throughput with 1,000 requests pending at any time.
void SocketClientThroughput(benchmark::State& state) {
  auto* loopback = Loopback::shared(state);
  if (!loopback) return;
  std::size_t failures = 0;
  AllocationCount counted;
  for (auto _ : state) {
    auto pump = std::make_shared<Pump>(loopback->client(), kBatch);
    pump->start(kInFlight);
    if (!pump->wait()) {
      state.SkipWithError("requests were not answered in time");
      break;
    }
    failures += pump->failures();
  }
  if (failures) state.SkipWithError(("requests failed: " + std::to_string(failures)).c_str());
  counted.report(state, kBatch);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kBatch));
}
BENCHMARK(SocketClientThroughput)->UseRealTime()->Unit(benchmark::kMillisecond);

// The raw client writing 1,000 frames before reading their answers, over and over.
void RawEchoPipelined(benchmark::State& state) {
  auto* loopback = Loopback::shared(state);
  if (!loopback) return;
  const auto frame = echoRequest().toMessage().value_or("");
  AllocationCount counted;
  loopback->guarded(state, [&] {
    for (auto _ : state) {
      for (std::size_t sent = 0; sent < kBatch; sent += kInFlight) {
        loopback->rawPipelined(frame, kInFlight);
      }
    }
  });
  counted.report(state, kBatch);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kBatch));
}
BENCHMARK(RawEchoPipelined)->UseRealTime()->Unit(benchmark::kMillisecond);
KEL_BENCH_COMPARE(SocketClientThroughput, RawEchoPipelined);

// 10,000 requests pending at once: the memory each costs and the threads the client uses, then
// the answers (each checked), then 10,000 pending again ended by stop().
void TenThousandPending(benchmark::State& state) {
  constexpr std::size_t kPending = 10'000;
  auto* loopback = Loopback::shared(state);
  if (!loopback) return;
  const auto& client = loopback->client();
  const auto threadsBefore = threadCount();
  std::size_t bytesPerPending = 0;
  std::size_t threadsDuring = 0;
  for (auto _ : state) {
    {
      // Answers withheld: every request stays pending.
      Loopback::Withholding withholding(loopback->emulator(), kPending);
      std::vector<kel::rx::Disposable> subscriptions;
      subscriptions.reserve(kPending);
      const auto reserved = heapInUse();
      for (std::size_t i = 0; i < kPending; ++i) {
        subscriptions.push_back(client->send(echoRequest()).subscribe([](const kel::Resource&) {}));
      }
      if (!pollUntil([&] { return client->pendingCount() >= kPending; })) {
        state.SkipWithError(("pending: " + std::to_string(client->pendingCount()) + " of " +
                             std::to_string(kPending))
                                .c_str());
        break;
      }
      // Once every frame is out and read, what is left is what pending costs.
      if (!withholding.allSeen()) {
        state.SkipWithError("the emulator did not receive every request in time");
        break;
      }
      bytesPerPending = (heapInUse() - reserved) / kPending;
      threadsDuring = threadCount();
      subscriptions.clear();  // disposing unregisters them
      if (!withholding.release()) {
        state.SkipWithError("the emulator did not receive every request in time");
        break;
      }
    }

    // Answered: each response matched to its own request.
    std::vector<kel::rx::Disposable> subscriptions;
    subscriptions.reserve(kPending);
    std::atomic<std::size_t> correct = 0;
    std::atomic<std::size_t> settled = 0;
    Signal allSettled;
    const auto settle = [&] {
      if (++settled == kPending) allSettled.set();
    };
    for (std::size_t i = 0; i < kPending; ++i) {
      const nlohmann::json body = {{"n", i}};
      subscriptions.push_back(client
                                  ->send(kel::JsonRequest<BenchPath>{
                                      .pathname = BenchPath::echo, .body = body, .method = "PUT"})
                                  .subscribe(
                                      [&correct, body](const kel::Resource& r) {
                                        if (nlohmann::json::parse(r.data, nullptr, false) == body)
                                          ++correct;
                                      },
                                      [&](std::exception_ptr) { settle(); }, [&] { settle(); }));
    }
    const bool inTime = allSettled.waitFor();
    subscriptions.clear();
    if (!inTime) {
      state.SkipWithError(("answered in time: " + std::to_string(settled.load()) + " of " +
                           std::to_string(kPending))
                              .c_str());
      break;
    }
    if (correct.load() != kPending) {
      state.SkipWithError("an answer went to the wrong request");
      break;
    }
  }
  state.counters["bytes_per_pending"] = static_cast<double>(bytesPerPending);
  kel::bench::record("BytesPerPendingRequest", "(bytes, absolute)",
                     static_cast<double>(bytesPerPending), 0);
  state.counters["threads_added"] = static_cast<double>(threadsDuring - threadsBefore);
  state.counters["thread_bound"] = kel::rx::kSharedThreadPoolSize + 1;
}
BENCHMARK(TenThousandPending)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

// stop() with 10,000 pending completes every one of them; runs on its own client, as a stopped
// client cannot connect again.
void StopWithTenThousandPending(benchmark::State& state) {
  constexpr std::size_t kPending = 10'000;
  auto* loopback = Loopback::shared(state);
  if (!loopback) return;
  const auto urls = loopback->emulator().urls();
  const auto token = loopback->emulator().createSession("bench");
  auto events = std::make_shared<kel::KelEventHandler>();
  kel::SocketBuilder::Platform platform = kel::SocketBuilder::Platform::system();
  platform.makeNetworkManager = [] {
    return std::make_shared<kel::platform::InMemoryNetworkManager>();
  };
  for (auto _ : state) {
    state.PauseTiming();
    auto builder = kel::SocketBuilder::create(
        boost::urls::url(urls.kelURL), boost::urls::url(urls.socketURL), events,
        [token] { return std::optional(token); }, platform);
    auto client = std::dynamic_pointer_cast<kel::KelSocketClient>(builder->newSocket());
    Signal connected;
    auto connecting = client->connect(token).subscribe([&](kel::rx::Unit) { connected.set(); });
    if (!connected.waitFor()) {
      state.SkipWithError("the client did not authenticate in time");
      break;
    }
    Loopback::Withholding withholding(loopback->emulator(), kPending);
    std::atomic<std::size_t> completed = 0;
    std::vector<kel::rx::Disposable> subscriptions;
    subscriptions.reserve(kPending);
    for (std::size_t i = 0; i < kPending; ++i) {
      subscriptions.push_back(client->send(echoRequest())
                                  .subscribe([](const kel::Resource&) {}, [](std::exception_ptr) {},
                                             [&] { ++completed; }));
    }
    if (!pollUntil([&] { return client->pendingCount() >= kPending; })) {
      state.SkipWithError(
          ("pending: " + std::to_string(client->pendingCount()) + " of " + std::to_string(kPending))
              .c_str());
      break;
    }
    state.ResumeTiming();
    client->stop(kel::platform::SocketCloseCode::normalClosure);
    state.PauseTiming();
    if (completed.load() != kPending) {
      state.SkipWithError("stop() left requests pending");
      break;
    }
    subscriptions.clear();
    withholding.release(false);
    state.ResumeTiming();
  }
}
BENCHMARK(StopWithTenThousandPending)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
