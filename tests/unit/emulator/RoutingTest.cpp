// Routing of socket requests: which handler a path reaches and what it is told (HTTP requests go
// through the same route table; CallsMeetingsAndAlertsTest reaches one by HTTP).

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

#include "emulator/ResourceRouter.h"

namespace kel::emulator {
namespace {

using nlohmann::json;

/// Dispatches "METHOD path" synchronously and returns the answer (nothing when the handler kept
/// it).
std::optional<Reply> dispatch(const ResourceRouter& router, const std::string& request) {
  std::optional<Reply> answer;
  ResourceRequest r;
  r.id = 1;
  r.method = request.substr(0, request.find(' '));
  r.path = request.substr(request.find(' ') + 1);
  router.dispatch(std::move(r), Responder::capturing(1, [&](Reply reply) { answer = reply; }));
  return answer;
}

ResourceHandler describing(std::string name) {
  return [name](const ResourceRequest& r) {
    json params = json::object();
    for (const auto& [k, v] : r.params) params[k] = v;
    return Reply::ok({{"route", name}, {"rest", r.rest}, {"params", params}});
  };
}

TEST(EmulatorRouting, TargetsAreSplitIntoDecodedSegmentsAndQuery) {
  auto target = parseTarget("/a%20b//c/?x=1&y=two+words&flag&x=2");
  ASSERT_TRUE(target);
  EXPECT_EQ("/a%20b//c/", target->path);
  EXPECT_EQ((std::vector<std::string>{"a b", "c"}), target->segments);
  EXPECT_EQ("1", target->queryValue("x"));
  EXPECT_EQ("two words", target->queryValue("y"));
  EXPECT_EQ("", target->queryValue("flag"));
  EXPECT_FALSE(target->queryValue("z"));

  EXPECT_FALSE(parseTarget("relative/path"));
  EXPECT_FALSE(parseTarget("/bad%zzescape"));
  EXPECT_FALSE(parseTarget("/with#fragment"));
  EXPECT_THROW(PathPattern("no-slash"), std::invalid_argument);
  EXPECT_THROW(PathPattern("/users/:"), std::invalid_argument);
}

TEST(EmulatorRouting, TheMostSpecificRouteForTheMethodWins) {
  ResourceRouter router;
  router.route("GET", "/usersGroup", describing("group"));
  router.route("GET", "/usersGroup/participant", describing("participant"));
  router.route("GET", "/users/:id", describing("user"));
  router.route("GET", "/users/me", describing("me"));
  router.route("post", "/users/:id/contacts", describing("contacts"));
  router.route("*", "/", describing("root"));
  const std::pair<std::string, json> cases[] = {
      {"GET /usersGroup/7", {{"route", "group"}, {"rest", "7"}, {"params", json::object()}}},
      {"GET /usersGroup/participant/42", {{"route", "participant"}, {"rest", "42"}}},
      {"GET /users/me", {{"route", "me"}}},
      {"GET /users/u%202", {{"route", "user"}, {"params", {{"id", "u 2"}}}}},
      {"POST /users/9/contacts/1/2", {{"route", "contacts"}, {"rest", "1/2"}}},
      // A more specific route for another method does not hide a general one for this method.
      {"DELETE /users/9/contacts", {{"route", "root"}}},
      {"PUT /anything/else", {{"route", "root"}}},
  };
  for (const auto& [request, expected] : cases) {
    const auto body = dispatch(router, request).value_or(Reply::ok()).body;
    for (const auto& [key, value] : expected.items()) EXPECT_EQ(value, body[key]) << request;
  }
}

TEST(EmulatorRouting, MissesFailuresAndChangesOfRoutesAreAnsweredByTheRouter) {
  ResourceRouter router;
  router.route("GET", "/presence", describing("presence"));
  router.route("GET", "/throws",
               [](const ResourceRequest&) -> Reply { throw std::logic_error("x"); });
  // Handlers may change the routes while they run.
  router.route("POST", "/install", [&router](const ResourceRequest&) {
    router.route("GET", "/installed", describing("installed"));
    router.remove("POST", "/install");
    return Reply::ok();
  });
  const std::pair<const char*, int> cases[] = {
      {"GET /nothing", 404},  {"PUT /presence/1", 405}, {"get /presence", 200},
      {"GET presence", 200},  {"GET /%zz", 400},        {"GET /throws", 500},
      {"POST /install", 200}, {"GET /installed", 200},  {"POST /install", 404},
  };
  for (const auto& [request, status] : cases) {
    EXPECT_EQ(status, dispatch(router, request)->status) << request;
  }
  EXPECT_EQ("handler failed: x", dispatch(router, "GET /throws")->body["message"]);
}

}  // namespace
}  // namespace kel::emulator
