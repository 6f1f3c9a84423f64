// `kel presence`: reading and subscribing to users' presence, and changing the user's own.

#include <nlohmann/json.hpp>

#include "ServerClient/Presence/Service/PresencesService.h"
#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Runner.h"

namespace kel::cli {

namespace {

std::string presenceText(const PresenceDTO& presence) {
  std::string text = presence.address.value_or("(no address)") + ":";
  if (presence.online) text += *presence.online ? " online" : " offline";
  auto add = [&](std::string_view name, const std::optional<std::string>& value) {
    if (value) text += ", " + std::string(name) + " \"" + *value + "\"";
  };
  add("activity", presence.activity);
  add("note", presence.note);
  add("mood", presence.mood);
  add("display name", presence.displayName);
  if (presence.username && presence.domain) {
    text += ", " + *presence.username + "@" + *presence.domain;
  }
  // A picture is kilobytes of base64: only say that there is one.
  if (presence.avatar) text += ", avatar of " + std::to_string(presence.avatar->size()) + " bytes";
  add("avatar URL", presence.avatarUrl);
  return text;
}

nlohmann::json get(Runner& runner, const Arguments& arguments) {
  const auto& address = arguments.operands.front();
  runner.restore();
  // The library sends its flag as the query's "withoutAvatar" as it is.
  const bool withoutAvatar = !arguments.has("--with-avatar");
  const auto presence =
      runner.await("presence of " + address,
                   runner.server().presencesService()->presence(address, withoutAvatar, false));
  runner.human(presenceText(presence));
  return {{"presence", presence}};
}

nlohmann::json subscribe(Runner& runner, const Arguments& arguments) {
  const auto& addresses = arguments.operands;
  runner.restore();
  const auto service = runner.server().presencesService();
  auto say = [&](const std::vector<PresenceDTO>& presences, bool fromCache) {
    for (const auto& presence : presences) runner.human(presenceText(presence));
    runner.human(fromCache ? "(from the cache)" : "(subscribed on the server)");
  };
  // One address and several go to the server differently, and the library encodes their
  // results as {"presence", "fromCache"} and {"presences", "fromCache"}.
  if (addresses.size() == 1) {
    const auto one =
        runner.await("subscription to " + addresses.front(), service->subscribe(addresses.front()));
    say({one.presence}, one.fromCache);
    return one;
  }
  const auto many = runner.await("subscriptions", service->subscribe(addresses));
  say(many.presences, many.fromCache);
  return many;
}

/// The change; the address is filled in later when not given.
PresenceUpdateRequest updateFrom(const Arguments& arguments) {
  PresenceUpdateRequest request;
  request.address = arguments.value("--address").value_or("");
  request.online = arguments.has("--online");
  request.activity = arguments.value("--activity");
  request.note = arguments.value("--note");
  request.mood = arguments.value("--mood");
  request.displayName = arguments.value("--display-name");
  // No --avatar keeps the picture (an empty text is left out of the body); --clear-avatar sends
  // null, which removes it.
  if (!arguments.has("--clear-avatar")) request.avatar = arguments.value("--avatar").value_or("");
  if (request.online && !request.activity) {
    throw UsageError{"--online is sent only together with --activity"};
  }
  if (arguments.has("--avatar") && arguments.has("--clear-avatar")) {
    throw UsageError{"--avatar and --clear-avatar exclude each other"};
  }
  if (!request.activity && !request.note && !request.mood && !request.displayName &&
      !arguments.has("--avatar") && !arguments.has("--clear-avatar")) {
    throw UsageError{"nothing to change"};
  }
  return request;
}

void checkUpdate(const Arguments& arguments) {
  updateFrom(arguments);
}

nlohmann::json update(Runner& runner, const Arguments& arguments) {
  auto request = updateFrom(arguments);
  const auto data = runner.restore();
  if (request.address.empty()) request.address = data.user.kelUri();
  const auto presence = runner.await("presence update of " + request.address,
                                     runner.server().presencesService()->update(request));
  runner.human("now " + presenceText(presence));
  return {{"presence", presence}};
}

}  // namespace

const CommandGroup& presenceCommands() {
  static const CommandGroup group{
      "Presence",
      {
          {.words = {"presence", "get"},
           .operands = "ADDRESS",
           .minOperands = 1,
           .maxOperands = 1,
           .flags = {{"--with-avatar", ""}},
           .summary = "the presence of ADDRESS (without the picture unless asked)",
           .run = get},
          {.words = {"presence", "subscribe"},
           .operands = "ADDRESS...",
           .minOperands = 1,
           .maxOperands = kAnyNumber,
           .flags = {},
           .summary = "subscribe to their presence and print it (fromCache: never, in a new\n"
                      "process); the subscription ends with the process: see watch --subscribe",
           .run = subscribe},
          {.words = {"presence", "update"},
           .flags = {{"--address", "ADDRESS"},
                     {"--online", ""},
                     {"--activity", "A"},
                     {"--note", "N"},
                     {"--mood", "M"},
                     {"--display-name", "D"},
                     {"--avatar", "A"},
                     {"--clear-avatar", ""}},
           .summary = "change your presence (ADDRESS: kel-user:<your id> unless given); --online\n"
                      "goes with --activity (without it: offline); the picture stays unless\n"
                      "--avatar or --clear-avatar",
           .check = checkUpdate,
           .run = update},
      }};
  return group;
}

}  // namespace kel::cli
