#include "ServerClient/platform/HTTPClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/url/parse.hpp>

#include "ServerClient/Common/SDKError.h"
#include "emulator/Emulator.h"
#include "support/TestCertificates.h"

namespace kel::platform {
namespace {

using namespace std::chrono_literals;
using emulator::Emulator;
using ::testing::HasSubstr;
using Kind = HTTPClientError::Kind;
namespace asio = boost::asio;

struct Outcome {
  std::exception_ptr error;
  HTTPResponse response;

  std::optional<Kind> errorKind() const {
    const auto* failure = errorAs<HTTPClientError>(error);
    return failure ? std::optional(failure->kind()) : std::nullopt;
  }
  std::string errorText() const { return describeError(error); }
};

HTTPRequest post(const std::string& url, std::string body) {
  HTTPRequest request("POST", boost::urls::parse_uri(url).value());
  request.addValue("application/json", "Content-Type");
  request.body = std::move(body);
  return request;
}

class HTTPClientTest : public ::testing::Test {
 protected:
  void SetUp() override { startEmulator({}); }

  void startEmulator(emulator::Options options) {
    emulator_.reset();
    emulator_ = std::make_unique<Emulator>(std::move(options));
    emulator_->addAccount(emulator::defaultAccount("carol", "outside"));
    emulator_->http().route("GET", "/echo-headers", [](const emulator::HttpRequest& request) {
      nlohmann::json headers = nlohmann::json::array();
      for (const auto& [name, value] : request.headers) headers.push_back({name, value});
      return emulator::HttpResponse::json(200, headers);
    });
    urls_ = emulator_->start();
  }

  std::shared_ptr<BeastHTTPClient> makeClient(BeastHTTPClient::Options options = {}) {
    if (!options.cookieStorage) options.cookieStorage = cookies_;
    return std::make_shared<BeastHTTPClient>(std::move(options));
  }

  static Outcome run(const std::shared_ptr<HTTPClient>& client, HTTPRequest request) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto future = promise->get_future();
    auto handle = client->send(std::move(request),
                               [promise](std::exception_ptr error, HTTPResponse response) {
                                 promise->set_value(Outcome{error, std::move(response)});
                               });
    if (future.wait_for(10s) != std::future_status::ready) {
      handle.dispose();
      ADD_FAILURE() << "no completion";
      return {};
    }
    return future.get();
  }

  std::shared_ptr<HTTPCookieStorage> cookies_ = std::make_shared<HTTPCookieStorage>();
  std::unique_ptr<Emulator> emulator_;
  emulator::Urls urls_;
};

TEST_F(HTTPClientTest, SendsItsFieldsAndTheCookiesOfEarlierAnswers) {
  auto client = makeClient();
  const auto outcome = run(client, post(urls_.kelURL + "/login", R"({"token":"outside"})"));
  ASSERT_FALSE(outcome.error) << outcome.errorText();
  EXPECT_EQ(200, outcome.response.statusCode);
  EXPECT_EQ("application/json", outcome.response.value("content-type"));
  EXPECT_EQ("carol",
            nlohmann::json::parse(outcome.response.body).at("session").at("userObj").at("id"));
  const auto stored = cookies_->allCookies();
  ASSERT_EQ(1u, stored.size());
  const auto cookie = "KELSESSIONID=" + stored[0].value;

  // A field added twice goes out twice.
  HTTPRequest echo("GET", boost::urls::parse_uri(urls_.kelURL + "/echo-headers").value());
  echo.addValue("a", "X-Twice");
  echo.addValue("b", "X-Twice");
  const auto echoed = nlohmann::json::parse(run(client, echo).response.body);
  const auto sent = [&](const std::string& name) {
    std::vector<std::string> values;
    for (const auto& field : echoed) {
      if (field[0] == name) values.push_back(field[1]);
    }
    return values;
  };
  EXPECT_EQ((std::vector<std::string>{cookie}), sent("Cookie"));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), sent("X-Twice"));
  EXPECT_THAT(sent("User-Agent").at(0), HasSubstr("ServerClient/"));
}

TEST_F(HTTPClientTest, HttpsVerifiesTheCertificateAndTheHostName) {
  const auto& certs = test::TestCertificates::shared();
  BeastHTTPClient::Options trusting;
  trusting.trust.extraCertificateAuthoritiesPem = certs.caCertificatePem();
  const auto serve = [&](const test::CertifiedKey& leaf) {
    startEmulator({.tls = emulator::TlsOptions{leaf.certificatePem, leaf.privateKeyPem}});
  };
  serve(certs.localhost());
  for (const auto& host : {std::string("localhost"), std::string("127.0.0.1")}) {
    const auto url = "https://" + host + ":" + std::to_string(urls_.port) + "/login";
    const auto outcome = run(makeClient(trusting), post(url, R"({"token":"outside"})"));
    ASSERT_FALSE(outcome.error) << host << ": " << outcome.errorText();
    EXPECT_EQ(200, outcome.response.statusCode);
  }
  // Without the test authority the system's store alone refuses it.
  EXPECT_EQ(Kind::tlsFailure, run(makeClient(), post(urls_.kelURL + "/login", "{}")).errorKind());
  // The rules are the WebSocket's as well (its tests have every refusal); here, that the client
  // checks the server's name on its connections.
  serve(certs.wrongHost());
  const auto refused = run(makeClient(trusting), post(urls_.kelURL + "/login", "{}"));
  EXPECT_EQ(Kind::tlsFailure, refused.errorKind());
  EXPECT_THAT(refused.errorText(), HasSubstr("mismatch"));
  EXPECT_EQ(0u, emulator_->signIn().attempts().size());
}

TEST_F(HTTPClientTest, FailuresWithoutAResponse) {
  auto client = makeClient({.maxResponseBodySize = 1024});

  emulator_->http().route("GET", "/big", [](const emulator::HttpRequest&) {
    emulator::HttpResponse response;
    response.body.assign(4096, 'x');
    return response;
  });
  HTTPRequest big("GET", boost::urls::parse_uri(urls_.kelURL + "/big").value());
  EXPECT_EQ(Kind::responseTooLarge, run(client, big).errorKind());

  // A server that accepts the connection (the kernel does, from the backlog) and never answers.
  asio::io_context context;
  asio::ip::tcp::acceptor silent(context, {asio::ip::make_address("127.0.0.1"), 0});
  silent.listen();
  auto waiting =
      post("http://127.0.0.1:" + std::to_string(silent.local_endpoint().port()) + "/x", "{}");
  waiting.timeout = 200ms;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Kind::timedOut, run(client, waiting).errorKind());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);

  const auto freePort = silent.local_endpoint().port();
  silent.close();
  EXPECT_EQ(
      Kind::cannotConnect,
      run(client, post("http://127.0.0.1:" + std::to_string(freePort) + "/", "")).errorKind());

  EXPECT_EQ(Kind::invalidRequest, run(client, post("ftp://127.0.0.1/x", "")).errorKind());
  auto injected = post(urls_.kelURL + "/login", "{}");
  injected.addValue("a\r\nX-Injected: 1", "X-Value");
  EXPECT_EQ(Kind::invalidRequest, run(client, injected).errorKind());
}

TEST_F(HTTPClientTest, DisposingCancelsAndDestroyingTheClientDropsWhatIsUnderWay) {
  asio::io_context context;
  asio::ip::tcp::acceptor silent(context, {asio::ip::make_address("127.0.0.1"), 0});
  silent.listen();
  const auto url = "http://127.0.0.1:" + std::to_string(silent.local_endpoint().port()) + "/x";
  std::atomic<int> completions{0};
  auto client = makeClient();
  auto handle = client->send(post(url, "{}"), [&](auto, auto) { ++completions; });
  handle.dispose();
  client->send(post(url, "{}"), [&](auto, auto) { ++completions; });
  client.reset();  // joins the I/O thread
  EXPECT_EQ(0, completions.load());
}

}  // namespace
}  // namespace kel::platform
