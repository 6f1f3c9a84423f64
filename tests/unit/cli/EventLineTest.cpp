// What `kel watch` prints for each event: the domain's record, the body itself for domains
// without one, and an error in place of a record that does not decode.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "cli/Output.h"

namespace kel::cli {
namespace {

TEST(KelEventLineTest, DecodesEachDomainsRecordAndReportsWhatDoesNotDecode) {
  using nlohmann::json;
  using D = DomainEvent;
  struct Case {
    DomainEvent domain;
    std::string method;
    std::optional<std::string> param;
    std::string body;
    std::string expected;  // the record, or the error's kind under "error"
  };
  const std::string fails = R"({"error": "generic/decoding"})";
  const std::optional<std::string> none;
  const std::vector<Case> cases = {
      {D::addressBooks, "POST", "contacts-a",
       R"({"addressBookId": "b1", "addressBookType": "contacts", "unknown": 1,
           "contact": {"id": "c1", "name": "A", "favorite": false}})",
       R"({"record": {"addressBookId": "b1", "addressBookType": "contacts",
                      "contact": {"id": "c1", "name": "A", "favorite": false}}})"},
      {D::presence, "PUT", none, R"({"address": "kel-user:a", "online": true, "unknown": 1})",
       R"({"record": {"address": "kel-user:a", "online": true}})"},
      {D::group, "DELETE", none, R"({"groupId": "g1", "name": "x"})",
       R"({"record": {"groupId": "g1"}})"},
      {D::participantInGroup, "DELETE", none, R"({"groupId": 7})", fails},
      {D::group, "POST", none, R"({"groupId": "g1"})", fails},
      {D::addressBooks, "POST", none, R"({"addressBookType": "friends"})", fails},
      // The owner comes first among the participants, as the library decodes a meeting.
      {D::meetings, "POST", "m1",
       R"({"id": "m1", "name": "Board", "user": {"id": "u1", "domain": "d", "email": "u1@d",
           "username": "u1", "alias": "U", "role": "user", "mobilePhone": []},
           "participants": [{"email": "b@d", "userId": "u2"}], "validSince": 1700000000000,
           "validUntil": 1700003600000, "url": "https://m/m1", "isPasswordProtected": true,
           "record": {"type": "all"}})",
       R"({"record": {"id": "m1", "name": "Board", "url": "https://m/m1",
           "user": {"id": "u1", "domain": "d", "email": "u1@d", "username": "u1", "alias": "U",
                    "role": "user", "mobilePhone": []},
           "participants": [{"email": "u1@d", "userId": "u1"}, {"email": "b@d", "userId": "u2"}],
           "validSince": 1700000000000, "validUntil": 1700003600000,
           "isPasswordProtected": true, "record": {"type": "all"}}})"},
      {D::conferences, "POST", none,
       R"({"id": "c1", "roomId": "r1", "state": "finished", "createdAt": 1700000000000,
           "finishedAt": 1700000030000, "type": "call", "transfers": [],
           "invites": [{"from": "u1", "to": "u2", "state": "DECLINED_BY_TIMEOUT", "group": false,
                        "error": 408, "mediatypes": {"audio": true},
                        "candidates": [{"address": "kel-user:u2", "endReason": 408}]}],
           "participants": [{"address": "kel-user:u1", "createdAt": 1700000000000}]})",
       R"({"record": {"id": "c1", "roomId": "r1", "state": "finished",
           "createdAt": 1700000000000.0, "finishedAt": 1700000030000.0, "type": "call",
           "transfers": [],
           "invites": [{"from": "u1", "to": "u2", "state": "DECLINED_BY_TIMEOUT", "group": false,
                        "error": 408, "mediatypes": {"audio": true},
                        "candidates": [{"address": "kel-user:u2", "endReason": 408}]}],
           "participants": [{"address": "kel-user:u1", "createdAt": 1700000000000.0}]}})"},
      {D::missedCalls, "PUT", "u2", R"({"items": [{"id": "x1", "from": "u1"}]})",
       R"({"record": {"items": [{"id": "x1"}]}})"},
      {D::alerts, "PUT", none,
       R"({"alertId": "a1", "from": "u1", "title": "Fire", "payload": "Go", "createdAt": 1,
           "acceptedBy": "u2", "cancelled": false})",
       R"({"record": {"alertId": "a1", "from": "u1", "title": "Fire", "payload": "Go",
           "createdAt": 1.0, "acceptedBy": "u2", "cancelled": false}})"},
      {D::alerts, "POST", none, R"({"alertId": "a1"})", fails},
      // The chat is the path's, whatever the body says.
      {D::xmppIndividualChatList, "DELETE", "b@d", R"({"jid": "other@d"})",
       R"({"record": {"jid": "b@d"}})"},
      // Events without a record here: the body, without its secrets.
      {D::meetings, "DELETE", "a1",
       R"({"id": "a1", "token": "MARK", "list": [{"apiKey": {"k": "MARK"}}]})",
       R"({"record": {"id": "a1", "token": "<redacted>", "list": [{"apiKey": "<redacted>"}]}})"},
      {D::unkwown, "PATCH", none, R"([1, "two"])", R"({"record": [1, "two"]})"},
  };
  for (const auto& c : cases) {
    const auto line =
        eventJson(KelEvent{json::parse(c.body).dump(2), c.domain, c.method, c.param, nullptr});
    const auto what = std::string(domainName(c.domain)) + " " + c.method + " " + c.body;
    const auto expected = json::parse(c.expected);
    EXPECT_EQ(domainName(c.domain), line["domain"]) << what;
    EXPECT_EQ(c.method, line["method"]) << what;
    EXPECT_EQ(c.param ? json(*c.param) : json(), line["param"]) << what;
    if (expected.contains("record")) {
      EXPECT_EQ(expected["record"], line["record"]) << what << "\n" << line;
      EXPECT_FALSE(line.contains("error")) << what;
    } else {
      EXPECT_EQ(expected["error"], line["error"]["kind"]) << what << "\n" << line;
      EXPECT_FALSE(line.contains("record")) << what;
    }
  }
}

}  // namespace
}  // namespace kel::cli
