#include "ServerClient/Client/SocketService.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/rx/Errors.h"
#include "support/FakeSocketClient.h"
#include "support/StreamRecorder.h"

namespace kel {
namespace {

using testing::FakeSocketClient;
using testing::StreamRecorder;

enum class Path { things };
[[maybe_unused]] constexpr auto pathTable(Path) {
  return makePathTable<Path>({{Path::things, "/things"}});
}

JsonRequest<Path> request(std::int64_t id) {
  return {.requestID = id,
          .pathname = Path::things,
          .body = nlohmann::json{{"k", "v"}},
          .method = "GET"};
}

/// An operation written the way every domain writes its own.
class ThingService : public SocketService {
 public:
  using SocketService::SocketService;
  rx::Single<std::vector<int>> things() const {
    return fetch<std::vector<int>>(Call<Path>{.pathname = Path::things, .method = "GET"});
  }
};

class SocketServiceTest : public ::testing::Test {
 protected:
  SocketClientSlot slot_{nullptr};
  SocketService service_{slot_};
  std::shared_ptr<FakeSocketClient> client_ = std::make_shared<FakeSocketClient>();
};

TEST_F(SocketServiceTest, AnEmptySlotFailsAtOnceAndAClientPutThereLaterIsUsed) {
  StreamRecorder missing(service_.sendRequestOrError(request(1)));
  const auto* error = errorAs<ConnectionError>(missing.error());
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(ConnectionErrorType::noSocketClient, error->type());

  slot_.accept(client_);
  StreamRecorder sent(service_.sendRequestOrError(request(2)));
  EXPECT_EQ(
      (nlohmann::json{{"id", 2}, {"path", "/things"}, {"method", "GET"}, {"body", {{"k", "v"}}}}),
      client_->lastRequest());
  EXPECT_TRUE(client_->respond(2, {{"ok", true}}));
  EXPECT_EQ((std::vector{Resource{"2", R"({"ok":true})"}}), sent.values());

  // Emptying the slot again stops the service from reaching the old client.
  slot_.accept(nullptr);
  StreamRecorder afterwards(service_.sendRequestOrError(request(3)));
  EXPECT_NE(nullptr, errorAs<ConnectionError>(afterwards.error()));
  EXPECT_EQ(1u, client_->requests().size());
}

// Errors of the SDK pass unchanged, as every domain's operation table sees; others get wrapped.
TEST_F(SocketServiceTest, ForeignClientErrorsArriveWrappedInAnSDKError) {
  slot_.accept(client_);
  StreamRecorder foreign(service_.sendRequestOrError(request(1)));
  client_->fail(1, std::make_exception_ptr(std::runtime_error("boom")));
  const auto* generic = errorAs<GenericError>(foreign.error());
  ASSERT_NE(nullptr, generic);
  EXPECT_EQ(GenericErrorType::Kind::underlying, generic->type().kind());
  EXPECT_NE(nullptr, errorAs<std::runtime_error>(generic->type().underlyingError()));
}

TEST_F(SocketServiceTest, FirstResourceTakesOneAndTurnsAnEmptyEndIntoAnSDKError) {
  slot_.accept(client_);
  StreamRecorder first(SocketService::firstResource(service_.sendRequestOrError(request(1))));
  client_->respond(1, nlohmann::json::array());
  EXPECT_EQ(1u, first.values().size());
  EXPECT_TRUE(first.completed());

  StreamRecorder closed(SocketService::firstResource(service_.sendRequestOrError(request(2))));
  client_->stop(platform::SocketCloseCode::normalClosure);
  const auto* error = errorAs<GenericError>(closed.error());
  ASSERT_NE(nullptr, error);
  EXPECT_NE(nullptr, errorAs<rx::NoElementsError>(error->type().underlyingError()));
}

TEST_F(SocketServiceTest, EachSubscriptionSendsItsOwnRequestEvenAfterTheServiceIsGone) {
  slot_.accept(client_);
  auto service = std::make_shared<ThingService>(slot_);
  const auto things = service->things();
  service.reset();
  EXPECT_TRUE(client_->requests().empty());

  StreamRecorder first(things);
  StreamRecorder retried(things.retry(2));
  ASSERT_EQ(2u, client_->requests().size());
  const auto firstId = client_->requests()[0]["id"].get<std::int64_t>();
  const auto retriedId = client_->requests()[1]["id"].get<std::int64_t>();
  EXPECT_NE(firstId, retriedId);
  EXPECT_EQ(nlohmann::json::array(), client_->requests()[0]["body"]);

  client_->fail(retriedId, makeError(ConnectionError(ConnectionErrorType::timeout, -1)));
  ASSERT_EQ(3u, client_->requests().size());
  const auto againId = client_->requests()[2]["id"].get<std::int64_t>();
  EXPECT_NE(retriedId, againId);
  client_->respond(againId, {1, 2});
  EXPECT_EQ((std::vector<std::vector<int>>{{1, 2}}), retried.values());
  EXPECT_TRUE(first.values().empty()) << "its own request is still unanswered";
}

}  // namespace
}  // namespace kel
