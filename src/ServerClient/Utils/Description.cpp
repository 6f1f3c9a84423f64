#include "ServerClient/Utils/Description.h"

#include <nlohmann/json.hpp>

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace kel::detail {
namespace {

bool isIdentifierChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

}  // namespace

std::string recordTypeName(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  const std::string_view cxxName = status == 0 && demangled ? demangled.get() : type.name();

  // Copied rather than edited in place: drops anonymous namespaces and the library's namespace
  // wherever a qualified name starts (also inside template arguments), and writes the remaining
  // scopes with "." the way module-qualified names read.
  constexpr std::string_view kAnonymous = "(anonymous namespace)::";
  constexpr std::string_view kLibrary = "kel::";
  std::string name;
  name.reserve(cxxName.size());
  for (std::size_t at = 0; at < cxxName.size();) {
    const std::string_view rest = cxxName.substr(at);
    const bool startsName = at == 0 || !isIdentifierChar(cxxName[at - 1]);
    if (rest.starts_with(kAnonymous)) {
      at += kAnonymous.size();
    } else if (startsName && rest.starts_with(kLibrary)) {
      at += kLibrary.size();
    } else if (rest.starts_with("::")) {
      name += '.';
      at += 2;
    } else {
      name += cxxName[at++];
    }
  }
  return name;
}

namespace {

template <class F>
void appendShortest(std::string& out, F value) {
  char text[64];
  const auto result = std::to_chars(std::begin(text), std::end(text), value);
  const std::string_view written(text, static_cast<std::size_t>(result.ptr - text));
  out += written;
  // "2.0", not "2": a floating number should not read like an integer.
  if (written.find_first_of(".eni") == std::string_view::npos) out += ".0";
}

}  // namespace

void appendFloating(std::string& out, double value) {
  appendShortest(out, value);
}

void appendFloating(std::string& out, float value) {
  appendShortest(out, value);
}

void appendTime(std::string& out, std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const auto millis = floor<milliseconds>(time);
  const auto day = floor<days>(millis);
  const year_month_day date(day);
  const hh_mm_ss clock(millis - day);
  char text[48];
  const int length = std::snprintf(
      text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
      static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
  if (length > 0) out.append(text, static_cast<std::size_t>(length));
}

void appendJson(std::string& out, const nlohmann::json& value) {
  out += redactSecrets(value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

void appendJson(std::string& out, const nlohmann::ordered_json& value) {
  out +=
      redactSecrets(value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

void appendQuoted(std::string& out, std::string_view text) {
  out += '"';
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
}

}  // namespace kel::detail
