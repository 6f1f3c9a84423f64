// Signing in against the emulator over real HTTP and HTTPS.

#include "ServerClient/Auth/Service/AuthService.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>

#include <boost/url/parse.hpp>

#include "ServerClient/Common/SDKError.h"
#include "emulator/Emulator.h"
#include "support/TestCertificates.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using emulator::Emulator;

struct Result {
  std::optional<AuthenticationData> data;
  std::exception_ptr error;
};

class AuthServiceSignInTest : public testing::Test {
 protected:
  using BeastOptions = platform::BeastHTTPClient::Options;

  void SetUp() override { start({}); }

  void start(emulator::Options options, BeastOptions clientOptions = {}) {
    emulator_ = std::make_unique<Emulator>(std::move(options));
    emulator_->addAccount(emulator::defaultAccount("carol", "outside"));
    urls_ = emulator_->start();
    clientOptions.cookieStorage = std::make_shared<platform::HTTPCookieStorage>();
    device_->identifier = "0A1B2C3D-0000-4000-8000-000000000001";
    service_ = std::make_shared<AuthService>(
        SocketClientSlot(nullptr), std::make_shared<platform::BeastHTTPClient>(clientOptions),
        device_);
  }

  Result login(const std::string& base, const std::string& token = "outside") {
    // Shared with the callbacks: a late answer must not reach a promise that is gone.
    auto promise = std::make_shared<std::promise<Result>>();
    auto subscription =
        service_->login(token, boost::urls::url(boost::urls::parse_uri(base).value()), "4.2.0")
            .subscribe(
                [promise](const AuthenticationData& d) {
                  promise->set_value({d, nullptr});
                },
                [promise](std::exception_ptr e) {
                  promise->set_value({std::nullopt, e});
                });
    auto future = promise->get_future();
    if (future.wait_for(10s) != std::future_status::ready) {
      ADD_FAILURE() << "no answer";
      return {};
    }
    return future.get();
  }

  std::unique_ptr<Emulator> emulator_;
  emulator::Urls urls_;
  std::shared_ptr<platform::FixedDeviceInfo> device_ =
      std::make_shared<platform::FixedDeviceInfo>();
  std::shared_ptr<AuthService> service_;
};

TEST_F(AuthServiceSignInTest, SignsInWithTheBaseUrlAsGivenAndDescribesTheDevice) {
  for (const auto& base : {urls_.kelURL, urls_.kelURL + "/"}) {
    const auto result = login(base);
    ASSERT_TRUE(result.data) << describeError(result.error);
    EXPECT_EQ("carol", result.data->user.userId);
    EXPECT_TRUE(emulator_->session(result.data->token).has_value());
    EXPECT_FALSE(result.data->permissions.has_value());
  }
  const auto attempts = emulator_->signIn().attempts();
  ASSERT_EQ(2u, attempts.size());
  EXPECT_EQ("/login", attempts[0].path);
  EXPECT_EQ("//login", attempts[1].path);
  EXPECT_EQ((nlohmann::json{{"location", urls_.kelURL},
                            {"platform", "Linux"},
                            {"deviceId", *device_->identifier},
                            {"useragent", "Linux 1.0;ModelID - x86_64;App version 4.2.0"}}),
            attempts[0].context);
  EXPECT_EQ(urls_.kelURL + "/", attempts[1].context.at("location"));
}

TEST_F(AuthServiceSignInTest, StatusesAndBodiesThatDoNotSignIn) {
  // An unknown token, refused with 401, and the server's own error document: both say the
  // credentials are wrong.
  for (const bool document : {false, true}) {
    if (document) {
      emulator_->signIn().setRejection(emulator::SignInRejection::wrongCredentials(500));
    }
    const auto wrong = login(urls_.kelURL, "unknown");
    const auto* authError = errorAs<AuthError>(wrong.error);
    ASSERT_NE(nullptr, authError) << describeError(wrong.error);
    EXPECT_EQ(AuthErrorType::wrongCredentials, authError->type());
  }

  emulator_->signIn().setAnswer({.status = 500});
  EXPECT_TRUE(login(urls_.kelURL).data.has_value());

  for (const auto* key : {"credential", "capabilities"}) {
    emulator_->signIn().setAnswer({.omitKeys = {key}});
    const auto missing = login(urls_.kelURL);
    const auto* decoding = errorAs<GenericError>(missing.error);
    ASSERT_NE(nullptr, decoding) << key << ": " << describeError(missing.error);
    EXPECT_EQ(GenericErrorType::Kind::decoding, decoding->type().kind()) << key;
  }

  emulator_->signIn().setAnswer({.status = 502, .rawBody = "<html>bad gateway</html>"});
  const auto html = login(urls_.kelURL);
  ASSERT_NE(nullptr, errorAs<GenericError>(html.error));
  EXPECT_EQ(GenericErrorType::Kind::decoding, errorAs<GenericError>(html.error)->type().kind());

  emulator_->signIn().setAnswer({.rawBody = ""});
  const auto empty = login(urls_.kelURL);
  ASSERT_NE(nullptr, errorAs<GenericError>(empty.error));
  EXPECT_EQ(GenericErrorType::Kind::invalidResponse,
            errorAs<GenericError>(empty.error)->type().kind());
}

TEST_F(AuthServiceSignInTest, OverHttpsAndWhenNothingAnswers) {
  const auto& certs = test::TestCertificates::shared();
  BeastOptions trusting;
  trusting.trust.extraCertificateAuthoritiesPem = certs.caCertificatePem();
  start({.tls = emulator::TlsOptions{certs.localhost().certificatePem,
                                     certs.localhost().privateKeyPem}},
        trusting);
  ASSERT_EQ(0u, urls_.kelURL.rfind("https://", 0));
  const auto signedIn = login(urls_.kelURL);
  ASSERT_TRUE(signedIn.data) << describeError(signedIn.error);

  const auto base = urls_.kelURL;
  emulator_->stop();
  const auto unreachable = login(base);
  const auto* underlying = errorAs<GenericError>(unreachable.error);
  ASSERT_NE(nullptr, underlying) << describeError(unreachable.error);
  EXPECT_EQ(GenericErrorType::Kind::underlying, underlying->type().kind());
  EXPECT_NE(nullptr, errorAs<platform::HTTPClientError>(underlying->type().underlyingError()));
}

}  // namespace
}  // namespace kel
