// What the metrics count when requests end every way they can, the connection is lost and comes
// back, and a facade makes one socket client after another: all in virtual time.

#include "ServerClient/Client/KelMetrics.h"

#include <gtest/gtest.h>

#include <numeric>

#include "ServerClient/Client/KelServer.h"
#include "ServerClient/platform/InMemoryKeychain.h"
#include "SocketTestSupport.h"
#include "support/SignInAnswer.h"

namespace kel::testing {
namespace {

using platform::SocketCloseCode;
using Reason = SocketStateDisconnectedReason;
using std::chrono::microseconds;

struct MetricCount {
  const char* name;
  std::uint64_t actual;
  std::uint64_t expected;
};

void expectMetricCounts(const std::vector<MetricCount>& counts) {
  for (const auto& [name, actual, expected] : counts) EXPECT_EQ(expected, actual) << name;
}

std::uint64_t countFor(const std::array<std::uint64_t, kDisconnectedReasonCount>& byReason,
                       Reason reason = Reason::lostConnection) {
  return byReason[static_cast<std::size_t>(reason)];
}

class KelMetricsTest : public SocketClientTest {
 protected:
  KelMetricsTest() {
    client_ = KelSocketClient::create(
        socket_, handler_, serverEvents_, [this] { return sessionToken_; }, 3s,
        {scheduler_, scheduler_, scheduler_, scheduler_, {}, network_, lifecycle_, metrics_});
  }

  /// The server sends `frame`, counted as received.
  void serverSends(const std::string& frame) {
    received_ += frame.size();
    socket_->receiveMessage(frame);
  }

  std::shared_ptr<KelMetricsRecorder> metrics_ = std::make_shared<KelMetricsRecorder>(scheduler_);
  std::uint64_t received_ = 0;
};

TEST_F(KelMetricsTest, EveryRequestIsCountedOnceByHowItEnded) {
  auto refused = send(testRequest(1));
  authenticate();
  received_ += std::string(R"({"kapiId":"k-1"})").size();
  auto answeredLate = send(testRequest(2));
  auto answeredSoon = send(testRequest(3));
  auto notFound = send(testRequest(4));
  auto timedOut = send(testRequest(5));
  auto cancelled = send(testRequest(6));
  auto unframed = send(JsonRequest<TestPath>{
      .requestID = 7, .pathname = TestPath::users, .body = "bad \xff", .method = "PUT"});
  scheduler_->advanceBy(0s);
  EXPECT_EQ(5u, metrics_->snapshot().requestsPending);

  scheduler_->advanceBy(10ms);
  serverSends(responseFrame(3));
  serverSends(responseFrame(4, {{"status", 404}}));
  scheduler_->advanceBy(30ms);
  serverSends(responseFrame(2, {{"body", {{"a", 1}}}}));
  serverSends(R"(3{"path":"/presence/1","method":"put","body":{}})");
  cancelled.reset();
  scheduler_->advanceBy(20s);
  ASSERT_TRUE(timedOut->error());
  auto stopped = send(testRequest(8));
  scheduler_->advanceBy(0s);
  client_->stop(SocketCloseCode::normalClosure);
  ASSERT_TRUE(stopped->completed());

  const auto m = metrics_->snapshot();
  expectMetricCounts({{"sent", m.requestsSent, 6},
                      {"answered", m.requestsAnswered, 2},
                      {"timed out", m.requestsTimedOut, 1},
                      {"not found", m.failed(ConnectionErrorType::notFound), 1},
                      {"refused unauthenticated", m.failed(ConnectionErrorType::noSocketClient), 1},
                      {"unframed", m.requestsFailedOther, 1},
                      {"all failures", m.failedTotal(), 3},
                      {"stopped", m.requestsStopped, 1},
                      {"cancelled", m.requestsCancelled, 1},
                      {"pending", m.requestsPending, 0},
                      {"round trips, the error answer's included", m.roundTrip.count, 3},
                      {"ended by the user", countFor(m.connectionsEnded, Reason::expectedClose), 1},
                      {"bytes received", m.bytesReceived, received_}});
  EXPECT_EQ(microseconds(40ms), m.roundTrip.max);
  EXPECT_EQ(microseconds(40ms), m.roundTrip.last);
  std::uint64_t sent = 0;
  for (const auto& text : socket_->sentTexts()) sent += text.size();
  EXPECT_EQ(sent, m.bytesSent) << "the AUTH frame and six request frames";
}

TEST_F(KelMetricsTest, ALostConnectionCountsItsCauseItsAttemptsAndTheNextAuthentication) {
  const std::string ack = R"({"kapiId":"k"})";
  auto connecting = record(client_->connect(kToken), scheduler_);
  scheduler_->advanceBy(250ms);
  socket_->receiveMessage(ack);
  ASSERT_EQ(1u, connecting->values().size());

  socket_->setOptions({.openOnConnect = false});
  socket_->close(SocketCloseCode::abnormalClosure);
  scheduler_->advanceBy(3s);
  ASSERT_EQ(2u, socket_->connectCount()) << "the first reconnection attempt";
  socket_->close(SocketCloseCode::abnormalClosure);  // refused: no connection ended
  scheduler_->advanceBy(3s);
  socket_->open();
  scheduler_->advanceBy(100ms);
  socket_->receiveMessage(ack);
  ASSERT_EQ(SocketState::authenticated(), client_->currentStatus());
  scheduler_->advanceBy(30s);

  const auto m = metrics_->snapshot();
  expectMetricCounts({{"lost", countFor(m.connectionsEnded), 1},
                      {"reconnections after a loss", countFor(m.reconnections), 1},
                      {"all reconnections", m.reconnectionsTotal(), 1},
                      {"attempts", m.reconnectionAttempts, 2},
                      {"authentications", m.authentication.count, 2}});
  EXPECT_EQ(microseconds(100ms), m.authentication.last);
  EXPECT_EQ(microseconds(250ms), m.authentication.max);
}

TEST(KelMetricsRecorderTest, PercentilesAreNeverBelowTheTruthNorAnEighthAbove) {
  struct Case {
    const char* name;
    std::vector<microseconds> durations;
    microseconds p50, p90, p99;  // the true ones
  };
  std::vector<microseconds> oneToAThousandMs;
  for (int i = 1; i <= 1000; ++i) oneToAThousandMs.emplace_back(i * 1000);
  std::vector<microseconds> outlier(99, microseconds(1000));
  outlier.emplace_back(5'000'000);
  const auto day = microseconds(std::chrono::hours(24));
  const Case cases[] = {
      {"small values are exact", {microseconds(3), microseconds(5)}, 3us, 5us, 5us},
      {"spread", oneToAThousandMs, 500ms, 900ms, 990ms},
      {"one outlier is the max only", outlier, 1ms, 1ms, 1ms},
      {"beyond the last bucket", {day}, day, day, day},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    KelMetricsRecorder recorder;
    for (const auto d : c.durations) recorder.authenticated(d);
    const auto latency = recorder.snapshot().authentication;
    EXPECT_EQ(c.durations.size(), latency.count);
    EXPECT_EQ(*std::max_element(c.durations.begin(), c.durations.end()), latency.max);
    EXPECT_EQ(c.durations.back(), latency.last);
    for (const auto& [reported, truth] :
         {std::pair{latency.p50, c.p50}, {latency.p90, c.p90}, {latency.p99, c.p99}}) {
      EXPECT_GE(reported, truth);
      EXPECT_LE(reported, truth + truth / 8);
      EXPECT_LE(reported, latency.max);
    }
  }
  EXPECT_EQ(KelLatency{}, KelMetricsRecorder().snapshot().roundTrip) << "nothing measured";
}

TEST(KelServerMetricsTest, TheStreamSamplesOnlyWhileSubscribedAndCountsSpanEverySocketClient) {
  auto scheduler = std::make_shared<rx::TestScheduler>();
  auto http = std::make_shared<platform::InMemoryHTTPClient>();
  http->setResponder([](const platform::HTTPRequest&) {
    return std::optional(platform::InMemoryHTTPClient::Outcome::respond(200, signInAnswer()));
  });
  std::vector<std::shared_ptr<platform::InMemorySocket>> sockets;
  KelServer::Options options;
  options.mainScheduler = options.resumeTimeoutScheduler = options.renewalScheduler = scheduler;
  options.makeUserInitiatedScheduler = [scheduler] { return scheduler; };
  options.keychain = std::make_shared<platform::InMemoryKeychain>();
  options.userDefaults = std::make_shared<platform::InMemoryUserDefaults>();
  options.applicationLifecycle = std::make_shared<platform::ApplicationLifecycle>();
  options.httpClient = http;
  options.deviceInfo = std::make_shared<platform::FixedDeviceInfo>();
  SocketBuilder::Platform platform;
  platform.makeSocket = [&sockets](const boost::urls::url& url, std::vector<std::string>) {
    auto socket = std::make_shared<platform::InMemorySocket>(url);
    // The server acknowledges AUTH and answers every request (sign-in asks for permissions).
    socket->setSendHandler([weak = std::weak_ptr(socket)](const std::string& text) {
      auto s = weak.lock();
      if (!s) return;
      if (text.starts_with("AUTH ")) return s->receiveMessage(R"({"kapiId":"k"})");
      const auto id = nlohmann::json::parse(text.substr(1), nullptr, false).value("id", 0);
      const nlohmann::json body = {{"recording", nlohmann::json::object()},
                                   {"voicemail", nlohmann::json::object()}};
      s->receiveMessage(responseFrame(id, {{"status", 200}, {"body", body}}));
    });
    sockets.push_back(socket);
    return socket;
  };
  platform.clientOptions.socketScheduler = platform.clientOptions.connectionScheduler =
      platform.clientOptions.authenticationScheduler =
          platform.clientOptions.reconnectionScheduler = scheduler;
  options.socketPlatform = platform;
  auto server = KelServer::create(boost::urls::url("https://kel.example/api/v1"),
                                  boost::urls::url("wss://kel.example/ws/kel"), "1", "T", options);
  {
    auto samples = std::make_unique<StreamRecorder<KelMetrics>>(server->metrics(5s), scheduler);
    for (int session = 0; session < 2; ++session) {
      StreamRecorder<AuthenticationData> signedIn(server->connect("outside-token"));
      scheduler->advanceBy(0s);
      ASSERT_EQ(1u, signedIn.values().size()) << describeError(signedIn.error());
    }
    sockets.back()->close(SocketCloseCode::abnormalClosure);
    scheduler->advanceBy(10s);
    const auto all = samples->values();
    ASSERT_EQ(3u, all.size()) << "at 0, 5 and 10 s";
    EXPECT_EQ(0u, all.front().authentication.count);
    const auto& m = all.back();
    EXPECT_EQ(m, server->metricsSnapshot());
    expectMetricCounts(
        {{"authentications", m.authentication.count, 3},
         {"ended by the second sign-in", countFor(m.connectionsEnded, Reason::expectedClose), 1},
         {"lost", countFor(m.connectionsEnded), 1},
         {"reconnections", m.reconnectionsTotal(), 1}});
    const auto timers = scheduler->pendingCount();
    samples.reset();
    EXPECT_EQ(timers - 1, scheduler->pendingCount()) << "the sampling's timer went with it";
  }
  StreamRecorder<KelMetrics> refused(server->metrics(0s));
  EXPECT_TRUE(errorAs<GenericError>(refused.error()));
  server->clearSessionInfo();
}

}  // namespace
}  // namespace kel::testing
