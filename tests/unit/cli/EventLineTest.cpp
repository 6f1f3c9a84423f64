// What `kel watch` prints for each event: the domain's record, the body itself for domains
// without one, and an error in place of a record that does not decode.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "cli/Output.h"

namespace kel::cli {
namespace {

TEST(KelEventLineTest, DecodesEachDomainsRecordAndReportsWhatDoesNotDecode) {
  using nlohmann::json;
  struct Case {
    DomainEvent domain;
    std::string method;
    std::optional<std::string> param;
    std::string body;
    json expected;  // the record, or the error's kind under "error"
  };
  const std::vector<Case> cases = {
      {DomainEvent::addressBooks,
       "POST",
       "contacts-a",
       R"({"addressBookId": "b1", "addressBookType": "contacts", "unknown": 1,
           "contact": {"id": "c1", "name": "A", "favorite": false}})",
       {{"record",
         {{"addressBookId", "b1"},
          {"addressBookType", "contacts"},
          {"contact", {{"id", "c1"}, {"name", "A"}, {"favorite", false}}}}}}},
      {DomainEvent::presence,
       "PUT",
       std::nullopt,
       R"({"address": "kel-user:a", "online": true, "unknown": 1})",
       {{"record", {{"address", "kel-user:a"}, {"online", true}}}}},
      {DomainEvent::group,
       "DELETE",
       std::nullopt,
       R"({"groupId": "g1", "name": "x"})",
       {{"record", {{"groupId", "g1"}}}}},
      {DomainEvent::participantInGroup,
       "DELETE",
       std::nullopt,
       R"({"groupId": 7})",
       {{"error", "generic/decoding"}}},
      {DomainEvent::group,
       "POST",
       std::nullopt,
       R"({"groupId": "g1"})",
       {{"error", "generic/decoding"}}},
      {DomainEvent::addressBooks,
       "POST",
       std::nullopt,
       R"({"addressBookType": "friends"})",
       {{"error", "generic/decoding"}}},
      {DomainEvent::meetings,
       "POST",
       "m1",
       R"({"id": "m1", "name": "Board", "user": {"id": "u1", "domain": "d", "email": "u1@d",
           "username": "u1", "alias": "U", "role": "user", "mobilePhone": []},
           "participants": [{"email": "b@d", "userId": "u2"}], "validSince": 1700000000000,
           "validUntil": 1700003600000, "url": "https://m/m1", "isPasswordProtected": true,
           "record": {"type": "all"}})",
       // The owner comes first among the participants, as the library decodes a meeting.
       {{"record", json::parse(R"({"id": "m1", "name": "Board", "url": "https://m/m1",
           "user": {"id": "u1", "domain": "d", "email": "u1@d", "username": "u1", "alias": "U",
                    "role": "user", "mobilePhone": []},
           "participants": [{"email": "u1@d", "userId": "u1"}, {"email": "b@d", "userId": "u2"}],
           "validSince": 1700000000000, "validUntil": 1700003600000,
           "isPasswordProtected": true, "record": {"type": "all"}})")}}},
      {DomainEvent::conferences,
       "POST",
       std::nullopt,
       R"({"id": "c1", "roomId": "r1", "state": "finished", "createdAt": 1700000000000,
           "finishedAt": 1700000030000, "type": "call", "transfers": [],
           "invites": [{"from": "u1", "to": "u2", "state": "DECLINED_BY_TIMEOUT", "group": false,
                        "error": 408, "mediatypes": {"audio": true},
                        "candidates": [{"address": "kel-user:u2", "endReason": 408}]}],
           "participants": [{"address": "kel-user:u1", "createdAt": 1700000000000}]})",
       {{"record", json::parse(R"({"id": "c1", "roomId": "r1", "state": "finished",
           "createdAt": 1700000000000.0, "finishedAt": 1700000030000.0, "type": "call",
           "transfers": [],
           "invites": [{"from": "u1", "to": "u2", "state": "DECLINED_BY_TIMEOUT", "group": false,
                        "error": 408, "mediatypes": {"audio": true},
                        "candidates": [{"address": "kel-user:u2", "endReason": 408}]}],
           "participants": [{"address": "kel-user:u1", "createdAt": 1700000000000.0}]})")}}},
      {DomainEvent::missedCalls,
       "PUT",
       "u2",
       R"({"items": [{"id": "x1", "from": "u1"}]})",
       {{"record", json::parse(R"({"items": [{"id": "x1"}]})")}}},
      {DomainEvent::alerts,
       "PUT",
       std::nullopt,
       R"({"alertId": "a1", "from": "u1", "title": "Fire", "payload": "Go", "createdAt": 1,
           "acceptedBy": "u2", "cancelled": false})",
       {{"record", json::parse(R"({"alertId": "a1", "from": "u1", "title": "Fire",
           "payload": "Go", "createdAt": 1.0, "acceptedBy": "u2", "cancelled": false})")}}},
      {DomainEvent::alerts,
       "POST",
       std::nullopt,
       R"({"alertId": "a1"})",
       {{"error", "generic/decoding"}}},
      // The chat is the path's, whatever the body says.
      {DomainEvent::xmppIndividualChatList,
       "DELETE",
       "b@d",
       R"({"jid": "other@d"})",
       {{"record", {{"jid", "b@d"}}}}},
      // Events without a record here: the body, without its secrets.
      {DomainEvent::meetings,
       "DELETE",
       "a1",
       R"({"id": "a1", "token": "MARK", "list": [{"apiKey": {"k": "MARK"}}]})",
       {{"record",
         {{"id", "a1"}, {"token", "<redacted>"}, {"list", {{{"apiKey", "<redacted>"}}}}}}}},
      {DomainEvent::unkwown, "PATCH", std::nullopt, R"([1, "two"])", {{"record", {1, "two"}}}},
  };
  for (const auto& c : cases) {
    const auto line = eventJson(KelEvent{json::parse(c.body).dump(2), c.domain, c.method, c.param});
    const auto what = std::string(domainName(c.domain)) + " " + c.method + " " + c.body;
    EXPECT_EQ(domainName(c.domain), line["domain"]) << what;
    EXPECT_EQ(c.method, line["method"]) << what;
    EXPECT_EQ(c.param ? json(*c.param) : json(), line["param"]) << what;
    if (c.expected.contains("record")) {
      EXPECT_EQ(c.expected["record"], line["record"]) << what << "\n" << line;
      EXPECT_FALSE(line.contains("error")) << what;
    } else {
      EXPECT_EQ(c.expected["error"], line["error"]["kind"]) << what << "\n" << line;
      EXPECT_FALSE(line.contains("record")) << what;
    }
  }
}

}  // namespace
}  // namespace kel::cli
