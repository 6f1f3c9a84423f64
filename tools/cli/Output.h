#pragma once

// What the program prints: timestamped lines for people, one JSON object per command for
// programs, and errors with their kind.

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "ServerClient/Auth/Model/AuthenticationData.h"
#include "ServerClient/Client/KelMetrics.h"
#include "ServerClient/ConferenceLog/Model/ConferenceEntry.h"
#include "ServerClient/Contact/Model/Contact.h"
#include "ServerClient/Socket/Events/KelEvent.h"

namespace kel::cli {

/// Everything kel prints passes through here: server-controlled text may hold secrets (removed
/// where errors and records are described) and terminal controls (escape sequences, bell,
/// carriage return), which this escapes ("\n" -> \n, other controls -> \xNN).
std::string printable(std::string_view text);

/// One JSON object as a line of output: ASCII only, so no control character of any kind reaches
/// the terminal, and invalid UTF-8 replaced rather than thrown on.
std::string jsonLine(const nlohmann::json& value);

/// Sends the library's log lines (--verbose) to stderr through printable(), redacted once more.
void installVerboseLog();

/// "12:00:01.234": the local time of day to the millisecond.
std::string timestamp();
/// Where say() writes: stdout unless told (the demo's --json keeps stdout for its result).
void narrateTo(std::FILE* stream);
/// One line on stdout, prefixed with the time and flushed at once, so that the lines of a
/// long-running demo appear as things happen. Safe from any thread.
void say(std::string_view text);

/// {"kind": errorKind, "message": describeError}.
nlohmann::json errorJson(const std::exception_ptr& error);

nlohmann::json userJson(const User& user);
/// The user, its session and what it may do.
nlohmann::json sessionJson(const AuthenticationData& data);

/// `value` with the value of every member whose name is a secret's (isSecretName) replaced, at
/// any depth: for JSON that the server sent and no record describes.
nlohmann::json redactedJson(nlohmann::json value);

/// The library's name of the domain ("addressBooks", "participantInGroup", "unkwown").
std::string_view domainName(DomainEvent domain);
/// An event as `kel watch` prints it: {"domain", "method", "param", "record"}, the record decoded
/// as the domain's event handler decodes it (a group deletion as {"groupId"}), or the body itself
/// for domains without a record; "error" instead of "record" for a body that does not decode.
nlohmann::json eventJson(const KelEvent& event);

/// "2024-01-02T10:00:00Z": the instant in UTC to the second.
std::string instantText(std::chrono::system_clock::time_point instant);
/// The same for milliseconds since the Unix epoch as the server writes them.
std::string instantText(double milliseconds);

/// The entry as the server sends it: the enumerations as their wire texts, instants as numbers.
nlohmann::json conferenceEntryJson(const ConferenceEntry& entry);

/// The socket's figures for people, four short lines: requests and how they ended, round-trip
/// percentiles, authentications and reconnections, bytes.
std::vector<std::string> metricsLines(const KelMetrics& metrics);
/// The same as JSON, durations in whole microseconds; failure kinds only when some failed.
nlohmann::json metricsJson(const KelMetrics& metrics);

/// One line for people: `c1 "Ann" (favorite), phones: work +1 (primary); emails: ...; user u1`.
std::string contactText(const Contact& contact);

}  // namespace kel::cli
