#include "ServerClient/platform/HTTPCookieStorage.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>

namespace kel::platform {
namespace {

using namespace std::chrono_literals;
using std::chrono::sys_days;
using std::chrono::system_clock;

boost::urls::url url(std::string_view text) {
  return boost::urls::parse_uri(text).value();
}

// Cookie header value for `text`, as the socket upgrade would send it.
std::string cookieHeader(const HTTPCookieStorage& storage, std::string_view text) {
  const auto fields = HTTPCookieStorage::requestHeaderFields(storage.cookies(url(text)));
  if (fields.empty()) return "";
  EXPECT_EQ(1u, fields.size());
  EXPECT_EQ("Cookie", fields.front().first);
  return fields.front().second;
}

class HTTPCookieStorageTest : public testing::Test {
 protected:
  /// Every one of `cookies`, set from `from`, is stored (`stored`) or refused.
  void set(std::initializer_list<std::string_view> cookies, std::string_view from,
           bool stored = true) {
    for (auto cookie : cookies) {
      EXPECT_EQ(stored, storage_.setCookie(std::string(cookie), url(from))) << cookie;
    }
  }

  system_clock::time_point now_ = sys_days{std::chrono::year{2024} / 3 / 1};
  HTTPCookieStorage storage_{[this] { return now_; }};
};

TEST_F(HTTPCookieStorageTest, SignInCookiesGoWithTheSocketUpgradeToTheSameHost) {
  // The sign-in answer over https sets the session cookies...
  set({"JSESSIONID=abc123; Path=/; Secure; HttpOnly", "lb=node-7"},
      "https://kel.example.com/login");
  // ...and the socket finds them for its wss URL, HttpOnly included, in one header field.
  EXPECT_EQ("JSESSIONID=abc123; lb=node-7", cookieHeader(storage_, "wss://kel.example.com/ws"));
  // Secure cookies never travel in clear text; the others do.
  EXPECT_EQ("lb=node-7", cookieHeader(storage_, "ws://KEL.Example.com/ws"));
  // Host-only cookies stay with their host.
  EXPECT_EQ("", cookieHeader(storage_, "wss://eu.kel.example.com/ws"));
  EXPECT_EQ("", cookieHeader(storage_, "wss://otherkel.example.com/ws"));
  // Other schemes take no part.
  EXPECT_EQ("", cookieHeader(storage_, "ftp://kel.example.com/"));
  EXPECT_FALSE(storage_.setCookie("a=1", url("file:///tmp/x")));
}

TEST_F(HTTPCookieStorageTest, DomainCookiesReachSubdomainsOnlyWhenTheHostMaySetThem) {
  const auto login = "https://login.kel.example.com/login";
  set({"wide=1; Domain=.Kel.Example.COM", "own=2; Domain=login.kel.example.com"}, login);
  set({"sibling=3; Domain=chat.kel.example.com", "suffix=4; Domain=ample.com", "tld=5; Domain=com"},
      login, false);
  EXPECT_EQ("wide=1", cookieHeader(storage_, "wss://chat.kel.example.com/ws"));
  EXPECT_EQ("wide=1; own=2", cookieHeader(storage_, "wss://a.login.kel.example.com/ws"));
  EXPECT_EQ("", cookieHeader(storage_, "wss://example.com/ws"));

  // A dotless name is usable only by the host of that name, and then only for itself.
  set({"dev=1; Domain=localhost"}, "http://localhost:8080/login");
  EXPECT_EQ("dev=1", cookieHeader(storage_, "ws://localhost:9000/ws"));
  EXPECT_EQ("", cookieHeader(storage_, "ws://a.localhost/ws"));
}

TEST_F(HTTPCookieStorageTest, AddressHostsMatchOnlyThemselves) {
  set({"v4=1", "same=1; Domain=127.0.0.1"}, "http://127.0.0.1:8080/login");
  set({"v6=1"}, "http://[::1]:8080/login");
  set({"up=1; Domain=0.0.1"}, "http://127.0.0.1/login", false);
  EXPECT_EQ("v4=1; same=1", cookieHeader(storage_, "ws://127.0.0.1:9000/ws"));
  EXPECT_EQ("v6=1", cookieHeader(storage_, "ws://[::1]:9000/ws"));
  EXPECT_EQ("", cookieHeader(storage_, "ws://10.127.0.0.1/ws"));
}

TEST_F(HTTPCookieStorageTest, PathsDefaultToTheRequestDirectoryAndMatchWholeSegments) {
  // Path /api/v1, explicit, not absolute (the default again), then two with path /.
  set({"dir=1", "api=1; Path=/api", "root=1; Path=relative"},
      "https://kel.example.com/api/v1/login?x=1");
  set({"top=1"}, "https://kel.example.com/login");
  set({"bare=1"}, "https://kel.example.com");

  // Longest path first; equal paths keep the order in which they were created.
  EXPECT_EQ("dir=1; root=1; api=1; top=1; bare=1",
            cookieHeader(storage_, "wss://kel.example.com/api/v1/ws"));
  EXPECT_EQ("api=1; top=1; bare=1", cookieHeader(storage_, "wss://kel.example.com/api/v10"));
  EXPECT_EQ("top=1; bare=1", cookieHeader(storage_, "wss://kel.example.com/apix"));
}

TEST_F(HTTPCookieStorageTest, ExpiryFollowsMaxAgeBeforeExpires) {
  const auto login = "https://kel.example.com/login";
  // Max-Age wins over an Expires in the past, whatever their order.
  set({"session=1", "short=1; Max-Age=60", "dated=1; Expires=Fri, 01 Mar 2024 00:10:00 GMT",
       "both=1; Expires=Thu, 01 Jan 1970 00:00:00 GMT; Max-Age=3600"},
      login);
  EXPECT_EQ("session=1; short=1; dated=1; both=1",
            cookieHeader(storage_, "wss://kel.example.com/"));

  now_ += 61s;
  EXPECT_EQ("session=1; dated=1; both=1", cookieHeader(storage_, "wss://kel.example.com/"));
  now_ += 1h;
  EXPECT_EQ("session=1", cookieHeader(storage_, "wss://kel.example.com/"));

  // An already expired cookie deletes its namesake and is not stored.
  set({"session=gone; Max-Age=0", "never=1; Max-Age=-5"}, login, false);
  EXPECT_EQ("", cookieHeader(storage_, "wss://kel.example.com/"));

  // A Max-Age that is not a number is ignored; an absurdly large one does not overflow.
  set({"odd=1; Max-Age=12a", "huge=1; Max-Age=99999999999999999999999"}, login);
  now_ += 24h * 365 * 100;
  EXPECT_EQ("odd=1; huge=1", cookieHeader(storage_, "wss://kel.example.com/"));
}

TEST_F(HTTPCookieStorageTest, ASecondCookieOfTheSameNameDomainAndPathReplacesTheFirstInPlace) {
  // The last: another path, so another cookie.
  set({"a=1", "b=1", "a=2; Secure", "a=3; Path=/other"}, "https://kel.example.com/login");
  EXPECT_EQ("a=2; b=1", cookieHeader(storage_, "wss://kel.example.com/"));
  EXPECT_EQ("b=1", cookieHeader(storage_, "ws://kel.example.com/"));
  EXPECT_EQ(3u, storage_.allCookies().size());

  storage_.deleteCookie(storage_.cookies(url("wss://kel.example.com/")).front());
  EXPECT_EQ("b=1", cookieHeader(storage_, "wss://kel.example.com/"));
}

TEST_F(HTTPCookieStorageTest, MalformedValuesAreIgnoredAndOddOnesReadLeniently) {
  const auto login = "https://kel.example.com/login";
  set({"novalue", "=anonymous", "  ; a=1", "inject=1\r\nX-Evil: 1",
       std::string_view("nul=a\0b", 7)},
      login, false);
  set({"  token = a=b=c ;secure ; HTTPONLY;SameSite=Lax; Unknown", "empty=; Domain="}, login);

  EXPECT_EQ("token=a=b=c; empty=", cookieHeader(storage_, "wss://kel.example.com/"));
  EXPECT_EQ("empty=", cookieHeader(storage_, "ws://kel.example.com/"));  // secure was read
  EXPECT_EQ("", cookieHeader(storage_, "wss://a.kel.example.com/"));     // an empty Domain is none
}

TEST_F(HTTPCookieStorageTest, ConcurrentWritersAndReadersSeeWholeCookies) {
  const auto login = url("https://kel.example.com/login");
  std::atomic<bool> torn{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) {
        storage_.setCookie("c" + std::to_string(t) + "=" + std::to_string(i), login);
        for (const auto& cookie : storage_.cookies(url("wss://kel.example.com/"))) {
          if (cookie.name.size() != 2 || cookie.value.empty()) torn = true;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(torn);
  EXPECT_EQ(4u, storage_.allCookies().size());
}

TEST(CookieDate, ReadsTheFormatsServersUseAndRefusesDatesThatDoNotExist) {
  const auto expected = sys_days{std::chrono::year{2015} / 10 / 21} + 7h + 28min;
  for (const char* text : {
           "Wed, 21 Oct 2015 07:28:00 GMT",      // RFC 1123
           "Wednesday, 21-Oct-15 07:28:00 GMT",  // RFC 850
           "Wed Oct 21 07:28:00 2015",           // asctime
           "21 october 2015 7:28:0",             // lenient: any month spelling, short fields
           "2015-Oct-21 07:28:00 UTC+5",         // zones are not read: always UTC
       }) {
    EXPECT_EQ(expected, parseCookieDate(text)) << text;
  }
  EXPECT_EQ(sys_days{std::chrono::year{1999} / 1 / 2}, parseCookieDate("2 Jan 99 00:00:00"));
  EXPECT_EQ(sys_days{std::chrono::year{2069} / 1 / 2}, parseCookieDate("2 Jan 69 00:00:00"));
  // Beyond what system_clock holds: clamped rather than wrapped around.
  EXPECT_EQ(system_clock::time_point::max(), parseCookieDate("1 Jan 9999 00:00:00"));
  EXPECT_EQ(system_clock::time_point::min(), parseCookieDate("1 Jan 1601 00:00:00"));
  for (const char* text :
       {"", "Wed, 21 Oct 2015", "Wed, 21 Oct 07:28:00 GMT", "30 Feb 2024 00:00:00",
        "21 Oct 2015 24:00:00", "21 Oct 2015 07:60:00", "21 Oct 1600 00:00:00",
        "21 Oct 2015 007:28:00", "21 Foo 2015 07:28:00", "121 Oct 2015 07:28:00"}) {
    EXPECT_FALSE(parseCookieDate(text).has_value()) << text;
  }
}

}  // namespace
}  // namespace kel::platform
