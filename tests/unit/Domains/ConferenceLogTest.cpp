#include <gtest/gtest.h>

#include "ServerClient/ConferenceLog/Service/KelConferenceLogService.h"
#include "ServerClient/Utils/Description.h"
#include "support/OperationTable.h"

namespace kel {
namespace {

using namespace testing::tables;
using Entry = ConferenceEntry;

json entry() {
  return json::parse(R"({"id": "c1", "roomId": "r1", "state": "active", "type": "meeting",
      "createdAt": 1700000000000, "finishedAt": 1700000060000.5,
      "invites": [{"from": "u1", "to": "u2", "state": "ACCEPTED", "group": false,
                   "candidates": [{"address": "kel-user:u2", "endReason": 486}],
                   "mediatypes": {"audio": true, "video": false}}],
      "participants": [{"address": "kel-user:u1", "createdAt": 1}],
      "transfers": [{"from": "u1", "to": "u3", "state": "DECLINED_BY_TIMEOUT", "idInvite": "i1"}]})");
}

Entry decodedWith(const json::json_pointer& pointer, const json& value) {
  auto changed = entry();
  if (value.is_discarded()) {
    changed[pointer.parent_pointer()].erase(pointer.back());
  } else {
    changed[pointer] = value;
  }
  return from<Entry>(changed.dump());
}

TEST(ConferenceLogRecords, DecodeTheirEnumerationsTolerantlyAndEverythingElseStrictly) {
  const auto full = from<Entry>(entry().dump());
  EXPECT_EQ(Entry::ConferenceState::active, full.state);
  EXPECT_EQ(std::optional(Entry::ConferenceType::meeting), full.type);
  EXPECT_EQ(Entry::CallState::accepted, full.invites.at(0).state);
  EXPECT_EQ((std::map<std::string, bool>{{"audio", true}, {"video", false}}),
            full.invites.at(0).mediatypes);
  EXPECT_EQ(std::nullopt, full.participants.at(0).finishedAt);
  EXPECT_EQ(Entry::CallState::timeout, full.transfers.at(0).state);
  EXPECT_NE(std::string::npos, description(full).find("state: active\n"));
  EXPECT_NE(std::string::npos, description(full).find("endReason: busy"));

  const auto discarded = json(json::value_t::discarded);
  using P = json::json_pointer;
  struct Row {
    P pointer;
    json value;
    std::function<bool(const Entry&)> holds;
  };
  for (const auto& row : std::vector<Row>{
           {P("/state"), "closed",
            [](auto& e) { return e.state == Entry::ConferenceState::finished; }},
           {P("/type"), discarded, [](auto& e) { return !e.type; }},
           {P("/type"), nullptr, [](auto& e) { return !e.type; }},
           {P("/type"), "webinar",
            [](auto& e) { return e.type == Entry::ConferenceType::unknown; }},
           {P("/invites/0/error"), 486,
            [](auto& e) { return e.invites[0].error == ConferenceCode::busy; }},
           {P("/invites/0/error"), 404, [](auto& e) { return !e.invites[0].error; }},
           {P("/invites/0/error"), "486", [](auto& e) { return !e.invites[0].error; }},
           {P("/invites/0/candidates/0/endReason"), 404,
            [](auto& e) { return e.invites[0].candidates[0].endReason == ConferenceCode::ok; }},
           {P("/invites/0/candidates/0/endReason"), "busy",
            [](auto& e) { return e.invites[0].candidates[0].endReason == ConferenceCode::ok; }},
           {P("/invites/0/state"), "RINGING",
            [](auto& e) { return e.invites[0].state == Entry::CallState::unknown; }},
           {P("/participants/0/finishedAt"), 5,
            [](auto& e) { return e.participants[0].finishedAt == 5.0; }},
       }) {
    SCOPED_TRACE(row.pointer.to_string() + " " + row.value.dump());
    EXPECT_TRUE(row.holds(decodedWith(row.pointer, row.value)));
  }
  for (const auto& [pointer, value] : std::vector<std::pair<P, json>>{
           {P("/state"), 1},
           {P("/type"), 2},
           {P("/invites/0/state"), nullptr},
           {P("/invites/0/candidates/0/endReason"), discarded},
           {P("/transfers/0/state"), true},
           {P("/transfers/0/idInvite"), discarded},
           {P("/createdAt"), "1700000000000"},
       }) {
    SCOPED_TRACE(pointer.to_string() + " " + value.dump());
    EXPECT_THROW(decodedWith(pointer, value), GenericError);
  }
  EXPECT_EQ(ConferenceCode::ok, decodeConferenceCode(json::object()));
}

/// The entries' ids, which stand for the decoded list in the operation table.
rx::Observable<std::vector<std::string>> ids(rx::Observable<std::vector<Entry>> entries) {
  return entries.map([](const std::vector<Entry>& list) {
    std::vector<std::string> result;
    for (const auto& e : list) result.push_back(e.id);
    return result;
  });
}

TEST(ConferenceLogService, SendsItsBoundsAndOrderAndFailsTheWholeListForOneBadEntry) {
  const auto before = std::chrono::system_clock::time_point{} +
                      std::chrono::milliseconds(1700000000000) + std::chrono::microseconds(999);
  auto broken = entry();
  broken.erase("roomId");
  testing::runOperationTable<KelConferenceLogService>({
      {"newest first, unbounded",
       [](auto& s) { return outcome(ids(s.conferencesEntries({}, {}, 20, true))); },
       frame("GET", "/conferences?limit=20&sortBy=createdAt.desc", json::object()),
       Reply::withBody({entry()}), json::array({"c1"})},
      {"oldest first, bounded",
       [&](auto& s) {
         return outcome(ids(s.conferencesEntries(before, decltype(before){}, 5, false)));
       },
       frame("GET",
             "/conferences?createdAtBefore=1700000000000&createdAtSince=0&limit=5&sortBy=createdAt."
             "asc",
             json::object()),
       Reply::withBody({entry(), broken}), kUndecodable},
  });
}

}  // namespace
}  // namespace kel
