#pragma once

// The conference log and the missed calls. Nobody calls through the emulator, so calls are placed
// by the operator (placeCall, the control request POST /emulator/calls, or the fixture's "calls"):
// a call from one user to another that ends answered, declined, busy, cancelled by the caller or
// missed (unanswered until the ringing timed out). A call ends when it is placed: it lasted
// `duration` up to the clock's now.
//
// Each call adds one conference-log entry for both users:
//
//   {"id": "conference-<n>", "roomId": "room-<n>", "state": "finished", "type": "call",
//    "createdAt", "finishedAt" (milliseconds),
//    "invites": [{"from": "kel-user:<caller>", "to": "kel-user:<callee>", "group": false,
//                 "candidates": [{"address": "kel-user:<callee>", "endReason": <code>}],
//                 "state": <state>, "error"?: <code>, "mediatypes": {"audio": true, "video"}}],
//    "participants": [{"address", "createdAt", "finishedAt"}, ...], "transfers": []}
//
//   outcome    code  invitation state         participants
//   answered   200   ACCEPTED (no "error")    caller, callee
//   declined   603   DECLINED                 caller
//   busy       486   DECLINED                 caller
//   cancelled  487   DECLINED_BY_CREATOR      caller
//   missed     408   DECLINED_BY_TIMEOUT      caller
//
// A missed call also becomes the callee's missed call {"id": "missed-<n>", "conferenceId",
// "from": "kel-user:<caller>", "createdAt"}.
//
//   GET  /conferences?limit=&createdAtBefore=&createdAtSince=&sortBy=createdAt.desc|asc
//                          the requester's entries created before / since (milliseconds), at most
//                          `limit` (default 20), newest first unless sortBy says asc
//   GET  /missedCalls/<me>                     {"data": {"items": [missed call, ...]}}, oldest
//                                              first; another user's: 403
//   POST /missedCalls/<me>/read?last=<id>      forgets that missed call and those before it;
//                                              404 for an unknown id
//
// Events of a call: "POST" "/conferences" with the entry to caller and callee; when missed,
// "PUT" "/missedCalls/<callee>" {"items": [the new missed call]} to the callee.

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/HttpRouter.h"
#include "emulator/ResourceRouter.h"
#include "emulator/domains/Domain.h"

namespace kel::emulator {

enum class CallOutcome { answered, declined, busy, cancelled, missed };

/// "answered", "declined", "busy", "cancelled", "missed".
std::optional<CallOutcome> callOutcomeNamed(std::string_view name);

struct PlacedCall {
  std::string from;
  std::string to;
  CallOutcome outcome = CallOutcome::answered;
  /// From the first ring to the end of the call.
  std::chrono::milliseconds duration{0};
  bool video = false;
};

class CallHistory {
 public:
  CallHistory(DomainContext context, const DomainClock& clock);

  CallHistory(const CallHistory&) = delete;
  CallHistory& operator=(const CallHistory&) = delete;

  void install(ResourceRouter& resources);
  /// POST /emulator/calls {"from", "to", "outcome", "durationSeconds"?, "video"?}: places the
  /// call and answers 200 with its entry; 400 for a malformed body, 404 for an unknown user.
  void installControl(HttpRouter& http);

  /// Places the call, pushing its events; returns its conference-log entry. Throws
  /// std::invalid_argument for an unknown user, a call to oneself or a negative duration.
  nlohmann::json placeCall(const PlacedCall& call);

  /// Every entry, oldest first.
  std::vector<nlohmann::json> entries() const;
  /// The user's missed calls, oldest first.
  std::vector<nlohmann::json> missedCalls(std::string_view userId) const;

  /// The fixture's "calls": [{"from", "to", "outcome", "durationSeconds"?, "endedAt"?
  /// (milliseconds; default now), "video"?}, ...], recorded without events. Missed ones stay
  /// unread.
  static void checkFixture(const nlohmann::json& part, const UserIds& users);
  void loadFixture(const nlohmann::json& part);

 private:
  struct Entry {
    std::string caller;
    std::string callee;
    nlohmann::json json;
  };

  /// Checks {"from", "to", "outcome", "durationSeconds"?, "video"?} (Refusal 400).
  static PlacedCall readCall(const nlohmann::json& call, std::string_view where);
  nlohmann::json record(const PlacedCall& call, TimePoint endedAt, bool notify);

  Reply conferences(const ResourceRequest& request);
  Reply missed(const ResourceRequest& request);
  Reply markRead(const ResourceRequest& request);

  DomainContext context_;
  const DomainClock& clock_;
  mutable std::mutex mutex_;  // guards entries_, missed_ and created_
  std::vector<Entry> entries_;
  std::map<std::string, std::vector<nlohmann::json>, std::less<>> missed_;  // by callee
  std::uint64_t created_ = 0;
};

}  // namespace kel::emulator
