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
      // Domains without a record here: the body, without its secrets.
      {DomainEvent::alerts,
       "POST",
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
