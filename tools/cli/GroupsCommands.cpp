// `kel groups`: groups of users, their participants and ringing strategy.

#include <map>

#include <nlohmann/json.hpp>

#include "ServerClient/Group/Service/GroupService.h"
#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Runner.h"

namespace kel::cli {

namespace {

std::string strategyText(const RingingStrategyDTO& strategy) {
  if (const auto* sequential = std::get_if<SequentialRingingStrategyDTO>(&strategy)) {
    return "sequential (delay " + std::to_string(sequential->delay) + ", steps " +
           std::to_string(sequential->steps) + ")";
  }
  if (const auto* reduced = std::get_if<SimultaneousReducedRingingStrategyDTO>(&strategy)) {
    return "simultaneous-reduced (steps " + std::to_string(reduced->steps) + ")";
  }
  return "simultaneous";
}

std::string groupText(const GroupDTO& group) {
  std::string participants;
  for (const auto& user : group.participants)
    participants += (participants.empty() ? "" : ", ") + user;
  return group.groupId + " \"" + group.name + "\", owner " + group.owner.userId +
         ", participants: " + (participants.empty() ? "(none)" : participants) + ", ringing " +
         strategyText(group.ringingStrategy);
}

CacheGroupService& groups(Runner& runner) {
  runner.restore();
  return *runner.server().groupService();
}

const std::string& operand(const Arguments& arguments, std::size_t index) {
  return arguments.operands.at(index);
}

nlohmann::json list(Runner& runner, const Arguments& arguments) {
  auto& service = groups(runner);
  // The server tells one kind at a time; without a flag both, participating first, each group
  // once.
  std::vector<GroupDTO> found;
  std::map<std::string, bool> seen;
  for (const bool participating : {true, false}) {
    if (arguments.has(participating ? "--owned" : "--participating")) continue;
    for (auto& group : runner.await(participating ? "groups participated in" : "groups owned",
                                    service.groups(participating, false))) {
      if (seen.emplace(group.groupId, true).second) found.push_back(std::move(group));
    }
  }
  for (const auto& group : found) runner.human(groupText(group));
  if (found.empty()) runner.human("no groups");
  return {{"groups", found}};
}

void checkList(const Arguments& arguments) {
  if (arguments.has("--participating") && arguments.has("--owned")) {
    throw UsageError{"--participating and --owned exclude each other (neither: both)"};
  }
}

nlohmann::json get(Runner& runner, const Arguments& arguments) {
  const auto& id = operand(arguments, 0);
  const auto group = runner.await("group " + id, groups(runner).group(id, false));
  runner.human(groupText(group));
  return {{"group", group}};
}

nlohmann::json create(Runner& runner, const Arguments& arguments) {
  const auto& name = operand(arguments, 0);
  const auto group = runner.await(
      "create group",
      groups(runner).createGroup(name, arguments.value("--group-id")).take(1).asSingle());
  runner.human("created " + groupText(group));
  return {{"group", group}};
}

/// A change that answers nothing: runs it, says `done` and returns `result`.
nlohmann::json change(Runner& runner, const std::string& what, const rx::Completable& completable,
                      const std::string& done, nlohmann::json result) {
  runner.await(what, completable);
  runner.human(done);
  return result;
}

nlohmann::json remove(Runner& runner, const Arguments& arguments) {
  const auto& id = operand(arguments, 0);
  auto& service = groups(runner);
  return change(runner, "delete group " + id, service.deleteGroup(id), "deleted group " + id,
                {{"groupId", id}});
}

nlohmann::json addUser(Runner& runner, const Arguments& arguments) {
  const auto& id = operand(arguments, 0);
  const auto& user = operand(arguments, 1);
  auto& service = groups(runner);
  return change(runner, "add " + user + " to " + id, service.add(user, id),
                "added " + user + " to group " + id, {{"groupId", id}, {"userId", user}});
}

nlohmann::json removeUser(Runner& runner, const Arguments& arguments) {
  const auto& id = operand(arguments, 0);
  const auto& user = operand(arguments, 1);
  auto& service = groups(runner);
  return change(runner, "remove " + user + " from " + id, service.remove(user, id),
                "removed " + user + " from group " + id, {{"groupId", id}, {"userId", user}});
}

nlohmann::json removeAll(Runner& runner, const Arguments& arguments) {
  const auto& id = operand(arguments, 0);
  auto& service = groups(runner);
  return change(runner, "remove everyone from " + id, service.removeAllUsers(id),
                "removed every participant from group " + id, {{"groupId", id}});
}

nlohmann::json leave(Runner& runner, const Arguments& arguments) {
  const auto& id = operand(arguments, 0);
  auto& service = groups(runner);
  return change(runner, "leave " + id, service.leave(id), "left group " + id, {{"groupId", id}});
}

nlohmann::json leaveAll(Runner& runner, const Arguments&) {
  auto& service = groups(runner);
  return change(runner, "leave every group", service.leaveAllGroups(), "left every group",
                nlohmann::json::object());
}

nlohmann::json isMember(Runner& runner, const Arguments& arguments) {
  const auto& id = operand(arguments, 0);
  const auto& user = operand(arguments, 1);
  const bool member =
      runner.await("membership of " + user + " in " + id, groups(runner).user(user, id));
  runner.human(user + (member ? " is a participant of group " : " is not a participant of group ") +
               id);
  return {{"groupId", id}, {"userId", user}, {"member", member}};
}

nlohmann::json reorder(Runner& runner, const Arguments& arguments) {
  const auto& id = operand(arguments, 0);
  const std::vector<std::string> users(arguments.operands.begin() + 1, arguments.operands.end());
  auto& service = groups(runner);
  std::string order;
  for (const auto& user : users) order += (order.empty() ? "" : ", ") + user;
  return change(runner, "reorder " + id, service.reorderParticipants(id, users),
                "group " + id + " rings " + order + " in this order",
                {{"groupId", id}, {"participants", users}});
}

RingingStrategyDTO strategyFrom(const Arguments& arguments) {
  const auto& type = arguments.operands.at(1);
  const auto delay = arguments.value("--delay");
  const auto steps = arguments.value("--steps");
  auto number = [](std::string_view flag, const std::optional<std::string>& text) {
    if (!text) throw UsageError{std::string(flag) + " is required for this strategy"};
    return parseNumber(flag, *text, 0, 1'000'000);
  };
  if (type == "sequential") {
    return SequentialRingingStrategyDTO{number("--delay", delay), number("--steps", steps)};
  }
  if (delay) throw UsageError{"--delay belongs to the sequential strategy only"};
  if (type == "simultaneous-reduced") {
    return SimultaneousReducedRingingStrategyDTO{number("--steps", steps)};
  }
  if (steps) throw UsageError{"--steps does not belong to the simultaneous strategy"};
  if (type == "simultaneous") return SimultaneousRingingStrategyDTO{};
  throw UsageError{"unknown strategy \"" + type +
                   "\" (known: simultaneous, sequential, simultaneous-reduced)"};
}

void checkStrategy(const Arguments& arguments) {
  strategyFrom(arguments);
}

nlohmann::json ringing(Runner& runner, const Arguments& arguments) {
  const auto& id = operand(arguments, 0);
  const auto strategy = strategyFrom(arguments);
  auto& service = groups(runner);
  // The strategy as the library sends it: {"ringingStrategy": {"type": ..., ...}}.
  auto result = encodeRingingStrategy(strategy);
  result["groupId"] = id;
  return change(runner, "ringing strategy of " + id, service.changeRingingStrategy(id, strategy),
                "group " + id + " rings " + strategyText(strategy), std::move(result));
}

Command groupCommand(std::vector<std::string_view> words, std::string_view operands,
                     std::size_t count, std::string_view summary,
                     nlohmann::json (*run)(Runner&, const Arguments&)) {
  return {.words = std::move(words),
          .operands = operands,
          .minOperands = count,
          .maxOperands = count,
          .summary = summary,
          .run = run};
}

}  // namespace

const CommandGroup& groupsCommands() {
  static const CommandGroup group{
      "Groups",
      {
          {.words = {"groups", "list"},
           .flags = {{"--participating", ""}, {"--owned", ""}},
           .summary =
               "the groups you take part in, or (--owned) the others you can see, such as those\n"
               "you own; neither flag: both",
           .check = checkList,
           .run = list},
          groupCommand({"groups", "get"}, "ID", 1, "one group", get),
          {.words = {"groups", "create"},
           .operands = "NAME",
           .minOperands = 1,
           .maxOperands = 1,
           .flags = {{"--group-id", "ID"}},
           .summary = "create a group named NAME, owned by you (the server picks an id unless\n"
                      "--group-id)",
           .run = create},
          groupCommand({"groups", "delete"}, "ID", 1, "delete a group you own", remove),
          groupCommand({"groups", "add"}, "ID USER", 2, "add USER to the group", addUser),
          groupCommand({"groups", "remove"}, "ID USER", 2, "remove USER from the group",
                       removeUser),
          groupCommand({"groups", "remove-all"}, "ID", 1, "remove every participant", removeAll),
          groupCommand({"groups", "leave"}, "ID", 1, "stop taking part in the group", leave),
          groupCommand({"groups", "leave-all"}, "", 0, "stop taking part in every group", leaveAll),
          groupCommand({"groups", "is-member"}, "ID USER", 2,
                       "whether USER takes part in the group (exit status 0 either way)", isMember),
          {.words = {"groups", "reorder"},
           .operands = "ID USER...",
           .minOperands = 2,
           .maxOperands = kAnyNumber,
           .summary = "the order in which the participants ring",
           .run = reorder},
          {.words = {"groups", "ringing"},
           .operands = "ID simultaneous|sequential|simultaneous-reduced",
           .minOperands = 2,
           .maxOperands = 2,
           .flags = {{"--delay", "D"}, {"--steps", "S"}},
           .summary = "the ringing strategy: sequential needs --delay and --steps,\n"
                      "simultaneous-reduced --steps",
           .check = checkStrategy,
           .run = ringing},
      }};
  return group;
}

}  // namespace kel::cli
