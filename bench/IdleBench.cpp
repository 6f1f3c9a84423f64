// A signed-in facade that nobody uses: what it costs while idle. Wake-ups are the voluntary
// context switches of the library's threads over a quiet window (the server's pings are off and
// the window ends before the first session renewal, so every one of them is unexplained), and
// heap is what the facade holds once signed in, against a plain Beast WebSocket client holding
// one authenticated socket to the same in-process emulator.

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/url/parse.hpp>

#include "Ratios.h"
#include "ServerClient/Client/KelServer.h"
#include "ServerClient/platform/InMemoryKeychain.h"
#include "ServerClient/platform/UserDefaults.h"
#include "emulator/Emulator.h"
#include "emulator/SignIn.h"

namespace {

using namespace std::chrono_literals;
namespace asio = boost::asio;
namespace beast = boost::beast;

constexpr auto kSettle = 500ms;
constexpr auto kIdleWindow = 10s;

std::size_t heapInUse() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

struct ThreadSample {
  std::string name;
  long voluntarySwitches = 0;
};

// Every thread of this process: its name and voluntary context switches so far.
std::map<long, ThreadSample> threads() {
  std::map<long, ThreadSample> all;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    ThreadSample sample;
    std::ifstream(task.path() / "comm") >> sample.name;
    std::ifstream status(task.path() / "status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
        sample.voluntarySwitches = std::stol(line.substr(24));
    }
    all[std::stol(task.path().filename().string())] = sample;
  }
  return all;
}

std::set<long> ids(const std::map<long, ThreadSample>& sample) {
  std::set<long> out;
  for (const auto& entry : sample) out.insert(entry.first);
  return out;
}

template <class T>
T wait(const kel::rx::Single<T>& single) {
  auto promise = std::make_shared<std::promise<T>>();
  auto future = promise->get_future();
  auto subscription =
      single.subscribe([promise](const T& value) { promise->set_value(value); },
                       [promise](std::exception_ptr e) { promise->set_exception(e); });
  if (future.wait_for(20s) != std::future_status::ready) throw std::runtime_error("no answer");
  return future.get();
}

void IdleFacade(benchmark::State& state) {
  for (auto _ : state) {
    const auto beforeEmulator = ids(threads());
    kel::emulator::Options options;
    options.recordFrames = false;  // pingPeriod stays 0: no pings
    kel::emulator::Emulator emulator(options);
    emulator.addAccount(kel::emulator::defaultAccount("idle", std::string("idle-token")));
    emulator.addUser("raw");
    const auto urls = emulator.start();
    std::set<long> emulatorThreads;
    for (long id : ids(threads())) {
      if (!beforeEmulator.contains(id)) emulatorThreads.insert(id);
    }

    // The facade, signed in.
    const std::size_t heapBeforeFacade = heapInUse();
    kel::KelServer::Options facadeOptions;
    facadeOptions.keychain = std::make_shared<kel::platform::InMemoryKeychain>();
    facadeOptions.userDefaults = std::make_shared<kel::platform::InMemoryUserDefaults>();
    auto server = kel::KelServer::create(boost::urls::parse_absolute_uri(urls.kelURL).value(),
                                         boost::urls::parse_absolute_uri(urls.socketURL).value(),
                                         "1.0.0", "BENCH", facadeOptions);
    wait(server->connect("idle-token"));
    std::this_thread::sleep_for(kSettle);
    const std::size_t facadeHeap = heapInUse() - heapBeforeFacade;

    // The idle window.
    const long self = static_cast<long>(syscall(SYS_gettid));
    const auto start = threads();
    std::this_thread::sleep_for(kIdleWindow);
    const auto end = threads();
    long wakeups = 0;
    std::string who;
    for (const auto& [id, sample] : end) {
      if (id == self || emulatorThreads.contains(id)) continue;
      auto before = start.find(id);
      const long delta =
          sample.voluntarySwitches - (before == start.end() ? 0 : before->second.voluntarySwitches);
      if (delta == 0) continue;
      wakeups += delta;
      who += " " + sample.name + "(" + std::to_string(id) + ")=" + std::to_string(delta);
    }
    std::fprintf(stderr, "idle facade: %ld wake-ups in %llds:%s\n", wakeups,
                 static_cast<long long>(kIdleWindow / 1s), who.empty() ? " none" : who.c_str());

    // The baseline: one authenticated socket by hand.
    const std::size_t heapBeforeRaw = heapInUse();
    std::size_t rawHeap = 0;
    {
      const auto token = emulator.createSession("raw");
      asio::io_context io;
      beast::websocket::stream<asio::ip::tcp::socket> raw(io);
      asio::ip::tcp::resolver resolver(io);
      asio::connect(raw.next_layer(), resolver.resolve("127.0.0.1", std::to_string(urls.port)));
      raw.set_option(
          beast::websocket::stream_base::decorator([](beast::websocket::request_type& r) {
            r.set(beast::http::field::sec_websocket_protocol, "websocket");
          }));
      raw.handshake("127.0.0.1:" + std::to_string(urls.port),
                    boost::urls::parse_absolute_uri(urls.socketURL).value().path());
      raw.text(true);
      raw.write(asio::buffer("AUTH " + token));
      beast::flat_buffer buffer;
      raw.read(buffer);
      std::this_thread::sleep_for(kSettle);
      rawHeap = heapInUse() - heapBeforeRaw;
    }

    kel::bench::record("IdleFacadeHeap", "RawBeastAuthenticatedSocket",
                       static_cast<double>(facadeHeap), static_cast<double>(rawHeap));
    kel::bench::record("IdleFacadeExtraWakeups", "(count in 10 s)", static_cast<double>(wakeups),
                       0);
    state.counters["facade_heap_bytes"] = static_cast<double>(facadeHeap);
    state.counters["raw_heap_bytes"] = static_cast<double>(rawHeap);
    state.counters["idle_wakeups"] = static_cast<double>(wakeups);
    server.reset();
  }
}
BENCHMARK(IdleFacade)->Iterations(1)->Repetitions(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
