// Sends, responses, time-outs, cancellations and a stop racing on real threads, with the socket
// queue on the socket's own thread as in production. The ThreadSanitizer build runs this to
// prove the client's shared state is guarded.

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <thread>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include "SocketTestSupport.h"

namespace kel::testing {
namespace {

struct Outcome {
  std::atomic<int> elements{0}, completions{0}, timeouts{0}, failures{0};
  bool disposed = false;
};

TEST(KelSocketClientConcurrency, SendsResponsesTimeOutsCancelsAndAStopFromSeveralThreads) {
  constexpr int kSenders = 3;
  constexpr int kPerSender = 300;
  constexpr int kTotal = kSenders * kPerSender;

  // The socket's network thread: the client registers, frames and writes there, and half of
  // the answers arrive there; the other half come from two server threads.
  boost::asio::io_context network, server;
  auto networkWork = boost::asio::make_work_guard(network);
  auto serverWork = boost::asio::make_work_guard(server);
  std::thread networkThread([&] { network.run(); });
  std::vector<std::thread> servers;
  for (int i = 0; i < 2; ++i) servers.emplace_back([&] { server.run(); });

  auto socket = std::make_shared<platform::InMemorySocket>(
      boost::urls::url("wss://kel.test/ws/kel"), std::vector<std::string>{},
      platform::InMemorySocket::Options{.executor = network.get_executor()});
  auto client = KelSocketClient::create(
      socket, KelSocketEventHandler::create(socket), nullptr, [] { return std::nullopt; }, 3s,
      {.networkManager = std::make_shared<platform::InMemoryNetworkManager>(),
       .applicationLifecycle = std::make_shared<platform::ApplicationLifecycle>()});
  socket->setSendHandler([&](const std::string& text) {
    if (text.starts_with("AUTH ")) return socket->receiveMessage(R"({"kapiId":"k"})");
    const auto id = nlohmann::json::parse(text.substr(1))["id"].get<std::int64_t>();
    if (id % 15 == 5) return;  // left to its time-out
    auto answer = [&socket, id] {
      try {
        socket->receiveMessage(responseFrame(
            id, {{"status", id % 7 == 0 ? 500 : 200}, {"body", nlohmann::json::array({id})}}));
      } catch (const std::logic_error&) {
        // The socket was closed by the stop: a real server's answer would be lost as well.
      }
    };
    boost::asio::post(id % 2 == 0 ? server.get_executor() : network.get_executor(), answer);
  });
  ASSERT_NO_THROW(await(client->connect("tok").asSingle()));

  std::vector<Outcome> outcomes(kTotal);
  std::atomic<int> sent{0}, answers{0}, timeouts{0};
  std::vector<std::thread> senders;
  for (int s = 0; s < kSenders; ++s) {
    senders.emplace_back([&, s] {
      for (int i = 0; i < kPerSender; ++i) {
        const std::int64_t id = s * kPerSender + i + 1;
        Outcome& outcome = outcomes[id - 1];
        // Every fifth request's time-out races its answer, or ends it when there is none.
        auto subscription =
            client->send(testRequest(id, i % 5 == 4 ? 0s : 20s))
                .subscribe(
                    [&, id](const Resource& r) {
                      ++outcome.elements;
                      ++answers;
                      EXPECT_EQ((Resource{std::to_string(id), "[" + std::to_string(id) + "]"}), r);
                      EXPECT_NE(0, id % 7);
                    },
                    [&](std::exception_ptr e) {
                      const auto* error = errorAs<ConnectionError>(e);
                      const bool timeout = error && error->type() == ConnectionErrorType::timeout;
                      timeouts += timeout;
                      ++(timeout ? outcome.timeouts : outcome.failures);
                    },
                    [&] { ++outcome.completions; });
        if (i % 10 == 9) {
          outcome.disposed = true;
          subscription.dispose();
        }
        ++sent;
      }
    });
  }

  // The stop lands mid-stream: once half the requests went out, answers are flowing and
  // time-outs have begun.
  std::thread stopper([&] {
    const auto giveUp = std::chrono::steady_clock::now() + 10s;
    while ((sent < kTotal / 2 || answers < 20 || timeouts == 0) &&
           std::chrono::steady_clock::now() < giveUp) {
      std::this_thread::yield();
    }
    client->stop(platform::SocketCloseCode::normalClosure);
  });

  for (auto& t : senders) t.join();
  stopper.join();
  serverWork.reset();
  for (auto& t : servers) t.join();
  // Answers handed to the network thread, sends subscribed after the stop and removals of
  // cancelled requests all run there, before this.
  std::promise<void> drained;
  boost::asio::post(network, [&] { drained.set_value(); });
  drained.get_future().wait();

  EXPECT_TRUE(client->pendingRequests().empty());
  EXPECT_EQ(SocketState::disconnected(SocketStateDisconnectedReason::expectedClose),
            client->currentStatus());
  for (std::int64_t id = 1; id <= kTotal; ++id) {
    const auto& o = outcomes[id - 1];
    const int terminals = o.completions + o.timeouts + o.failures;
    // A cancelled request may still see a notification already under way; every other settles.
    EXPECT_EQ(o.disposed ? terminals : 1, terminals) << id;
    EXPECT_LE(terminals, 1) << id;
    EXPECT_LE(o.elements, o.completions) << id;
  }
  EXPECT_GT(answers, 0);
  EXPECT_GT(timeouts, 0);

  // The client's deadline timer lives on the network thread, which ends after it.
  client.reset();
  networkWork.reset();
  networkThread.join();
}

}  // namespace
}  // namespace kel::testing
