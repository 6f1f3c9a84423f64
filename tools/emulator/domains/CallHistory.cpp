#include "emulator/domains/CallHistory.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace kel::emulator {

using nlohmann::json;

namespace {

constexpr std::size_t kDefaultLimit = 20;

struct OutcomeRow {
  std::string_view name;
  CallOutcome outcome;
  int code;
  std::string_view state;
};

constexpr OutcomeRow kOutcomes[] = {
    {"answered", CallOutcome::answered, 200, "ACCEPTED"},
    {"declined", CallOutcome::declined, 603, "DECLINED"},
    {"busy", CallOutcome::busy, 486, "DECLINED"},
    {"cancelled", CallOutcome::cancelled, 487, "DECLINED_BY_CREATOR"},
    {"missed", CallOutcome::missed, 408, "DECLINED_BY_TIMEOUT"},
};

const OutcomeRow& row(CallOutcome outcome) {
  for (const auto& row : kOutcomes) {
    if (row.outcome == outcome) return row;
  }
  return kOutcomes[0];
}

std::string address(std::string_view userId) {
  return std::string(kUserAddressPrefix) + std::string(userId);
}

/// A query value that must be a whole number when present.
std::optional<std::int64_t> integerQuery(const ResourceRequest& request, std::string_view key) {
  const auto text = request.queryValue(key);
  if (!text) return std::nullopt;
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (error != std::errc() || end != text->data() + text->size()) {
    throw Refusal(400, std::string(key) + " must be a whole number");
  }
  return value;
}

}  // namespace

std::optional<CallOutcome> callOutcomeNamed(std::string_view name) {
  for (const auto& row : kOutcomes) {
    if (row.name == name) return row.outcome;
  }
  return std::nullopt;
}

CallHistory::CallHistory(DomainContext context, const DomainClock& clock)
    : context_(std::move(context)), clock_(clock) {}

void CallHistory::install(ResourceRouter& resources) {
  resources.route("GET", "/conferences",
                  refusing([this](const ResourceRequest& r) { return conferences(r); }));
  resources.route("GET", "/missedCalls/:userId",
                  refusing([this](const ResourceRequest& r) { return missed(r); }));
  resources.route("POST", "/missedCalls/:userId/read",
                  refusing([this](const ResourceRequest& r) { return markRead(r); }));
}

void CallHistory::installControl(HttpRouter& http) {
  http.route("POST", "/emulator/calls", [this](const HttpRequest& request) {
    const auto body = request.json();
    if (!body) return HttpResponse::message(400, "the body must be JSON");
    try {
      const auto call = readCall(*body, "");
      for (const auto& user : {call.from, call.to}) {
        if (!context_.knows(user)) return HttpResponse::message(404, "no user " + user);
      }
      return HttpResponse::json(200, placeCall(call));
    } catch (const Refusal& refusal) {
      return HttpResponse::message(refusal.status(), refusal.what());
    } catch (const std::invalid_argument& e) {
      return HttpResponse::message(400, e.what());
    }
  });
}

PlacedCall CallHistory::readCall(const json& call, std::string_view where) {
  onlyKnownKeys(call, {"from", "to", "outcome", "durationSeconds", "video", "endedAt"}, where);
  PlacedCall placed;
  placed.from = identifier(call, "from", where);
  placed.to = identifier(call, "to", where);
  if (placed.from == placed.to) throw Refusal(400, memberName(where, "to") + " is the caller");
  const auto outcome = callOutcomeNamed(text(call, "outcome", where));
  if (!outcome) {
    throw Refusal(400, memberName(where, "outcome") +
                           " must be answered, declined, busy, cancelled or missed");
  }
  placed.outcome = *outcome;
  if (const auto* seconds = member(call, "durationSeconds", JsonKind::integer, where, false)) {
    if (*seconds < 0 || *seconds > 86'400) {
      throw Refusal(400, memberName(where, "durationSeconds") + " must be 0 to 86400");
    }
    placed.duration = std::chrono::seconds(seconds->get<std::int64_t>());
  }
  if (const auto* video = member(call, "video", JsonKind::boolean, where, false)) {
    placed.video = video->get<bool>();
  }
  optionalInstant(call, "endedAt", where);
  return placed;
}

json CallHistory::placeCall(const PlacedCall& call) {
  if (!context_.knows(call.from)) throw std::invalid_argument("no user " + call.from);
  if (!context_.knows(call.to)) throw std::invalid_argument("no user " + call.to);
  if (call.from == call.to) throw std::invalid_argument("a user does not call themselves");
  if (call.duration.count() < 0) throw std::invalid_argument("a call lasts no negative time");
  return record(call, clock_.now(), true);
}

json CallHistory::record(const PlacedCall& call, TimePoint endedAt, bool notify) {
  const auto& outcome = row(call.outcome);
  const auto finishedAt = millis(endedAt);
  const auto createdAt = finishedAt - call.duration.count();
  std::lock_guard lock(mutex_);
  const auto n = std::to_string(++created_);
  json invite = {{"from", address(call.from)},
                 {"to", address(call.to)},
                 {"candidates", {{{"address", address(call.to)}, {"endReason", outcome.code}}}},
                 {"state", outcome.state},
                 {"group", false},
                 {"mediatypes", {{"audio", true}, {"video", call.video}}}};
  if (call.outcome != CallOutcome::answered) invite["error"] = outcome.code;
  json participants = json::array();
  participants.push_back(
      {{"address", address(call.from)}, {"createdAt", createdAt}, {"finishedAt", finishedAt}});
  if (call.outcome == CallOutcome::answered) {
    participants.push_back(
        {{"address", address(call.to)}, {"createdAt", createdAt}, {"finishedAt", finishedAt}});
  }
  json entry = {{"id", "conference-" + n},
                {"roomId", "room-" + n},
                {"state", "finished"},
                {"createdAt", createdAt},
                {"finishedAt", finishedAt},
                {"invites", {std::move(invite)}},
                {"participants", std::move(participants)},
                {"transfers", json::array()},
                {"type", "call"}};
  entries_.push_back(Entry{call.from, call.to, entry});
  if (notify) {
    for (const auto& user : {call.from, call.to}) {
      context_.push(Recipients::user(user), "/conferences", "POST", entry);
    }
  }
  if (call.outcome == CallOutcome::missed) {
    json item = {{"id", "missed-" + n},
                 {"conferenceId", entry["id"]},
                 {"from", address(call.from)},
                 {"createdAt", createdAt}};
    missed_[call.to].push_back(item);
    if (notify) {
      context_.push(Recipients::user(call.to), "/missedCalls/" + call.to, "PUT",
                    {{"items", {std::move(item)}}});
    }
  }
  return entry;
}

Reply CallHistory::conferences(const ResourceRequest& request) {
  requireExactPath(request);
  const auto limit = integerQuery(request, "limit");
  if (limit && *limit < 0) throw Refusal(400, "limit must not be negative");
  const auto before = integerQuery(request, "createdAtBefore");
  const auto since = integerQuery(request, "createdAtSince");
  const auto sortBy = request.queryValue("sortBy").value_or("createdAt.desc");
  if (sortBy != "createdAt.desc" && sortBy != "createdAt.asc") {
    throw Refusal(400, "sortBy must be createdAt.desc or createdAt.asc");
  }
  std::vector<json> found;
  {
    std::lock_guard lock(mutex_);
    for (const auto& entry : entries_) {
      if (entry.caller != request.userId && entry.callee != request.userId) continue;
      const auto createdAt = entry.json["createdAt"].get<std::int64_t>();
      if ((before && createdAt >= *before) || (since && createdAt < *since)) continue;
      found.push_back(entry.json);
    }
  }
  const auto createdAt = [](const json& entry) { return entry["createdAt"].get<std::int64_t>(); };
  std::stable_sort(found.begin(), found.end(), [&](const json& a, const json& b) {
    return sortBy == "createdAt.asc" ? createdAt(a) < createdAt(b) : createdAt(a) > createdAt(b);
  });
  const auto count =
      std::min<std::size_t>(found.size(), limit ? static_cast<std::size_t>(*limit) : kDefaultLimit);
  return Reply::ok(json(std::vector<json>(found.begin(), found.begin() + count)));
}

Reply CallHistory::missed(const ResourceRequest& request) {
  requireExactPath(request);
  const auto userId = *request.param("userId");
  if (userId != request.userId) throw Refusal(403, "only a user reads their missed calls");
  return Reply::ok({{"data", {{"items", missedCalls(userId)}}}});
}

Reply CallHistory::markRead(const ResourceRequest& request) {
  requireExactPath(request);
  const auto userId = *request.param("userId");
  if (userId != request.userId) throw Refusal(403, "only a user marks their missed calls read");
  const auto last = request.queryValue("last");
  if (!last || last->empty()) throw Refusal(400, "last must name a missed call");
  std::lock_guard lock(mutex_);
  auto& items = missed_[userId];
  const auto found = std::find_if(items.begin(), items.end(),
                                  [&](const json& item) { return item["id"] == *last; });
  if (found == items.end()) throw Refusal(404, "no missed call " + *last);
  items.erase(items.begin(), found + 1);
  return Reply::ok();
}

std::vector<json> CallHistory::entries() const {
  std::lock_guard lock(mutex_);
  std::vector<json> all;
  for (const auto& entry : entries_) all.push_back(entry.json);
  return all;
}

std::vector<json> CallHistory::missedCalls(std::string_view userId) const {
  std::lock_guard lock(mutex_);
  const auto found = missed_.find(userId);
  return found == missed_.end() ? std::vector<json>{} : found->second;
}

void CallHistory::checkFixture(const json& part, const UserIds& users) {
  if (!part.is_array()) throw Refusal(400, "\"calls\" must be a list");
  for (std::size_t i = 0; i < part.size(); ++i) {
    const auto where = entryWhere("", "calls", i);
    const auto call = readCall(part[i], where);
    for (const auto* key : {"from", "to"}) {
      const auto user = part[i][key].get<std::string>();
      if (!users.contains(user)) {
        throw Refusal(400, memberName(where, key) + ": no user \"" + user + "\"");
      }
    }
  }
}

void CallHistory::loadFixture(const json& part) {
  for (const auto& entry : part) {
    const auto endedAt = optionalInstant(entry, "endedAt", "");
    record(readCall(entry, ""), endedAt ? fromMillis(*endedAt) : clock_.now(), false);
  }
}

}  // namespace kel::emulator
