// A signed-in facade that nobody uses: what it costs while idle, over TLS as in production.
// Wake-ups are the voluntary context switches of the library's threads over a minute. The
// server's pings are off; the session renewals (every 20 s) and the socket's keep-alive pings
// (after 15 s without a word from the server) are expected, so the wake-ups in the
// quarter-seconds around each renewal or ping the emulator receives are set aside, and every
// other one is unexplained. Heap is what the facade holds once signed in, against a plain Beast TLS
// WebSocket client, trusting the same authorities, holding one authenticated socket to the same
// in-process emulator.

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
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/url/parse.hpp>

#include "Ratios.h"
#include "ServerClient/Client/KelServer.h"
#include "ServerClient/platform/InMemoryKeychain.h"
#include "ServerClient/platform/UserDefaults.h"
#include "emulator/Emulator.h"
#include "emulator/SignIn.h"
#include "support/TestCertificates.h"

namespace {

using namespace std::chrono_literals;
namespace asio = boost::asio;
namespace beast = boost::beast;

constexpr auto kSettle = 500ms;
constexpr auto kIdleWindow = 60s;
constexpr auto kSample = 250ms;
// Samples on either side of one in which a renewal or a ping reached the server that belong to it.
constexpr int kRenewalSpan = 2;

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
    const auto& certificates = kel::test::TestCertificates::shared();
    kel::emulator::Options options;
    options.recordFrames = false;  // pingPeriod stays 0: no pings
    options.tls = kel::emulator::TlsOptions{certificates.localhost().certificatePem,
                                            certificates.localhost().privateKeyPem};
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
    facadeOptions.trust.extraCertificateAuthoritiesPem = certificates.caCertificatePem();
    auto server = kel::KelServer::create(boost::urls::parse_absolute_uri(urls.kelURL).value(),
                                         boost::urls::parse_absolute_uri(urls.socketURL).value(),
                                         "1.0.0", "BENCH", facadeOptions);
    wait(server->connect("idle-token"));
    std::this_thread::sleep_for(kSettle);
    const std::size_t facadeHeap = heapInUse() - heapBeforeFacade;

    // The idle window, sampled: the facade's wake-ups per sample, and whether the emulator
    // received a request (a renewal) in it.
    const long self = static_cast<long>(syscall(SYS_gettid));
    // What reached the server: requests (renewals) and the socket's keep-alive pings, which it
    // sends after 15 s without a word from the server (whose own pings are off here).
    const auto requestsReceived = [&emulator] {
      std::uint64_t count = 0;
      for (const auto& socket : emulator.sockets()) count += socket.requestsReceived;
      return count;
    };
    const auto pingsReceived = [&emulator] {
      std::uint64_t count = 0;
      for (const auto& socket : emulator.sockets()) count += socket.pingsReceived;
      return count;
    };
    std::map<long, std::string> names;
    const auto facadeSwitches = [&](const std::map<long, ThreadSample>& sample) {
      std::map<long, long> out;
      for (const auto& [id, thread] : sample) {
        names[id] = thread.name;
        if (id != self && !emulatorThreads.contains(id)) out[id] = thread.voluntarySwitches;
      }
      return out;
    };
    struct Slice {
      long wakeups = 0;
      bool renewal = false;
      bool ping = false;
      std::string who;
    };
    std::vector<Slice> slices;
    auto previous = facadeSwitches(threads());
    auto previousRequests = requestsReceived();
    auto previousPings = pingsReceived();
    const auto windowStart = std::chrono::steady_clock::now();
    for (auto next = windowStart + kSample; next <= windowStart + kIdleWindow; next += kSample) {
      std::this_thread::sleep_until(next);
      const auto now = facadeSwitches(threads());
      const auto requests = requestsReceived();
      const auto pings = pingsReceived();
      Slice slice;
      slice.renewal = requests != previousRequests;
      slice.ping = pings != previousPings;
      for (const auto& [id, count] : now) {
        auto before = previous.find(id);
        const long delta = count - (before == previous.end() ? 0 : before->second);
        if (delta == 0) continue;
        slice.wakeups += delta;
        slice.who += " " + names[id] + "(" + std::to_string(id) + ")=" + std::to_string(delta);
      }
      slices.push_back(std::move(slice));
      previous = now;
      previousRequests = requests;
      previousPings = pings;
    }
    // Each wake-up in a slice near a renewal or a keep-alive ping is that exchange's.
    long wakeups = 0, renewalWakeups = 0, pingWakeups = 0, renewals = 0, pings = 0;
    std::string who, seen;
    const auto near = [&slices](std::size_t i, bool Slice::*what) {
      for (std::size_t j = i > kRenewalSpan ? i - kRenewalSpan : 0;
           j < std::min(slices.size(), i + kRenewalSpan + 1); ++j) {
        if (slices[j].*what) return true;
      }
      return false;
    };
    for (std::size_t i = 0; i < slices.size(); ++i) {
      if (slices[i].renewal) ++renewals, seen += " renewal@" + std::to_string(i);
      if (slices[i].ping) ++pings, seen += " ping@" + std::to_string(i);
      if (near(i, &Slice::renewal)) {
        renewalWakeups += slices[i].wakeups;
      } else if (near(i, &Slice::ping)) {
        pingWakeups += slices[i].wakeups;
      } else if (slices[i].wakeups > 0) {
        wakeups += slices[i].wakeups;
        who += " [" + std::to_string(i) + "]" + slices[i].who;
      }
    }
    std::fprintf(stderr,
                 "idle facade over %llds (quarter-seconds:%s): %ld renewals with %ld wake-ups "
                 "around them, %ld keep-alive pings with %ld; %ld other wake-ups:%s\n",
                 static_cast<long long>(kIdleWindow / 1s), seen.c_str(), renewals, renewalWakeups,
                 pings, pingWakeups, wakeups, who.empty() ? " none" : who.c_str());

    // The baseline: one authenticated socket by hand, trusting what the facade trusts.
    const std::size_t heapBeforeRaw = heapInUse();
    std::size_t rawHeap = 0;
    {
      const auto token = emulator.createSession("raw");
      asio::io_context io;
      asio::ssl::context tls(asio::ssl::context::tls_client);
      tls.set_verify_mode(asio::ssl::verify_peer);
      tls.set_default_verify_paths();
      tls.add_certificate_authority(asio::buffer(certificates.caCertificatePem()));
      beast::websocket::stream<asio::ssl::stream<asio::ip::tcp::socket>> raw(io, tls);
      asio::ip::tcp::resolver resolver(io);
      asio::connect(beast::get_lowest_layer(raw),
                    resolver.resolve("127.0.0.1", std::to_string(urls.port)));
      raw.next_layer().set_verify_callback(asio::ssl::host_name_verification("127.0.0.1"));
      raw.next_layer().handshake(asio::ssl::stream_base::client);
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

    kel::bench::record("IdleFacadeHeap", "RawBeastTlsAuthenticatedSocket",
                       static_cast<double>(facadeHeap), static_cast<double>(rawHeap));
    kel::bench::record("IdleFacadeExtraWakeups", "(count in 60 s)", static_cast<double>(wakeups),
                       0);
    state.counters["facade_heap_bytes"] = static_cast<double>(facadeHeap);
    state.counters["raw_heap_bytes"] = static_cast<double>(rawHeap);
    state.counters["idle_wakeups"] = static_cast<double>(wakeups);
    server.reset();
  }
}
BENCHMARK(IdleFacade)->Iterations(1)->Repetitions(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
