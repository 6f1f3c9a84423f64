#include "emulator/CommandLine.h"

#include <charconv>
#include <cmath>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace kel::emulator {

namespace {

bool parseListen(std::string_view text, Options& options) {
  std::string_view host;
  std::string_view port;
  if (text.starts_with('[')) {
    const auto close = text.find("]:");
    if (close == std::string_view::npos) return false;
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos) return false;
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
    if (host.find(':') != std::string_view::npos) return false;  // IPv6 needs brackets
  }
  unsigned value = 0;
  auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), value);
  if (host.empty() || port.empty() || error != std::errc() || end != port.data() + port.size() ||
      value > 65535) {
    return false;
  }
  options.host = std::string(host);
  options.port = static_cast<std::uint16_t>(value);
  return true;
}

std::optional<double> parseSeconds(std::string_view text) {
  // std::from_chars for double is there in GCC 12, but strtod keeps this portable.
  std::string copy(text);
  char* end = nullptr;
  const double value = std::strtod(copy.c_str(), &end);
  if (copy.empty() || end != copy.c_str() + copy.size() || !std::isfinite(value) || value < 0 ||
      value > 1e9) {
    return std::nullopt;
  }
  return value;
}

std::optional<std::size_t> parseCount(std::string_view text) {
  std::size_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream content;
  content << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return content.str();
}

}  // namespace

CommandLineResult parseCommandLine(std::span<const std::string_view> arguments) {
  CommandLine line;
  line.options.pingPeriod = std::chrono::seconds(30);
  line.options.sessionLifetime = std::chrono::hours(24);
  auto fail = [](std::string error) { return CommandLineResult{std::nullopt, std::move(error)}; };

  for (std::size_t i = 0; i < arguments.size(); ++i) {
    std::string_view flag = arguments[i];
    std::optional<std::string_view> inlineValue;
    if (flag.starts_with("--")) {
      if (auto equals = flag.find('='); equals != std::string_view::npos) {
        inlineValue = flag.substr(equals + 1);
        flag = flag.substr(0, equals);
      }
    }
    auto value = [&]() -> std::optional<std::string_view> {
      if (inlineValue) return inlineValue;
      if (i + 1 < arguments.size()) return arguments[++i];
      return std::nullopt;
    };
    auto noValue = [&] { return !inlineValue; };

    if ((flag == "--help" || flag == "-h") && noValue()) {
      line.help = true;
    } else if (flag == "--quiet" && noValue()) {
      line.quiet = true;
    } else if (flag == "--log-frames" && noValue()) {
      line.options.logFrames = true;
    } else if (flag == "--no-record" && noValue()) {
      line.options.recordFrames = false;
      line.options.signInAttemptLimit = 0;
    } else if (flag == "--record-frames") {
      auto text = value();
      auto count = text ? parseCount(*text) : std::nullopt;
      if (!count) return fail("--record-frames takes a number of frames (0 keeps none)");
      line.options.frameLogLimit = *count;
      line.options.recordFrames = *count > 0;
    } else if (flag == "--auth-timeout") {
      auto text = value();
      auto seconds = text ? parseSeconds(*text) : std::nullopt;
      if (!seconds) return fail("--auth-timeout takes a number of seconds (0 for none)");
      line.options.authTimeout =
          std::chrono::milliseconds(static_cast<std::int64_t>(std::llround(*seconds * 1000)));
    } else if (flag == "--listen") {
      auto text = value();
      if (!text || !parseListen(*text, line.options)) {
        return fail("--listen takes HOST:PORT, e.g. 127.0.0.1:8080 or [::1]:0");
      }
    } else if (flag == "--tls-cert") {
      auto text = value();
      if (!text || text->empty()) return fail("--tls-cert takes a PEM file");
      line.tlsCertificateFile = std::string(*text);
    } else if (flag == "--tls-key") {
      auto text = value();
      if (!text || text->empty()) return fail("--tls-key takes a PEM file");
      line.tlsKeyFile = std::string(*text);
    } else if (flag == "--ping-period") {
      auto text = value();
      auto seconds = text ? parseSeconds(*text) : std::nullopt;
      if (!seconds) return fail("--ping-period takes a number of seconds (0 turns pings off)");
      line.options.pingPeriod =
          std::chrono::milliseconds(static_cast<std::int64_t>(std::llround(*seconds * 1000)));
    } else if (flag == "--session-lifetime") {
      auto text = value();
      auto seconds = text ? parseSeconds(*text) : std::nullopt;
      if (!seconds || *seconds < 1) return fail("--session-lifetime takes a number of seconds");
      line.options.sessionLifetime = std::chrono::seconds(std::llround(*seconds));
    } else if (flag == "--alert-lifetime") {
      auto text = value();
      auto seconds = text ? parseSeconds(*text) : std::nullopt;
      if (!seconds || *seconds <= 0) return fail("--alert-lifetime takes a number of seconds");
      line.options.alertLifetime =
          std::chrono::milliseconds(static_cast<std::int64_t>(std::llround(*seconds * 1000)));
    } else if (flag == "--socket-path") {
      auto text = value();
      if (!text || !text->starts_with('/'))
        return fail("--socket-path takes a path such as /kel/websocket");
      line.options.socketPath = std::string(*text);
    } else if (flag == "--threads") {
      auto text = value();
      auto count = text ? parseCount(*text) : std::nullopt;
      if (!count || *count == 0 || *count > 64)
        return fail("--threads takes a number from 1 to 64");
      line.options.threads = *count;
    } else if (flag == "--fixture") {
      auto text = value();
      if (!text || text->empty()) return fail("--fixture takes a JSON file");
      line.fixtureFile = std::string(*text);
    } else if (flag == "--user") {
      auto text = value();
      if (!text || text->empty()) return fail("--user takes a user id");
      line.users.push_back(UserSpec{std::string(*text), std::nullopt, std::nullopt});
    } else if (flag == "--token") {
      auto text = value();
      if (!text || text->empty()) return fail("--token takes a session token");
      if (line.users.empty() || line.users.back().token) {
        return fail("--token belongs right after the --user it is for");
      }
      line.users.back().token = std::string(*text);
    } else if (flag == "--sign-in-token") {
      auto text = value();
      if (!text || text->empty()) return fail("--sign-in-token takes a token");
      if (line.users.empty() || line.users.back().signInToken) {
        return fail("--sign-in-token belongs right after the --user it is for");
      }
      line.users.back().signInToken = std::string(*text);
    } else {
      return fail("unknown argument: " + std::string(arguments[i]));
    }
  }
  if (line.tlsCertificateFile.has_value() != line.tlsKeyFile.has_value()) {
    return fail("--tls-cert and --tls-key go together");
  }
  return CommandLineResult{std::move(line), {}};
}

std::string usage(std::string_view program) {
  std::string text;
  text += "Usage: ";
  text += program;
  text += R"( [options]

A Kel server for development and tests: the WebSocket protocol and HTTP on one port.

Its first line on stdout is one JSON object:
  {"kelURL": "http://HOST:PORT", "socketURL": "ws://HOST:PORT/kel/websocket", "port": PORT,
   "tls": false, "users": [{"id": ..., "token": ..., "sessionId": ...[, "signInToken": ...]}]}
(https and wss with TLS). Log lines go to stderr. SIGINT or SIGTERM stops it (exit status 0).

Options:
  --listen HOST:PORT       address to listen on; HOST is an IP literal, IPv6 in brackets
                           ([::1]:8080); port 0 picks a free one (default 127.0.0.1:0)
  --tls-cert FILE          serve TLS with this PEM certificate chain (leaf first) ...
  --tls-key FILE           ... and this PEM private key
  --user ID                add a user with a session; repeatable
  --token TOKEN            the session token of the preceding --user (default: random)
  --sign-in-token TOKEN    the token with which the preceding --user signs in over HTTP
                           (POST /login); without it the user can only resume sessions
  --fixture FILE           start-up data, one JSON object: "users", "contacts",
                           "presences", "directories", "groups" (see the README); users with
                           a "token" get a session with it, listed in the first line
  --session-lifetime S     lifetime of sessions in seconds (default 86400)
  --alert-lifetime S       seconds until a raised alert expires (default 300)
  --ping-period S          send the ping frame "0" every S seconds, 0 for never (default 30)
  --socket-path PATH       path of the advertised socket URL; its last component is the
                           sub-protocol that clients offer (default /kel/websocket); the upgrade
                           is accepted on any path
  --threads N              network threads (default 1)
  --auth-timeout S         close a socket that has not authenticated within S seconds with
                           4408, 0 for never (default 10)
  --record-frames N        keep the N most recent frames of authenticated sockets (default
                           10000; also bounded to 16 MiB, each cut to 64 KiB)
  --no-record              keep no frames and no sign-in attempts
  --log-frames             log every frame in and out (tokens shortened)
  --quiet                  no log lines
  -h, --help               this text

The socket speaks: "AUTH " + token (answered {"kapiId": ...}, or closed with 4401 for an unknown
or expired token); requests "2" + {"id","path","method","body"} answered "3" + {"id","status",
"body"}; a request before authentication is answered 401. The echo resource at /echo answers any
method with the request's body. Log lines escape control characters and never hold a whole token. HTTP: POST /login with {"token": <sign-in token>} and
POST /login/sessionToken with {"token": <session token>} answer the session data.
)";
  return text;
}

std::optional<std::string> loadTlsFiles(CommandLine& commandLine) {
  if (!commandLine.tlsCertificateFile) return std::nullopt;
  auto certificate = readFile(*commandLine.tlsCertificateFile);
  if (!certificate) return "cannot read " + *commandLine.tlsCertificateFile;
  auto key = readFile(*commandLine.tlsKeyFile);
  if (!key) return "cannot read " + *commandLine.tlsKeyFile;
  commandLine.options.tls = TlsOptions{std::move(*certificate), std::move(*key)};
  return std::nullopt;
}

std::string startupLine(const Urls& urls, bool tls, const std::vector<Session>& sessions,
                        const std::vector<std::optional<std::string>>& signInTokens) {
  nlohmann::ordered_json users = nlohmann::ordered_json::array();
  for (std::size_t i = 0; i < sessions.size(); ++i) {
    const auto& session = sessions[i];
    nlohmann::ordered_json user{
        {"id", session.userId}, {"token", session.token}, {"sessionId", session.sessionId}};
    if (i < signInTokens.size() && signInTokens[i]) user["signInToken"] = *signInTokens[i];
    users.push_back(std::move(user));
  }
  nlohmann::ordered_json line{{"kelURL", urls.kelURL},
                              {"socketURL", urls.socketURL},
                              {"port", urls.port},
                              {"tls", tls},
                              {"users", std::move(users)}};
  return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace kel::emulator
