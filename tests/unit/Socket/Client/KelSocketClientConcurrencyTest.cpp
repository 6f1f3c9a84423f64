// Sends, responses, time-outs, cancellations and a stop racing on real threads and the real
// queues. The ThreadSanitizer build runs this to prove the client's shared state is guarded.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "ServerClient/rx/Schedulers.h"
#include "SocketTestSupport.h"

namespace kel::testing {
namespace {

using platform::SocketCloseCode;

struct Outcome {
  bool cancelled = false;
  std::vector<Resource> resources;
  std::exception_ptr error;
  bool completed = false;
  bool settled = false;
};

TEST(KelSocketClientConcurrency, SendsResponsesTimeOutsCancelsAndAStopFromSeveralThreads) {
  constexpr int kSenders = 3;
  constexpr int kPerSender = 300;
  constexpr int kTotal = kSenders * kPerSender;

  auto socketScheduler = std::make_shared<rx::SerialDispatchQueueScheduler>("KelSocket");
  auto socket =
      std::make_shared<platform::InMemorySocket>(boost::urls::url("wss://kel.test/ws/kel"));
  KelSocketClient::Options options;
  options.socketScheduler = socketScheduler;
  options.networkManager = std::make_shared<platform::InMemoryNetworkManager>();
  options.applicationLifecycle = std::make_shared<platform::ApplicationLifecycle>();
  auto client = KelSocketClient::create(
      socket, KelSocketEventHandler::create(socket), nullptr, [] { return std::nullopt; }, 3s,
      options);

  std::mutex mutex;  // guards everything below
  std::condition_variable changed;
  std::deque<std::string> frames;  // written by the client, for the server threads to answer
  bool framesClosed = false;
  int settled = 0;
  std::vector<Outcome> outcomes(kTotal);

  socket->setSendHandler([&](const std::string& text) {
    if (text.starts_with("AUTH ")) return socket->receiveMessage(R"({"kapiId":"k"})");
    std::lock_guard lock(mutex);
    frames.push_back(text);
    changed.notify_all();
  });
  std::atomic<bool> authenticated{false};
  client->connect("tok").subscribe([&](rx::Unit) { authenticated = true; });
  ASSERT_TRUE(authenticated);

  // Each request settles once: answered, failed, timed out or cancelled by its caller (a
  // notification already under way when the caller cancels may still arrive).
  auto settle = [&](Outcome& outcome, auto&& record) {
    std::lock_guard lock(mutex);
    record();
    if (outcome.settled) return;
    outcome.settled = true;
    ++settled;
    changed.notify_all();
  };

  std::vector<std::thread> servers;
  for (int i = 0; i < 2; ++i) {
    servers.emplace_back([&] {
      for (;;) {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return framesClosed || !frames.empty(); });
        if (frames.empty()) return;
        auto frame = std::move(frames.front());
        frames.pop_front();
        lock.unlock();
        auto id = nlohmann::json::parse(frame.substr(1))["id"].get<std::int64_t>();
        try {
          socket->receiveMessage(responseFrame(
              id, {{"status", id % 7 == 0 ? 500 : 200}, {"body", nlohmann::json::array({id})}}));
        } catch (const std::logic_error&) {
          // The socket was closed by the stop: a real server's answer would be lost as well.
        }
      }
    });
  }

  std::atomic<int> sent{0};
  std::atomic<int> answers{0};
  std::vector<std::thread> senders;
  for (int s = 0; s < kSenders; ++s) {
    senders.emplace_back([&, s] {
      for (int i = 0; i < kPerSender; ++i) {
        const int index = s * kPerSender + i;
        Outcome& outcome = outcomes[index];
        // Every fifth request's time-out races its answer.
        auto subscription =
            client->send(testRequest(index + 1, i % 5 == 4 ? 0s : 20s))
                .subscribe(
                    [&](const Resource& r) {
                      std::lock_guard lock(mutex);
                      outcome.resources.push_back(r);
                      ++answers;
                    },
                    [&](std::exception_ptr e) { settle(outcome, [&] { outcome.error = e; }); },
                    [&] { settle(outcome, [&] { outcome.completed = true; }); });
        if (i % 10 == 9) {
          subscription.dispose();
          settle(outcome, [&] { outcome.cancelled = !outcome.settled; });
        }
        ++sent;
      }
    });
  }

  // The stop lands mid-stream: once half the requests went out and answers are flowing.
  std::thread stopper([&] {
    const auto giveUp = std::chrono::steady_clock::now() + 10s;
    while ((sent < kTotal / 2 || answers < 20) && std::chrono::steady_clock::now() < giveUp) {
      std::this_thread::yield();
    }
    client->stop(SocketCloseCode::normalClosure);
  });

  for (auto& t : senders) t.join();
  stopper.join();
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, 30s, [&] { return settled == kTotal; }))
        << settled << " of " << kTotal << " requests settled";
    framesClosed = true;
    changed.notify_all();
  }
  for (auto& t : servers) t.join();
  // Removals of cancelled requests are posted to the socket queue: let them run.
  socketScheduler->queue()->sync([] {});

  EXPECT_TRUE(client->pendingRequests().empty());
  EXPECT_EQ(SocketState::disconnected(SocketStateDisconnectedReason::expectedClose),
            client->currentStatus());
  std::lock_guard lock(mutex);
  int answered = 0;
  int timedOut = 0;
  for (std::int64_t id = 1; id <= kTotal; ++id) {
    const auto& outcome = outcomes[id - 1];
    if (outcome.cancelled) continue;
    EXPECT_TRUE(outcome.completed != static_cast<bool>(outcome.error)) << id;
    if (const auto* e = errorAs<ConnectionError>(outcome.error)) {
      timedOut += e->type() == ConnectionErrorType::timeout;
      EXPECT_TRUE(e->code() == 500 || e->type() == ConnectionErrorType::timeout) << id;
    }
    if (outcome.resources.empty()) continue;
    ++answered;
    EXPECT_EQ((std::vector{Resource{std::to_string(id), "[" + std::to_string(id) + "]"}}),
              outcome.resources);
    EXPECT_NE(0, id % 7);
  }
  EXPECT_GT(answered, 0);
  EXPECT_GT(timedOut, 0);
}

}  // namespace
}  // namespace kel::testing
