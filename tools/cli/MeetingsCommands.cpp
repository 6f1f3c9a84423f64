// `kel meetings`: scheduled conference rooms, the people invited to them, and searches.

#include <nlohmann/json.hpp>

#include "ServerClient/Meeting/Service/MeetingsService.h"
#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Runner.h"

namespace kel::cli {

namespace {

constexpr std::string_view kDefaultLanguage = "en";

std::string meetingText(const Meeting& meeting) {
  std::string participants;
  for (const auto& participant : meeting.participants) {
    std::string who = participant.email.value_or(participant.phone.value_or("?"));
    if (participant.userId) who += " (user " + *participant.userId + ")";
    participants += (participants.empty() ? "" : ", ") + who;
  }
  return meeting.id + " \"" + meeting.name + "\", owner " + meeting.user.userId + ", " +
         instantText(meeting.validSince) + " to " + instantText(meeting.validUntil) + ", " +
         meeting.url + (meeting.isPasswordProtected ? ", with password" : "") +
         (meeting.record.isActive() ? ", recorded" : "") +
         ", participants: " + (participants.empty() ? "(none)" : participants);
}

/// "--phone NUMBER[:sms]": the number, and whether it gets its invitation by SMS.
MeetingInvitation::Participant phoneParticipant(const std::string& text) {
  MeetingInvitation::Participant participant;
  std::string number = text;
  if (const auto colon = text.find(':'); colon != std::string::npos) {
    if (text.substr(colon + 1) != "sms") {
      throw UsageError{"--phone: expected NUMBER or NUMBER:sms, got \"" + text + "\""};
    }
    number = text.substr(0, colon);
    participant.sendSMS = true;
  }
  if (number.empty()) throw UsageError{"--phone: empty number"};
  participant.phone = number;
  return participant;
}

/// The invitation the options describe; NAME is the last operand. Instants are relative to `now`.
MeetingInvitation invitationFrom(const Arguments& arguments,
                                 std::chrono::system_clock::time_point now) {
  std::vector<MeetingInvitation::Participant> participants;
  for (const auto& email : arguments.values("--email")) {
    if (email.empty()) throw UsageError{"--email: empty address"};
    MeetingInvitation::Participant participant;
    participant.email = email;
    participants.push_back(std::move(participant));
  }
  for (const auto& phone : arguments.values("--phone")) {
    participants.push_back(phoneParticipant(phone));
  }
  const auto since =
      parseInstant("--valid-since", arguments.value("--valid-since").value_or("now"), now);
  std::optional<std::chrono::system_clock::time_point> until;
  if (const auto text = arguments.value("--valid-until")) {
    until = parseInstant("--valid-until", *text, now);
    if (*until <= since) throw UsageError{"--valid-until must come after --valid-since"};
  }
  std::optional<bool> sendInvites;
  if (arguments.has("--send-invites") && arguments.has("--no-send-invites")) {
    throw UsageError{"--send-invites and --no-send-invites exclude each other"};
  }
  if (arguments.has("--send-invites")) sendInvites = true;
  if (arguments.has("--no-send-invites")) sendInvites = false;
  const auto language = arguments.value("--language").value_or(std::string(kDefaultLanguage));
  if (language.empty()) throw UsageError{"--language must not be empty"};
  return MeetingInvitation(arguments.operands.back(), std::move(participants), language, since,
                           until, sendInvites, arguments.has("--password"),
                           arguments.has("--record"));
}

void checkInvitation(const Arguments& arguments) {
  invitationFrom(arguments, std::chrono::system_clock::now());
}

MeetingsService& meetings(Runner& runner) {
  runner.restore();
  return *runner.server().meetingsService();
}

nlohmann::json created(Runner& runner, const std::string& done, const Meeting& meeting) {
  runner.human(done + " " + meetingText(meeting));
  return {{"meeting", meeting}};
}

nlohmann::json create(Runner& runner, const Arguments& arguments) {
  const auto invitation = invitationFrom(arguments, std::chrono::system_clock::now());
  auto& service = meetings(runner);
  return created(runner, "created",
                 runner.await("create meeting", service.createMeeting(invitation)));
}

nlohmann::json update(Runner& runner, const Arguments& arguments) {
  const auto& id = arguments.operands.front();
  const auto invitation = invitationFrom(arguments, std::chrono::system_clock::now());
  auto& service = meetings(runner);
  return created(runner, "changed",
                 runner.await("update meeting " + id, service.updateMeeting(id, invitation)));
}

nlohmann::json get(Runner& runner, const Arguments& arguments) {
  const auto& id = arguments.operands.front();
  auto& service = meetings(runner);
  const auto meeting = runner.await("meeting " + id, service.meeting(id));
  runner.human(meetingText(meeting));
  return {{"meeting", meeting}};
}

MeetingSearch searchFrom(const Arguments& arguments, std::chrono::system_clock::time_point now) {
  MeetingSearch search;
  search.name = arguments.value("--name");
  search.phone = arguments.value("--phone");
  search.language = arguments.value("--language");
  if (const auto until = arguments.value("--valid-until")) {
    search.validUntil = parseInstant("--valid-until", *until, now);
  }
  return search;
}

void checkSearch(const Arguments& arguments) {
  searchFrom(arguments, std::chrono::system_clock::now());
}

nlohmann::json search(Runner& runner, const Arguments& arguments) {
  const auto criteria = searchFrom(arguments, std::chrono::system_clock::now());
  auto& service = meetings(runner);
  const auto found = runner.await("meeting search", service.meetings(criteria));
  for (const auto& meeting : found) runner.human(meetingText(meeting));
  if (found.empty()) runner.human("no meetings");
  return {{"meetings", found}};
}

nlohmann::json remove(Runner& runner, const Arguments& arguments) {
  // The request names the meeting by its id only.
  Meeting meeting;
  meeting.id = arguments.operands.front();
  auto& service = meetings(runner);
  runner.await("delete meeting " + meeting.id, service.deleteMeeting(meeting));
  runner.human("deleted meeting " + meeting.id);
  return {{"meetingId", meeting.id}};
}

// The options that describe an invitation, for create and update alike.
const std::vector<Flag> kInvitationFlags = {{"--email", "ADDRESS", false, true},
                                            {"--phone", "NUMBER[:sms]", false, true},
                                            {"--language", "L"},
                                            {"--valid-since", "TIME"},
                                            {"--valid-until", "TIME"},
                                            {"--password", ""},
                                            {"--record", ""}};

std::vector<Flag> withSendInvites(std::vector<Flag> flags) {
  flags.push_back({"--send-invites", ""});
  flags.push_back({"--no-send-invites", ""});
  return flags;
}

}  // namespace

const CommandGroup& meetingsCommands() {
  static const CommandGroup group{
      "Meetings",
      {
          {.words = {"meetings", "create"},
           .operands = "NAME",
           .minOperands = 1,
           .maxOperands = 1,
           .flags = kInvitationFlags,
           .summary =
               "schedule a meeting NAME and invite each ADDRESS and NUMBER (:sms: by SMS);\n"
               "language en unless --language, valid from now unless --valid-since, for a day\n"
               "unless --valid-until (the server's default); --password: the library makes a\n"
               "random one; --record: record everything. TIME: now, now+N or now-N (N with s, m,\n"
               "h or d: now+90m), YYYY-MM-DDTHH:MM[:SS]Z (UTC) or milliseconds since 1970",
           .check = checkInvitation,
           .run = create},
          {.words = {"meetings", "get"},
           .operands = "ID",
           .minOperands = 1,
           .maxOperands = 1,
           .summary = "one meeting",
           .run = get},
          {.words = {"meetings", "search"},
           .flags = {{"--name", "TEXT"},
                     {"--phone", "NUMBER"},
                     {"--language", "L"},
                     {"--valid-until", "TIME"}},
           .summary =
               "your meetings and those you are invited to, matching every criterion given\n"
               "(name contains TEXT, a participant's NUMBER, still valid at TIME); none: all",
           .check = checkSearch,
           .run = search},
          {.words = {"meetings", "update"},
           .operands = "ID NAME",
           .minOperands = 2,
           .maxOperands = 2,
           .flags = withSendInvites(kInvitationFlags),
           .summary = "replace the invitation of a meeting you own: options as for create (what\n"
                      "is not given takes create's default); --send-invites or --no-send-invites\n"
                      "tells whether the participants are told (neither: the server decides)",
           .check = checkInvitation,
           .run = update},
          {.words = {"meetings", "delete"},
           .operands = "ID",
           .minOperands = 1,
           .maxOperands = 1,
           .summary = "delete a meeting you own",
           .run = remove},
      }};
  return group;
}

}  // namespace kel::cli
