// Requests through the socket client against the same exchange done by hand with Beast, on one
// loopback emulator: what the library's framing, pending-request store, time-out race and thread
// hand-overs cost.
//
// Hand-overs of one library round trip: the caller's thread -> the "KelSocket" queue (register,
// frame, arm the time-out) -> the WebSocket's network thread (write) ... the response is read,
// matched and delivered on the network thread -> the waiting caller wakes. The raw echo does the
// write and the read on the caller's thread.

#include <benchmark/benchmark.h>

#include <cstdio>

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <memory>
#include <optional>
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
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Socket/Client/KelSocketClient.h"
#include "ServerClient/Socket/Events/KelEventHandler.h"
#include "ServerClient/Socket/Model/PathRepresentable.h"
#include "ServerClient/Socket/Model/Request.h"
#include "ServerClient/Socket/SocketBuilder.h"
#include "ServerClient/platform/OvNetworkManager.h"
#include "ServerClient/platform/WebSocketTaskConnectionWrapper.h"
#include "ServerClient/rx/DispatchQueue.h"
#include "emulator/Emulator.h"

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

// The emulator, one authenticated library client and one authenticated raw client, made once.
class Loopback {
 public:
  static Loopback& shared() {
    static Loopback loopback;
    return loopback;
  }

  const std::shared_ptr<kel::KelSocketClient>& client() const { return client_; }
  kel::emulator::Emulator& emulator() { return emulator_; }

  // A synchronous echo of one request frame by hand.
  void rawRoundTrip(const std::string& frame) {
    raw_.write(asio::buffer(frame));
    buffer_.clear();
    raw_.read(buffer_);
  }
  // `count` frames written, then `count` answers read.
  void rawPipelined(const std::string& frame, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) raw_.write(asio::buffer(frame));
    for (std::size_t i = 0; i < count; ++i) {
      buffer_.clear();
      raw_.read(buffer_);
    }
  }

 private:
  Loopback() : emulator_(options()), raw_(ioContext_) {
    emulator_.addUser("bench");
    const auto token = emulator_.createSession("bench");
    const auto urls = emulator_.start();

    kel::SocketBuilder::Platform platform = kel::SocketBuilder::Platform::system();
    platform.makeNetworkManager = [] {
      return std::make_shared<kel::platform::InMemoryNetworkManager>();
    };
    builder_ = kel::SocketBuilder::create(
        boost::urls::url(urls.kelURL), boost::urls::url(urls.socketURL), events_,
        [token] { return std::optional(token); }, platform);
    client_ = std::dynamic_pointer_cast<kel::KelSocketClient>(builder_->newSocket());
    std::atomic<bool> done = false;
    auto subscription = client_->connect(token).subscribe([&](kel::rx::Unit) {
      done = true;
      done.notify_all();
    });
    done.wait(false);

    asio::ip::tcp::resolver resolver(ioContext_);
    asio::connect(raw_.next_layer(), resolver.resolve("127.0.0.1", std::to_string(urls.port)));
    raw_.set_option(beast::websocket::stream_base::decorator([](beast::websocket::request_type& r) {
      r.set(beast::http::field::sec_websocket_protocol, "websocket");
    }));
    raw_.handshake("127.0.0.1:" + std::to_string(urls.port), "/kel/websocket");
    raw_.text(true);
    raw_.write(asio::buffer("AUTH " + token));
    raw_.read(buffer_);
  }

  static kel::emulator::Options options() {
    kel::emulator::Options options;
    options.recordFrames = false;
    return options;
  }

  kel::emulator::Emulator emulator_;
  std::shared_ptr<kel::KelEventHandler> events_ = std::make_shared<kel::KelEventHandler>();
  std::shared_ptr<kel::SocketBuilder> builder_;
  std::shared_ptr<kel::KelSocketClient> client_;
  asio::io_context ioContext_;
  beast::websocket::stream<asio::ip::tcp::socket> raw_;
  beast::flat_buffer buffer_;
};

void reportPercentiles(benchmark::State& state, std::vector<double>& micros) {
  if (micros.empty()) return;
  std::sort(micros.begin(), micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
}

// One request at a time through KelSocketClient::send, waiting for its response.
void SocketClientRoundTrip(benchmark::State& state) {
  auto& loopback = Loopback::shared();
  std::vector<double> micros;
  for (auto _ : state) {
    const auto start = Clock::now();
    const kel::AnyRequest request = echoRequest();
    std::atomic<bool> done = false;
    bool answered = false;
    auto subscription = loopback.client()->send(request).subscribe(
        [&](const kel::Resource&) { answered = true; }, [&](std::exception_ptr) {},
        [&] {
          done = true;
          done.notify_one();
        });
    done.wait(false);
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    if (!answered) state.SkipWithError("a request went unanswered");
  }
  reportPercentiles(state, micros);
}
BENCHMARK(SocketClientRoundTrip)->UseRealTime();

// The same frame written and its answer read by hand, synchronously, with Beast.
void RawEchoRoundTrip(benchmark::State& state) {
  auto& loopback = Loopback::shared();
  const auto frame = echoRequest().toMessage().value_or("");
  std::vector<double> micros;
  for (auto _ : state) {
    const auto start = Clock::now();
    loopback.rawRoundTrip(frame);
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  reportPercentiles(state, micros);
}
BENCHMARK(RawEchoRoundTrip)->UseRealTime();
KEL_BENCH_COMPARE(SocketClientRoundTrip, RawEchoRoundTrip);

// Sends `total` requests keeping `inFlight` of them pending, each answer sending the next.
class Pump : public std::enable_shared_from_this<Pump> {
 public:
  Pump(std::shared_ptr<kel::KelSocketClient> client, std::size_t total)
      : client_(std::move(client)), remaining_(total), left_(total) {}

  void start(std::size_t inFlight) {
    for (std::size_t i = 0; i < inFlight; ++i) next();
  }
  void wait() {
    for (auto left = left_.load(); left != 0; left = left_.load()) left_.wait(left);
  }
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
    if (left_.fetch_sub(1) == 1) left_.notify_all();
    next();
  }

  std::shared_ptr<kel::KelSocketClient> client_;
  std::atomic<std::ptrdiff_t> remaining_;
  std::atomic<std::size_t> left_;
  std::atomic<std::size_t> failures_ = 0;
};

constexpr std::size_t kInFlight = 1'000;
constexpr std::size_t kBatch = 10'000;

// Sustained throughput with 1,000 requests pending at any time.
void SocketClientThroughput(benchmark::State& state) {
  auto& loopback = Loopback::shared();
  std::size_t failures = 0;
  for (auto _ : state) {
    auto pump = std::make_shared<Pump>(loopback.client(), kBatch);
    pump->start(kInFlight);
    pump->wait();
    failures += pump->failures();
  }
  if (failures) state.SkipWithError(("requests failed: " + std::to_string(failures)).c_str());
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kBatch));
}
BENCHMARK(SocketClientThroughput)->UseRealTime()->Unit(benchmark::kMillisecond);

// The raw client writing 1,000 frames before reading their answers, over and over.
void RawEchoPipelined(benchmark::State& state) {
  auto& loopback = Loopback::shared();
  const auto frame = echoRequest().toMessage().value_or("");
  for (auto _ : state) {
    for (std::size_t sent = 0; sent < kBatch; sent += kInFlight) {
      loopback.rawPipelined(frame, kInFlight);
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kBatch));
}
BENCHMARK(RawEchoPipelined)->UseRealTime()->Unit(benchmark::kMillisecond);
KEL_BENCH_COMPARE(SocketClientThroughput, RawEchoPipelined);

// 10,000 requests pending at once: the memory each costs and the threads the client uses, then
// the answers (each checked), then 10,000 pending again ended by stop().
void TenThousandPending(benchmark::State& state) {
  constexpr std::size_t kPending = 10'000;
  auto& loopback = Loopback::shared();
  const auto threadsBefore = threadCount();
  std::size_t bytesPerPending = 0;
  std::size_t threadsDuring = 0;
  for (auto _ : state) {
    // Answers withheld: every request stays pending.
    loopback.emulator().faultAllRequests(kel::emulator::Fault::withhold());
    std::vector<kel::rx::Disposable> subscriptions;
    subscriptions.reserve(kPending);
    const auto reserved = heapInUse();
    std::atomic<std::size_t> settled = 0;
    for (std::size_t i = 0; i < kPending; ++i) {
      subscriptions.push_back(loopback.client()
                                  ->send(echoRequest())
                                  .subscribe([](const kel::Resource&) {},
                                             [&](std::exception_ptr) { ++settled; },
                                             [&] { ++settled; }));
    }
    while (loopback.client()->pendingRequests().size() < kPending) std::this_thread::yield();
    bytesPerPending = (heapInUse() - reserved) / kPending;
    threadsDuring = threadCount();
    subscriptions.clear();  // disposing unregisters them
    loopback.emulator().clearFaults();

    // Answered: each response matched to its own request.
    std::atomic<std::size_t> correct = 0;
    std::atomic<std::size_t> done = 0;
    for (std::size_t i = 0; i < kPending; ++i) {
      const nlohmann::json body = {{"n", i}};
      subscriptions.push_back(loopback.client()
                                  ->send(kel::JsonRequest<BenchPath>{
                                      .pathname = BenchPath::echo, .body = body, .method = "PUT"})
                                  .subscribe(
                                      [&correct, body](const kel::Resource& r) {
                                        if (nlohmann::json::parse(r.data, nullptr, false) == body)
                                          ++correct;
                                      },
                                      [&](std::exception_ptr) { ++done; }, [&] { ++done; }));
    }
    while (done.load() < kPending) std::this_thread::yield();
    if (correct.load() != kPending) state.SkipWithError("an answer went to the wrong request");
    subscriptions.clear();
  }
  state.counters["bytes_per_pending"] = static_cast<double>(bytesPerPending);
  state.counters["threads_added"] = static_cast<double>(threadsDuring - threadsBefore);
  state.counters["thread_bound"] = kel::rx::kSharedThreadPoolSize + 1;
}
BENCHMARK(TenThousandPending)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

// stop() with 10,000 pending completes every one of them; runs on its own client, as a stopped
// client cannot connect again.
void StopWithTenThousandPending(benchmark::State& state) {
  constexpr std::size_t kPending = 10'000;
  auto& loopback = Loopback::shared();
  const auto urls = loopback.emulator().urls();
  const auto token = loopback.emulator().createSession("bench");
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
    std::atomic<bool> connected = false;
    auto connecting = client->connect(token).subscribe([&](kel::rx::Unit) {
      connected = true;
      connected.notify_all();
    });
    connected.wait(false);
    loopback.emulator().faultAllRequests(kel::emulator::Fault::withhold());
    std::atomic<std::size_t> completed = 0;
    std::vector<kel::rx::Disposable> subscriptions;
    for (std::size_t i = 0; i < kPending; ++i) {
      subscriptions.push_back(client->send(echoRequest())
                                  .subscribe([](const kel::Resource&) {}, [](std::exception_ptr) {},
                                             [&] { ++completed; }));
    }
    while (client->pendingRequests().size() < kPending) std::this_thread::yield();
    state.ResumeTiming();
    client->stop(kel::platform::SocketCloseCode::normalClosure);
    state.PauseTiming();
    if (completed.load() != kPending) state.SkipWithError("stop() left requests pending");
    loopback.emulator().clearFaults();
    state.ResumeTiming();
  }
}
BENCHMARK(StopWithTenThousandPending)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
