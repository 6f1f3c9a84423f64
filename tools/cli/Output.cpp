#include "cli/Output.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <type_traits>

#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/base_sink.h>

#include "ServerClient/AddressBooks/Model/AddressBookDTO.h"
#include "ServerClient/Alert/Model/ServerAlert.h"
#include "ServerClient/Common/Decoding.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Common/SafeText.h"
#include "ServerClient/Group/Model/GroupDTO.h"
#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Meeting/Model/Meeting.h"
#include "ServerClient/MissedCalls/Model/MissedCallsDTO.h"
#include "ServerClient/Presence/Model/PresenceDTO.h"
#include "ServerClient/XMPP/Model/IndividualChatListSocketDTO.h"

namespace kel::cli {

std::string printable(std::string_view text) {
  return escapeControlCharacters(text);
}

std::string jsonLine(const nlohmann::json& value) {
  return value.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

namespace {

// The library's lines, one per log call; the library redacts what it dumps, this guards the
// terminal and catches whatever a line still carries (a URL given on the command line...).
class PrintableSink final : public spdlog::sinks::base_sink<std::mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    std::string_view level = "error";
    switch (message.level) {
      case spdlog::level::trace:
        level = "verbose";
        break;
      case spdlog::level::debug:
        level = "debug";
        break;
      case spdlog::level::info:
        level = "info";
        break;
      case spdlog::level::warn:
        level = "warning";
        break;
      default:
        break;
    }
    const std::string_view payload(message.payload.data(), message.payload.size());
    const auto line =
        timestamp() + " [" + std::string(level) + "] " + printable(redactSecrets(payload)) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
  void flush_() override { std::fflush(stderr); }
};

}  // namespace

void installVerboseLog() {
  auto& log = ServerLog::sharedInstance();
  log.setConsoleSink(std::make_shared<PrintableSink>());
  log.addLoggers(LogLevel::verbose, false);
}

std::string timestamp() {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(millis));
  return text;
}

namespace {
std::mutex narrationMutex;
std::FILE* narration = nullptr;  // stdout when null
}  // namespace

void narrateTo(std::FILE* stream) {
  std::lock_guard lock(narrationMutex);
  narration = stream;
}

void say(std::string_view text) {
  const auto line = timestamp() + "  " + printable(text) + "\n";
  std::lock_guard lock(narrationMutex);
  std::FILE* stream = narration != nullptr ? narration : stdout;
  std::fwrite(line.data(), 1, line.size(), stream);
  std::fflush(stream);
}

nlohmann::json errorJson(const std::exception_ptr& error) {
  return {{"kind", errorKind(error)}, {"message", describeError(error)}};  // without secrets
}

nlohmann::json userJson(const User& user) {
  return {{"id", user.userId},
          {"domain", user.domain},
          {"email", user.email},
          {"username", user.username},
          {"alias", user.alias},
          {"role", user.role},
          {"mobilePhones", user.mobilePhones}};
}

nlohmann::json sessionJson(const AuthenticationData& data) {
  nlohmann::json json = {{"user", userJson(data.user)},
                         {"session", {{"id", data.session.sessionID}, {"to", data.session.to}}}};
  json["capabilities"] =
      data.capabilities ? nlohmann::json(data.capabilities->active()) : nlohmann::json::array();
  return json;
}

nlohmann::json redactedJson(nlohmann::json value) {
  if (value.is_object()) {
    for (auto& [key, member] : value.items()) {
      member = isSecretName(key) ? nlohmann::json(kRedacted) : redactedJson(std::move(member));
    }
  } else if (value.is_array()) {
    for (auto& element : value) element = redactedJson(std::move(element));
  }
  return value;
}

std::string instantText(std::chrono::system_clock::time_point instant) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(instant);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

std::string instantText(double milliseconds) {
  return instantText(std::chrono::system_clock::time_point(
      std::chrono::milliseconds(static_cast<long long>(milliseconds))));
}

nlohmann::json conferenceEntryJson(const ConferenceEntry& entry) {
  auto invites = nlohmann::json::array();
  for (const auto& invite : entry.invites) {
    auto candidates = nlohmann::json::array();
    for (const auto& candidate : invite.candidates) {
      candidates.push_back(
          {{"address", candidate.address}, {"endReason", static_cast<int>(candidate.endReason)}});
    }
    nlohmann::json json = {{"from", invite.from},
                           {"to", invite.to},
                           {"candidates", std::move(candidates)},
                           {"state", rawValue(invite.state)},
                           {"group", invite.group},
                           {"mediatypes", invite.mediatypes}};
    if (invite.error) json["error"] = static_cast<int>(*invite.error);
    invites.push_back(std::move(json));
  }
  auto participants = nlohmann::json::array();
  for (const auto& participant : entry.participants) {
    nlohmann::json json = {{"address", participant.address}, {"createdAt", participant.createdAt}};
    if (participant.finishedAt) json["finishedAt"] = *participant.finishedAt;
    participants.push_back(std::move(json));
  }
  auto transfers = nlohmann::json::array();
  for (const auto& transfer : entry.transfers) {
    transfers.push_back({{"from", transfer.from},
                         {"to", transfer.to},
                         {"state", rawValue(transfer.state)},
                         {"idInvite", transfer.idInvite}});
  }
  nlohmann::json json = {{"id", entry.id},
                         {"roomId", entry.roomId},
                         {"state", rawValue(entry.state)},
                         {"createdAt", entry.createdAt},
                         {"finishedAt", entry.finishedAt},
                         {"invites", std::move(invites)},
                         {"participants", std::move(participants)},
                         {"transfers", std::move(transfers)}};
  if (entry.type) json["type"] = rawValue(*entry.type);
  return json;
}

namespace {

std::string durationText(std::chrono::microseconds duration) {
  char text[32];
  const auto micros = duration.count();
  if (micros < 1000) {
    std::snprintf(text, sizeof text, "%lld us", static_cast<long long>(micros));
  } else if (micros < 10'000'000) {
    std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(micros) / 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(micros) / 1e6);
  }
  return text;
}

std::string bytesText(std::uint64_t bytes) {
  char text[32];
  if (bytes < 10'000) {
    std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
  } else if (bytes < 10'000'000) {
    std::snprintf(text, sizeof text, "%.1f kB", static_cast<double>(bytes) / 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  }
  return text;
}

// The non-zero counts by name: "notFound 1, other 2".
std::string breakdown(const std::vector<std::pair<std::string, std::uint64_t>>& counts) {
  std::string text;
  for (const auto& [name, count] : counts) {
    if (count == 0) continue;
    text += (text.empty() ? "" : ", ") + name + " " + std::to_string(count);
  }
  return text;
}

std::vector<std::pair<std::string, std::uint64_t>> failures(const KelMetrics& metrics) {
  std::vector<std::pair<std::string, std::uint64_t>> counts;
  for (std::size_t i = 0; i < kConnectionErrorTypeCount; ++i) {
    counts.emplace_back(rawValue(static_cast<ConnectionErrorType>(i)), metrics.requestsFailed[i]);
  }
  counts.emplace_back("other", metrics.requestsFailedOther);
  return counts;
}

std::vector<std::pair<std::string, std::uint64_t>> byReason(
    const std::array<std::uint64_t, kDisconnectedReasonCount>& counts) {
  std::vector<std::pair<std::string, std::uint64_t>> named;
  for (std::size_t i = 0; i < kDisconnectedReasonCount; ++i) {
    named.emplace_back(name(static_cast<SocketStateDisconnectedReason>(i)), counts[i]);
  }
  return named;
}

nlohmann::json latencyJson(const KelLatency& latency) {
  return {{"count", latency.count},       {"p50Us", latency.p50.count()},
          {"p90Us", latency.p90.count()}, {"p99Us", latency.p99.count()},
          {"maxUs", latency.max.count()}, {"lastUs", latency.last.count()}};
}

nlohmann::json countsJson(const std::vector<std::pair<std::string, std::uint64_t>>& counts) {
  auto json = nlohmann::json::object();
  for (const auto& [name, count] : counts) {
    if (count != 0) json[name] = count;
  }
  return json;
}

}  // namespace

std::vector<std::string> metricsLines(const KelMetrics& m) {
  std::vector<std::string> lines;
  std::string line = "requests " + std::to_string(m.requestsSent) + " sent, " +
                     std::to_string(m.requestsAnswered) + " answered, " +
                     std::to_string(m.failedTotal()) + " failed";
  if (m.failedTotal() != 0) line += " (" + breakdown(failures(m)) + ")";
  line += ", " + std::to_string(m.requestsTimedOut) + " timed out";
  if (m.requestsStopped != 0) line += ", " + std::to_string(m.requestsStopped) + " stopped";
  if (m.requestsCancelled != 0) line += ", " + std::to_string(m.requestsCancelled) + " cancelled";
  lines.push_back(line + ", " + std::to_string(m.requestsPending) + " pending");
  const auto& rt = m.roundTrip;
  lines.push_back("round trip " +
                  (rt.count == 0
                       ? std::string("-")
                       : "p50 " + durationText(rt.p50) + ", p90 " + durationText(rt.p90) +
                             ", p99 " + durationText(rt.p99) + ", max " + durationText(rt.max)));
  const auto& auth = m.authentication;
  line = "authenticated " + std::to_string(auth.count) + (auth.count == 1 ? " time" : " times");
  if (auth.count != 0) {
    line += " (last in " + durationText(auth.last) + ", max " + durationText(auth.max) + ")";
  }
  const auto ended = breakdown(byReason(m.connectionsEnded));
  line += "; connections ended " + (ended.empty() ? std::string("0") : ended);
  line += "; reconnections " + std::to_string(m.reconnectionsTotal());
  if (m.reconnectionsTotal() != 0) line += " (" + breakdown(byReason(m.reconnections)) + ")";
  lines.push_back(line + ", " + std::to_string(m.reconnectionAttempts) + " attempts");
  lines.push_back(bytesText(m.bytesSent) + " sent, " + bytesText(m.bytesReceived) + " received");
  return lines;
}

nlohmann::json metricsJson(const KelMetrics& m) {
  auto failed = countsJson(failures(m));
  failed["total"] = m.failedTotal();
  return {{"requests",
           {{"sent", m.requestsSent},
            {"answered", m.requestsAnswered},
            {"timedOut", m.requestsTimedOut},
            {"failed", failed},
            {"stopped", m.requestsStopped},
            {"cancelled", m.requestsCancelled},
            {"pending", m.requestsPending}}},
          {"roundTrip", latencyJson(m.roundTrip)},
          {"authentication", latencyJson(m.authentication)},
          {"connectionsEnded", countsJson(byReason(m.connectionsEnded))},
          {"reconnections", countsJson(byReason(m.reconnections))},
          {"reconnectionAttempts", m.reconnectionAttempts},
          {"bytes", {{"sent", m.bytesSent}, {"received", m.bytesReceived}}}};
}

std::string contactText(const Contact& contact) {
  std::string text = contact.id + " \"" + contact.name + "\"";
  if (contact.favorite) text += " (favorite)";
  auto entries = [&](std::string_view title, const auto& list) {
    if (!list) return;
    text += std::string(", ") + std::string(title) + ":";
    for (std::size_t i = 0; i < list->size(); ++i) {
      const auto& entry = (*list)[i];
      text += (i == 0 ? " " : "; ") + entry.type;
      if constexpr (std::is_same_v<std::decay_t<decltype(entry.value)>, std::string>) {
        text += " " + entry.value;
      } else if (entry.value) {
        text += " " + *entry.value;
      }
      if (entry.primary) text += " (primary)";
    }
  };
  entries("phones", contact.phones);
  entries("emails", contact.emails);
  if (contact.associatedUserId) text += ", user " + *contact.associatedUserId;
  return text;
}

namespace {

// The library's names of the event domains.
constexpr std::pair<std::string_view, DomainEvent> kDomainNames[] = {
    {"addressBooks", DomainEvent::addressBooks},
    {"conferences", DomainEvent::conferences},
    {"presence", DomainEvent::presence},
    {"group", DomainEvent::group},
    {"participantInGroup", DomainEvent::participantInGroup},
    {"alerts", DomainEvent::alerts},
    {"missedCalls", DomainEvent::missedCalls},
    {"meetings", DomainEvent::meetings},
    {"xmppIndividualChatList", DomainEvent::xmppIndividualChatList},
    {"unkwown", DomainEvent::unkwown},
};

/// {"groupId": ...} of a deletion: the body must be an object holding that text.
nlohmann::json groupIdOf(const KelEvent& event) {
  const auto body = from<nlohmann::json>(event.data);
  const auto id = body.is_object() ? body.find("groupId") : body.end();
  if (!body.is_object() || id == body.end() || !id->is_string()) {
    throw GenericError(GenericErrorType::decoding(event.data), "no \"groupId\" text");
  }
  return {{"groupId", *id}};
}

/// The event's body as its domain's record; the body itself (secrets removed) for a domain that
/// has none. Throws the decoding error of a body that does not decode.
nlohmann::json recordOf(const KelEvent& event) {
  switch (event.domainEvent) {
    case DomainEvent::addressBooks:
      return from<AddressBookSocketDTO>(event.data);
    case DomainEvent::presence:
      return from<PresenceDTO>(event.data);
    case DomainEvent::group:
      if (event.method == "POST" || event.method == "PUT") return from<GroupDTO>(event.data);
      if (event.method == "DELETE") return groupIdOf(event);
      break;
    case DomainEvent::participantInGroup:
      if (event.method == "DELETE") return groupIdOf(event);
      break;
    case DomainEvent::meetings:
      if (event.method == "POST" || event.method == "PUT") return from<Meeting>(event.data);
      break;
    case DomainEvent::conferences:
      if (event.method == "POST") return conferenceEntryJson(from<ConferenceEntry>(event.data));
      break;
    case DomainEvent::missedCalls:
      if (event.method == "PUT") return from<MissedCallsSocketDTO>(event.data);
      break;
    case DomainEvent::alerts:
      return from<ServerAlert>(event.data);
    case DomainEvent::xmppIndividualChatList:
      // The chat is named by the event's path; the body is not read.
      if (event.method == "PUT" || event.method == "DELETE") {
        return IndividualChatListSocketDTO{event.param};
      }
      break;
    default:
      break;
  }
  return redactedJson(from<nlohmann::json>(event.data));
}

}  // namespace

std::string_view domainName(DomainEvent domain) {
  for (const auto& [name, each] : kDomainNames) {
    if (each == domain) return name;
  }
  return "unkwown";
}

nlohmann::json eventJson(const KelEvent& event) {
  nlohmann::json line = {{"domain", domainName(event.domainEvent)},
                         {"method", event.method},
                         {"param", event.param ? nlohmann::json(*event.param) : nlohmann::json()}};
  try {
    line["record"] = recordOf(event);
  } catch (const std::exception&) {
    line["error"] = errorJson(std::current_exception());
  }
  return line;
}

}  // namespace kel::cli
