#include "ServerClient/Utils/Description.h"

#include <gtest/gtest.h>
#include <boost/describe.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <map>
#include <optional>
#include <variant>

#include "ServerClient/Common/SDKError.h"

namespace kel {
namespace {

enum class Presence { online, away };
BOOST_DESCRIBE_ENUM(Presence, online, away)

struct Participant {
  std::string name;
  std::optional<int> seat;
};
BOOST_DESCRIBE_STRUCT(Participant, (), (name, seat))

struct Session {
  std::string id;
  std::optional<std::string> title;
  int count = 0;
  bool active = false;
  std::vector<std::string> tags;
  std::map<std::string, int> limits;
  Participant host;
  std::optional<std::vector<Participant>> guests;
  Presence presence = Presence::online;
  ConnectionErrorType lastError = ConnectionErrorType::notFound;
  std::chrono::system_clock::time_point started;
  nlohmann::json extra;
  std::variant<int, std::string> token;
  std::shared_ptr<Participant> owner;
};
BOOST_DESCRIBE_STRUCT(Session, (),
                      (id, title, count, active, tags, limits, host, guests, presence, lastError,
                       started, extra, token, owner))

struct Outer {
  struct Inner {
    int value = 7;
    BOOST_DESCRIBE_CLASS(Inner, (), (value), (), ())
  };
};

struct Base {
  int base = 1;
};
BOOST_DESCRIBE_STRUCT(Base, (), (base))

class Account : public Base {
 public:
  explicit Account(std::string login) : login_(std::move(login)) {}

 private:
  std::string login_;
  BOOST_DESCRIBE_CLASS(Account, (Base), (), (), (login_))
};

TEST(Description, ListsEveryFieldInOrderWithItsTextFormAndNoSecret) {
  Session session;
  session.id = "s-1";
  session.title = "Weekly sync";
  session.count = -3;
  session.active = true;
  session.tags = {"a", "b \"c\""};
  session.limits = {{"calls", 2}, {"rooms", 10}, {"apiKey", 9}};
  session.host = {"Ann", 4};
  session.guests = std::vector<Participant>{{"Bob", std::nullopt}};
  session.presence = Presence::away;
  session.started =
      std::chrono::system_clock::time_point(std::chrono::milliseconds(1'700'000'000'123));
  session.extra = {{"k", {1, 2}}, {"password", "MARK"}};
  session.token = std::string("MARK");

  EXPECT_EQ(
      "***** ServerClient.Session *****\n"
      "id: s-1\n"
      "title: Weekly sync\n"
      "count: -3\n"
      "active: true\n"
      "tags: [\"a\", \"b \\\"c\\\"\"]\n"
      "limits: [\"apiKey\": <redacted>, \"calls\": 2, \"rooms\": 10]\n"
      "host: Participant(name: \"Ann\", seat: 4)\n"
      "guests: [Participant(name: \"Bob\", seat: nil)]\n"
      "presence: away\n"
      "lastError: notFound\n"
      "started: 2023-11-14T22:13:20.123Z\n"
      "extra: {\"k\":[1,2],\"password\":\"<redacted>\"}\n"
      "token: <redacted>\n"
      "owner: nil\n",
      description(session));
  const std::string empty = description(Session{});
  for (const char* line : {"\ntitle: nil\n", "\ntags: []\n", "\nlimits: [:]\n", "\nguests: nil\n",
                           "\nextra: null\n"}) {
    EXPECT_NE(std::string::npos, empty.find(line)) << line;
  }
}

TEST(Description, NamesNestedTypesAndIncludesBaseAndPrivateFields) {
  EXPECT_EQ("***** ServerClient.Outer.Inner *****\nvalue: 7\n", description(Outer::Inner{}));
  EXPECT_EQ("***** ServerClient.Account *****\nbase: 1\nlogin_: ann\n",
            description(Account("ann")));
}

TEST(TextForm, EdgeValuesStayReadable) {
  EXPECT_EQ("2.0", textForm(2.0));  // a floating number never reads as an integer
  EXPECT_EQ("0.1", textForm(0.1f));
  EXPECT_EQ("1e+20", textForm(1e20));
  EXPECT_EQ("nan", textForm(std::nan("")));
  EXPECT_EQ("-inf", textForm(-std::numeric_limits<double>::infinity()));
  EXPECT_EQ("1969-12-31T23:59:59.999Z",
            textForm(std::chrono::system_clock::time_point(std::chrono::milliseconds(-1))));
  EXPECT_EQ("5", textForm(static_cast<Presence>(5)));
  EXPECT_EQ("\"\xEF\xBF\xBD\"", textForm(nlohmann::json(std::string("\xFF"))));
}

}  // namespace
}  // namespace kel
