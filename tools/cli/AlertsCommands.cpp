// `kel alerts`: notices raised from the server's templates to every user of the domain.

#include <algorithm>

#include <nlohmann/json.hpp>

#include "ServerClient/Alert/Service/AlertsService.h"
#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Runner.h"

namespace kel::cli {

namespace {

std::string alertText(const ServerAlert& alert) {
  std::string state = "active";
  if (alert.acceptedBy) {
    state = "accepted by " + *alert.acceptedBy;
  } else if (alert.cancelled) {
    state = "cancelled";
  } else if (alert.resolvedAt) {
    state = "expired";
  }
  std::string text = alert.alertId + " \"" + alert.title + "\": " + alert.payload + ", from " +
                     alert.from + ", raised " + instantText(alert.createdAt) + ", " + state;
  if (alert.resolvedAt) text += " at " + instantText(*alert.resolvedAt);
  return text;
}

AlertsService& alerts(Runner& runner) {
  runner.restore();
  return *runner.server().alerts();
}

nlohmann::json templates(Runner& runner, const Arguments&) {
  const auto found = runner.await("alert templates", alerts(runner).alertTemplates());
  for (const auto& each : found) {
    runner.human(each.templateId + " \"" + each.title + "\": " + each.payload);
  }
  if (found.empty()) runner.human("no alert templates");
  return {{"alertTemplates", found}};
}

/// "--accepted-since SECONDS|all": the window back from now; "all" is what the library sends as
/// a negative count.
std::optional<int> windowFrom(const Arguments& arguments, std::string_view flag) {
  const auto text = arguments.value(flag);
  if (!text) return std::nullopt;
  if (*text == "all") return -1;
  return static_cast<int>(parseNumber(flag, *text, 0, 315'360'000));
}

void checkList(const Arguments& arguments) {
  for (const auto flag : {"--accepted-since", "--cancelled-since", "--expired-since"}) {
    windowFrom(arguments, flag);
  }
}

nlohmann::json list(Runner& runner, const Arguments& arguments) {
  auto& service = alerts(runner);
  const auto found =
      runner.await("alerts", service.alerts(windowFrom(arguments, "--accepted-since"),
                                            windowFrom(arguments, "--cancelled-since"),
                                            windowFrom(arguments, "--expired-since")));
  for (const auto& alert : found) runner.human(alertText(alert));
  if (found.empty()) runner.human("no alerts");
  return {{"alerts", found}};
}

nlohmann::json send(Runner& runner, const Arguments& arguments) {
  const auto& id = arguments.operands.front();
  auto& service = alerts(runner);
  // The request carries the template's id; the server's list says which ids there are.
  const auto known = runner.await("alert templates", service.alertTemplates());
  const auto found = std::find_if(known.begin(), known.end(), [&](const ServerAlertTemplate& each) {
    return each.templateId == id;
  });
  if (found == known.end()) {
    std::string names;
    for (const auto& each : known) names += (names.empty() ? "" : ", ") + each.templateId;
    throw CommandError{"usage", "no alert template \"" + id +
                                    "\" (known: " + (names.empty() ? "none" : names) + ")"};
  }
  runner.await("send alert", service.sendAlert(*found));
  runner.human("raised \"" + found->title + "\" for every user of your domain");
  return {{"alertTemplate", *found}};
}

nlohmann::json accept(Runner& runner, const Arguments& arguments) {
  const auto& id = arguments.operands.front();
  auto& service = alerts(runner);
  runner.await("accept alert " + id, service.accept(id));
  runner.human("accepted alert " + id);
  return {{"alertId", id}};
}

}  // namespace

const CommandGroup& alertsCommands() {
  static const CommandGroup group{
      "Alerts",
      {
          {.words = {"alerts", "templates"},
           .summary = "the templates alerts are raised from",
           .run = templates},
          {.words = {"alerts", "list"},
           .flags = {{"--accepted-since", "SECONDS|all"},
                     {"--cancelled-since", "SECONDS|all"},
                     {"--expired-since", "SECONDS|all"}},
           .summary = "the active alerts of your domain, then those accepted, cancelled and\n"
                      "expired in the last SECONDS (all: every one; absent: the server's default)",
           .check = checkList,
           .run = list},
          {.words = {"alerts", "send"},
           .operands = "TEMPLATE_ID",
           .minOperands = 1,
           .maxOperands = 1,
           .summary = "raise an alert from the template for every user of your domain",
           .run = send},
          {.words = {"alerts", "accept"},
           .operands = "ALERT_ID",
           .minOperands = 1,
           .maxOperands = 1,
           .summary = "accept someone else's active alert",
           .run = accept},
      }};
  return group;
}

}  // namespace kel::cli
