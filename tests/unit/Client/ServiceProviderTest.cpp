#include "ServerClient/Client/ServiceProvider.h"

#include <gtest/gtest.h>

#include <boost/url/parse.hpp>
#include <nlohmann/json.hpp>

#include "ServerClient/Client/CapabilityValidator.h"
#include "ServerClient/Push/KelPushService.h"
#include "ServerClient/User/KelUserService.h"
#include "support/FakeSocketClient.h"
#include "support/StreamRecorder.h"
#include "support/Thrown.h"

namespace kel {
namespace {

using testing::FakeSocketClient;
using testing::StreamRecorder;
using Domain = ServiceProvider::Domain;
using Dependencies = ServiceProvider::Dependencies;

std::shared_ptr<const Capabilities> capabilities(std::vector<std::string> domain) {
  return std::make_shared<const Capabilities>(std::move(domain), std::vector<std::string>{});
}

/// The GenericError thrown by `demand`.
template <class F>
GenericError refusal(F demand) {
  return test::thrown<GenericError>(demand).value();
}

class ServiceProviderTest : public ::testing::Test {
 protected:
  ServiceProviderTest() {
    // A stand-in for the domains whose services are built elsewhere.
    for (auto domain : kAllServiceDomains) {
      if (!ServiceProvider::defaultFactories().contains(domain)) {
        provider_.registerFactory(domain, [](SocketClientSlot slot) {
          return std::make_shared<SocketService>(std::move(slot));
        });
      }
    }
  }

  std::shared_ptr<SocketService> demand(Domain domain) {
    return provider_.createService(domain, Dependencies::socket(slot_));
  }

  SocketClientSlot slot_{nullptr};
  std::shared_ptr<CapabilityValidator> validator_ = std::make_shared<CapabilityValidator>();
  ServiceProvider provider_{validator_};
};

TEST_F(ServiceProviderTest, HandsOutOneInstancePerDomainAndKeepsItsFirstSlot) {
  const auto user = demand(Domain::user);
  ASSERT_NE(nullptr, user);
  SocketClientSlot otherSlot{nullptr};
  EXPECT_EQ(user, provider_.createService(Domain::user, Dependencies::socket(otherSlot)));
  EXPECT_EQ(user, provider_.cachedService(Domain::user));

  // The service keeps the slot it was made with: a client put into the later slot is not used.
  auto client = std::make_shared<FakeSocketClient>();
  otherSlot.accept(client);
  StreamRecorder result(std::dynamic_pointer_cast<UserService>(user)->user("u1"));
  EXPECT_TRUE(client->requests().empty());
  EXPECT_NE(nullptr, errorAs<ConnectionError>(result.error()));

  EXPECT_NE(user, demand(Domain::push));
  EXPECT_NE(nullptr, provider_.service<UserService>(Domain::user, Dependencies::socket(slot_)));
}

TEST_F(ServiceProviderTest, RefusesFileSharingAndOtherDependenciesEvenWhenCached) {
  demand(Domain::user);
  const auto url = boost::urls::parse_uri("https://kel.example.org/api").value();
  const struct {
    Domain domain;
    Dependencies dependencies;
    std::string description;
  } refused[] = {
      {Domain::user, Dependencies::rest(boost::urls::url(url)),
       "Invalid domain or dependencies: user rest(serverUrl: https://kel.example.org/api)"},
      {Domain::user, Dependencies::file(), "Invalid domain or dependencies: user file"},
      {Domain::fileSharing, Dependencies::socket(slot_),
       "Invalid domain or dependencies: fileSharing socket(client: BehaviorRelay(value: nil))"},
  };
  for (const auto& c : refused) {
    const auto error = refusal([&] { provider_.createService(c.domain, c.dependencies); });
    EXPECT_EQ(GenericErrorType::underlying(), error.type());
    EXPECT_EQ(c.description, error.description());
  }
  EXPECT_EQ(nullptr, provider_.cachedService(Domain::fileSharing));
}

TEST_F(ServiceProviderTest, CapabilitiesGuardOnlyPresenceAndConferenceLogAtEachDemand) {
  // None yet: every other domain is handed out.
  for (auto domain : kAllServiceDomains) {
    SCOPED_TRACE(std::string(rawValue(domain)));
    if (domain == Domain::fileSharing) continue;
    if (domain == Domain::presence || domain == Domain::conferenceLog) {
      const auto error = refusal([&] { demand(domain); });
      EXPECT_EQ(
          GenericErrorType::notAllowed(domain == Domain::presence ? "presence" : "+call-history"),
          error.type());
      EXPECT_EQ(nullptr, provider_.cachedService(domain));
    } else {
      EXPECT_NE(nullptr, demand(domain));
    }
  }
  // Labels compare exactly.
  validator_->setCapabilities(capabilities({"presence", "Call-history"}));
  const auto presence = demand(Domain::presence);
  EXPECT_EQ(GenericErrorType::Kind::notAllowed,
            refusal([&] { demand(Domain::conferenceLog); }).type().kind());
  // A cached service becomes unreachable as soon as the capability is gone...
  validator_->setCapabilities(std::make_shared<const Capabilities>(
      std::vector<std::string>{"presence"}, std::vector<std::string>{"-presence"}));
  EXPECT_EQ(GenericErrorType::notAllowed("presence"),
            refusal([&] { demand(Domain::presence); }).type());
  // ...and comes back as the same instance with it.
  validator_->setCapabilities(capabilities({"presence", "call-history"}));
  EXPECT_EQ(presence, demand(Domain::presence));
  EXPECT_NE(nullptr, demand(Domain::conferenceLog));
}

TEST_F(ServiceProviderTest, ADomainWithoutAFactoryOrOfAnotherInterfaceIsNotFound) {
  ServiceProvider bare(validator_);
  bare.registerFactory(Domain::alerts, [](SocketClientSlot) { return nullptr; });
  for (auto domain : {Domain::authorization, Domain::alerts}) {
    EXPECT_EQ("Service not found", refusal([&] {
                                     bare.createService(domain, Dependencies::socket(slot_));
                                   }).description());
  }
  EXPECT_EQ(nullptr, bare.cachedService(Domain::alerts));
  EXPECT_EQ("Service not found", refusal([&] {
                                   provider_.service<PushService>(Domain::user,
                                                                  Dependencies::socket(slot_));
                                 }).description());
}

}  // namespace
}  // namespace kel
