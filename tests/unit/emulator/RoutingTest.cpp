// Routing of socket requests: which handler a path reaches and what it is told.

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

#include "emulator/HttpRouter.h"
#include "emulator/ResourceRouter.h"

namespace kel::emulator {
namespace {

using nlohmann::json;

/// Dispatches synchronously and returns the answer (or nothing when the handler kept it).
std::optional<Reply> dispatch(const ResourceRouter& router, std::string method, std::string path) {
  std::optional<Reply> answer;
  ResourceRequest request;
  request.id = 1;
  request.method = std::move(method);
  request.path = std::move(path);
  router.dispatch(std::move(request), Responder::capturing(1, [&](Reply r) { answer = r; }));
  return answer;
}

ResourceHandler describing(std::string name) {
  return [name](const ResourceRequest& r) {
    json params = json::object();
    for (const auto& [k, v] : r.params) params[k] = v;
    return Reply::ok({{"route", name}, {"rest", r.rest}, {"params", params}});
  };
}

TEST(PathPattern, TargetsAreSplitIntoDecodedSegmentsAndQuery) {
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

TEST(ResourceRouter, TheMostSpecificRouteForTheMethodWins) {
  ResourceRouter router;
  router.route("GET", "/usersGroup", describing("group"));
  router.route("GET", "/usersGroup/participant", describing("participant"));
  router.route("GET", "/users/:id", describing("user"));
  router.route("GET", "/users/me", describing("me"));
  router.route("post", "/users/:id/contacts", describing("contacts"));
  router.route("*", "/", describing("root"));

  auto body = [&](std::string method, std::string path) {
    auto answer = dispatch(router, std::move(method), std::move(path));
    return answer ? answer->body : json();
  };
  EXPECT_EQ((json{{"route", "group"}, {"rest", "7"}, {"params", json::object()}}),
            body("GET", "/usersGroup/7"));
  EXPECT_EQ("participant", body("GET", "/usersGroup/participant/42")["route"]);
  EXPECT_EQ("42", body("GET", "/usersGroup/participant/42")["rest"]);
  EXPECT_EQ("me", body("GET", "/users/me")["route"]);
  EXPECT_EQ((json{{"id", "u 2"}}), body("GET", "/users/u%202")["params"]);
  EXPECT_EQ("contacts", body("POST", "/users/9/contacts/1/2")["route"]);
  EXPECT_EQ("1/2", body("POST", "/users/9/contacts/1/2")["rest"]);
  // A more specific route for another method does not hide a general one for this method.
  EXPECT_EQ("root", body("DELETE", "/users/9/contacts")["route"]);
  EXPECT_EQ("root", body("PUT", "/anything/else")["route"]);
}

TEST(ResourceRouter, MissesAndFailuresAreAnsweredByTheRouter) {
  ResourceRouter router;
  router.route("GET", "/presence", describing("presence"));
  router.route("GET", "/throws",
               [](const ResourceRequest&) -> Reply { throw std::logic_error("x"); });

  EXPECT_EQ(404, dispatch(router, "GET", "/nothing")->status);
  EXPECT_EQ(405, dispatch(router, "PUT", "/presence/1")->status);
  EXPECT_EQ(200, dispatch(router, "get", "/presence")->status) << "methods ignore case";
  EXPECT_EQ(200, dispatch(router, "GET", "presence")->status) << "resolved against the root";
  EXPECT_EQ(400, dispatch(router, "GET", "/%zz")->status);
  auto failed = dispatch(router, "GET", "/throws");
  EXPECT_EQ(500, failed->status);
  EXPECT_EQ("handler failed: x", failed->body["message"]);

  router.route("GET", "/presence", [](const ResourceRequest&) { return Reply::withStatus(201); });
  EXPECT_EQ(201, dispatch(router, "GET", "/presence")->status) << "same route replaces";
  EXPECT_TRUE(router.remove("get", "/presence"));
  EXPECT_FALSE(router.remove("GET", "/presence"));
  EXPECT_EQ(404, dispatch(router, "GET", "/presence")->status);
}

TEST(ResourceRouter, HandlersMayChangeTheRoutesWhileTheyRun) {
  ResourceRouter router;
  router.route("POST", "/install", [&router](const ResourceRequest&) {
    router.route("GET", "/installed", describing("installed"));
    router.remove("POST", "/install");
    return Reply::ok();
  });
  EXPECT_EQ(200, dispatch(router, "POST", "/install")->status);
  EXPECT_EQ(200, dispatch(router, "GET", "/installed")->status);
  EXPECT_EQ(404, dispatch(router, "POST", "/install")->status);
}

TEST(HttpRouter, RoutesLikeTheSocketAndReadsCookiesAndJson) {
  HttpRouter router;
  router.route("POST", "/login", [](const HttpRequest& r) {
    return HttpResponse::json(200,
                              {{"rest", r.rest},
                               {"cookie", r.cookie("kel").value_or("-")},
                               {"type", r.header("content-type").value_or("-")},
                               {"token", r.json().value_or(json::object()).value("token", "")}});
  });
  HttpRequest request;
  request.method = "post";
  request.path = "/login/sessionToken";
  request.headers = {{"Content-Type", "application/json"}};
  request.cookies = parseCookieHeader(" kel = \"v 1\" ;other=2;broken; =x");
  request.body = R"({"token": "t"})";
  auto response = router.handle(request);
  EXPECT_EQ(200, response.status);
  EXPECT_EQ((json{{"rest", "sessionToken"},
                  {"cookie", "v 1"},
                  {"type", "application/json"},
                  {"token", "t"}}),
            json::parse(response.body));
  EXPECT_EQ((HeaderFields{{"kel", "v 1"}, {"other", "2"}}), request.cookies);

  request.method = "GET";
  EXPECT_EQ(405, router.handle(request).status);
  request.path = "/elsewhere";
  EXPECT_EQ(404, router.handle(request).status);
}

}  // namespace
}  // namespace kel::emulator
