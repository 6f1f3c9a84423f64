#pragma once

// Turning what clients send into log text. Every log line of the emulator passes through
// escapeForLog, so that a client cannot end a line, start a forged one, ring the terminal's bell
// or send it escape sequences; secrets are shortened before they get there.

#include <string>
#include <string_view>

namespace kel::emulator {

/// The text with each control character (C0, DEL and C1) and each byte that is not UTF-8 escaped:
/// a newline as the two characters "\n", every other one as "\xNN". A backslash stays as it is;
/// printable text, UTF-8 included, passes unchanged.
std::string escapeForLog(std::string_view text);

/// A secret as a log may show it: at most its first four characters (none of a short one), then
/// "..." and its length, e.g. "a1b2...(36 chars)".
std::string redactSecret(std::string_view secret);

/// A frame as the log shows it: "AUTH " + redacted token; JSON with the values of members whose
/// names speak of tokens, passwords, secrets, cookies or authorization redacted; cut to
/// `maxChars` with its size appended when longer. Not yet escaped.
std::string frameForLog(std::string_view frame, std::size_t maxChars = 512);

/// A request target with the values of such query parameters redacted.
std::string targetForLog(std::string_view target);

}  // namespace kel::emulator
