// Sends, responses, cancellations and a stop racing on real threads and the real queues. The
// ThreadSanitizer build runs this to prove the client's shared state is guarded.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "ServerClient/Socket/Client/KelSocketClient.h"
#include "ServerClient/Socket/Events/KelSocketEventHandler.h"
#include "ServerClient/platform/InMemorySocket.h"
#include "ServerClient/rx/Schedulers.h"
#include "SocketTestSupport.h"

namespace kel::testing {
namespace {

using platform::SocketCloseCode;

/// Request frames written on the socket, for the server threads to answer.
class FrameQueue {
 public:
  void push(std::string frame) {
    {
      std::lock_guard lock(mutex_);
      frames_.push_back(std::move(frame));
    }
    ready_.notify_one();
  }
  /// The next frame, or nothing once closed and drained.
  std::optional<std::string> pop() {
    std::unique_lock lock(mutex_);
    ready_.wait(lock, [&] { return closed_ || !frames_.empty(); });
    if (frames_.empty()) return std::nullopt;
    auto frame = std::move(frames_.front());
    frames_.pop_front();
    return frame;
  }
  void close() {
    {
      std::lock_guard lock(mutex_);
      closed_ = true;
    }
    ready_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::string> frames_;
  bool closed_ = false;
};

struct Outcome {
  std::int64_t id = 0;
  bool cancelled = false;
  std::vector<Resource> resources;
  std::exception_ptr error;
  bool completed = false;
  bool settled = false;
};

TEST(KelSocketClientConcurrency, SendsResponsesCancelsAndAStopFromSeveralThreads) {
  constexpr int kSenders = 3;
  constexpr int kPerSender = 300;
  constexpr int kTotal = kSenders * kPerSender;

  auto socketScheduler = std::make_shared<rx::SerialDispatchQueueScheduler>("KelSocket");
  auto socket =
      std::make_shared<platform::InMemorySocket>(boost::urls::url("wss://kel.test/ws/kel"));
  auto handler = KelSocketEventHandler::create(socket);
  KelSocketClient::Options options;
  options.socketScheduler = socketScheduler;
  options.networkManager = std::make_shared<platform::InMemoryNetworkManager>();
  options.applicationLifecycle = std::make_shared<platform::ApplicationLifecycle>();
  auto client = KelSocketClient::create(
      socket, handler, nullptr, [] { return std::nullopt; }, 3s, options);

  FrameQueue frames;
  socket->setSendHandler([&](const std::string& text) {
    if (text.starts_with("AUTH ")) {
      socket->receiveMessage(R"({"kapiId":"k"})");
    } else {
      frames.push(text);
    }
  });
  std::atomic<bool> authenticated{false};
  client->connect("tok").subscribe([&](rx::Unit) { authenticated = true; });
  ASSERT_TRUE(authenticated);

  std::mutex mutex;  // guards settled and every outcome's fields after its subscription
  std::condition_variable settledChanged;
  int settled = 0;
  std::vector<Outcome> outcomes(kTotal);
  // Each request settles once: answered, failed, or cancelled by its caller (a notification
  // already under way when the caller cancels may still arrive).
  auto settle = [&](Outcome& outcome, auto&& record) {
    {
      std::lock_guard lock(mutex);
      record();
      if (outcome.settled) return;
      outcome.settled = true;
      ++settled;
    }
    settledChanged.notify_all();
  };

  std::vector<std::thread> servers;
  for (int i = 0; i < 2; ++i) {
    servers.emplace_back([&] {
      while (auto frame = frames.pop()) {
        auto id = nlohmann::json::parse(frame->substr(1))["id"].get<std::int64_t>();
        nlohmann::json members = {{"body", {{"echo", id}}}};
        if (id % 7 == 0) members = {{"status", 500}};
        try {
          socket->receiveMessage(responseFrame(id, members));
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
        outcome.id = index + 1;
        auto subscription =
            client->send(testRequest(outcome.id))
                .subscribe(
                    [&](const Resource& r) {
                      {
                        std::lock_guard lock(mutex);
                        outcome.resources.push_back(r);
                      }
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
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while ((sent.load() < kTotal / 2 || answers.load() < 20) &&
           std::chrono::steady_clock::now() < giveUp) {
      std::this_thread::yield();
    }
    client->stop(SocketCloseCode::normalClosure);
  });

  for (auto& t : senders) t.join();
  stopper.join();
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(
        settledChanged.wait_for(lock, std::chrono::seconds(30), [&] { return settled == kTotal; }))
        << settled << " of " << kTotal << " requests settled";
  }
  frames.close();
  for (auto& t : servers) t.join();
  // Removals of cancelled requests are posted to the socket queue: let them run.
  socketScheduler->queue()->sync([] {});

  EXPECT_TRUE(client->pendingRequests().empty());
  EXPECT_EQ(SocketState::disconnected(SocketStateDisconnectedReason::expectedClose),
            client->currentStatus());
  std::lock_guard lock(mutex);
  int answered = 0;
  for (const auto& outcome : outcomes) {
    if (outcome.cancelled) continue;
    EXPECT_TRUE(outcome.completed != static_cast<bool>(outcome.error)) << outcome.id;
    if (outcome.resources.empty()) continue;
    ++answered;
    ASSERT_EQ(1u, outcome.resources.size());
    EXPECT_EQ(std::to_string(outcome.id), outcome.resources[0].requestID);
    EXPECT_EQ(nlohmann::json({{"echo", outcome.id}}).dump(), outcome.resources[0].data);
    EXPECT_NE(0, outcome.id % 7);
  }
  EXPECT_GT(answered, 0);
}

}  // namespace
}  // namespace kel::testing
