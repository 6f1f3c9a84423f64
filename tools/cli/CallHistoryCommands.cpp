// `kel calls`: the conference log (every call with its outcome) and the missed calls.

#include <nlohmann/json.hpp>

#include "ServerClient/ConferenceLog/Service/ConferenceLogService.h"
#include "ServerClient/MissedCalls/Service/MissedCallsService.h"
#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Runner.h"

namespace kel::cli {

namespace {

constexpr int kDefaultLimit = 20;

std::string entryText(const ConferenceEntry& entry) {
  std::string text =
      entry.id + " " +
      std::string(rawValue(entry.type.value_or(ConferenceEntry::ConferenceType::unknown))) + ", " +
      std::string(rawValue(entry.state)) + ", " + instantText(entry.createdAt) + " to " +
      instantText(entry.finishedAt);
  for (const auto& invite : entry.invites) {
    text += ", " + invite.from + " -> " + invite.to + " " + std::string(rawValue(invite.state));
    if (invite.error) text += " (" + std::to_string(static_cast<int>(*invite.error)) + ")";
  }
  return text;
}

struct HistoryQuery {
  std::optional<std::chrono::system_clock::time_point> before;
  std::optional<std::chrono::system_clock::time_point> since;
  int limit = kDefaultLimit;
  bool descending = true;
};

HistoryQuery queryFrom(const Arguments& arguments, std::chrono::system_clock::time_point now) {
  HistoryQuery query;
  if (const auto text = arguments.value("--before")) {
    query.before = parseInstant("--before", *text, now);
  }
  if (const auto text = arguments.value("--since")) {
    query.since = parseInstant("--since", *text, now);
  }
  if (query.before && query.since && *query.since >= *query.before) {
    throw UsageError{"--since must come before --before"};
  }
  if (const auto text = arguments.value("--limit")) {
    query.limit = static_cast<int>(parseNumber("--limit", *text, 1, 1000));
  }
  query.descending = !arguments.has("--oldest-first");
  return query;
}

void checkHistory(const Arguments& arguments) {
  queryFrom(arguments, std::chrono::system_clock::now());
}

nlohmann::json history(Runner& runner, const Arguments& arguments) {
  const auto query = queryFrom(arguments, std::chrono::system_clock::now());
  runner.restore();
  const auto entries = runner.await(
      "conference log",
      runner.server()
          .conferenceLogService()
          ->conferencesEntries(query.before, query.since, query.limit, query.descending)
          .take(1)
          .asSingle());
  auto json = nlohmann::json::array();
  for (const auto& entry : entries) {
    runner.human(entryText(entry));
    json.push_back(conferenceEntryJson(entry));
  }
  if (entries.empty()) runner.human("no calls");
  return {{"entries", std::move(json)}};
}

nlohmann::json missed(Runner& runner, const Arguments&) {
  const auto data = runner.restore();
  const auto calls = runner.await(
      "missed calls",
      runner.server().missedCallsService()->getMissedCalls(MissedCallsRequest{data.user.userId}));
  auto items = calls.data.value_or(MissedCallsDTO::MissedCallData{})
                   .items.value_or(std::vector<MissedCallItemDTO>{});
  for (const auto& item : items) runner.human("missed call " + item.id.value_or("(no id)"));
  if (items.empty()) runner.human("no missed calls");
  return {{"missedCalls", items}};
}

nlohmann::json markRead(Runner& runner, const Arguments& arguments) {
  const auto& call = arguments.operands.front();
  const auto data = runner.restore();
  runner.await("mark missed calls read", runner.server().missedCallsService()->setReadMissedCalls(
                                             MissedCallsReadRequest{data.user.userId, call}));
  runner.human("missed calls up to " + call + " marked read");
  return {{"callId", call}};
}

}  // namespace

const CommandGroup& callHistoryCommands() {
  static const CommandGroup group{
      "Call history",
      {
          {.words = {"calls", "history"},
           .flags = {{"--before", "TIME"},
                     {"--since", "TIME"},
                     {"--limit", "N"},
                     {"--oldest-first", ""}},
           .summary =
               "your conference log: at most N calls (default 20) made before and since the\n"
               "TIMEs given (as for meetings create), newest first unless --oldest-first",
           .check = checkHistory,
           .run = history},
          {.words = {"calls", "missed"},
           .summary = "your unread missed calls, oldest first",
           .run = missed},
          {.words = {"calls", "mark-read"},
           .operands = "CALL_ID",
           .minOperands = 1,
           .maxOperands = 1,
           .summary = "mark your missed calls read up to and including CALL_ID",
           .run = markRead},
      }};
  return group;
}

}  // namespace kel::cli
