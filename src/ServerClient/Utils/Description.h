#pragma once

// The text form of records, for logs and debugging. A record gets it by listing its fields with
// Boost.Describe next to its definition:
//
//   struct Session { std::string id; std::optional<std::string> name; };
//   BOOST_DESCRIBE_STRUCT(Session, (), (id, name))
//
// description(session) is then
//
//   ***** ServerClient.Session *****
//   id: 42
//   name: nil
//
// one "field: value" line per non-static data member in declaration order (members of described
// bases first, private members of BOOST_DESCRIBE_CLASS classes included). The type is named
// "ServerClient." followed by its C++ name without the `kel` namespace, "::" written as "."
// (kel::Outer::Inner -> ServerClient.Outer.Inner).
//
// Values are written as follows:
//   text                 as is on a field's own line; in double quotes, with `"` and `\`
//                        escaped, inside containers and nested records
//   integers             decimal
//   floating numbers     shortest text that reads back to the same value, always with a "." or an
//                        exponent (2 -> "2.0", 0.1 -> "0.1", 1e20 -> "1e+20"); "nan", "inf"
//   truth values         "true" / "false"
//   optionals, pointers  "nil" when empty, otherwise the value's form
//   sequences and sets   "[a, b, c]"
//   maps                 "[key: value, ...]", the empty map "[:]"
//   nested records       "Type(field: value, field: value)"
//   enumerations         the enumerator's name when described with BOOST_DESCRIBE_ENUM,
//                        otherwise the text of an ADL `rawValue(e)` when there is one,
//                        otherwise the underlying number
//   variants             the form of the alternative held
//   system_clock times   ISO 8601 in UTC with milliseconds, "2024-05-06T10:11:12.345Z"
//   JSON values          compact JSON (invalid UTF-8 replaced by U+FFFD)
//   anything else        its operator<< when it has one; otherwise a compile-time error
//
// Secrets never show: the value of a field, a map entry or a JSON member whose name is a
// secret's (isSecretName in Common/SafeText.h: token, password, cookie...) reads "<redacted>".

#include <boost/describe/enum_to_string.hpp>
#include <boost/describe/enumerators.hpp>
#include <boost/describe/members.hpp>
#include <boost/describe/modifiers.hpp>
#include <boost/mp11/algorithm.hpp>

#include <nlohmann/json_fwd.hpp>

#include <charconv>
#include <chrono>
#include <concepts>
#include <iterator>
#include <optional>
#include <ostream>
#include <ranges>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <variant>

#include "ServerClient/Common/SafeText.h"

namespace kel {

/// A record whose fields are listed with BOOST_DESCRIBE_STRUCT or BOOST_DESCRIBE_CLASS.
template <class T>
concept DescribedRecord = boost::describe::has_describe_members<T>::value;

namespace detail {

/// The record name of a type from its run-time type information: "Outer.Inner" for
/// kel::Outer::Inner (anonymous namespaces dropped).
std::string recordTypeName(const std::type_info& type);

void appendFloating(std::string& out, double value);
void appendFloating(std::string& out, float value);
void appendTime(std::string& out, std::chrono::system_clock::time_point time);
void appendJson(std::string& out, const nlohmann::json& value);
void appendJson(std::string& out, const nlohmann::ordered_json& value);
void appendQuoted(std::string& out, std::string_view text);

template <class T>
inline constexpr bool alwaysFalse = false;

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <class T>
struct IsVariant : std::false_type {};
template <class... Ts>
struct IsVariant<std::variant<Ts...>> : std::true_type {};

template <class T>
struct IsSystemTime : std::false_type {};
template <class D>
struct IsSystemTime<std::chrono::time_point<std::chrono::system_clock, D>> : std::true_type {};

template <class T>
concept TextLike = std::is_convertible_v<const T&, std::string_view>;

template <class T>
concept PointerLike = requires(const T& p) {
  static_cast<bool>(p);
  *p;
}
&&!std::is_array_v<T> && !TextLike<T>;

template <class T>
concept MapLike = requires {
  typename T::key_type;
  typename T::mapped_type;
}
&&std::ranges::input_range<T>;

template <class T>
concept HasRawValue = requires(const T& value) {
  { rawValue(value) } -> std::convertible_to<std::string_view>;
};

template <class T>
concept Streamable = requires(std::ostream& os, const T& value) {
  os << value;
};

template <class T>
using DescribedMembers = boost::describe::describe_members<T, boost::describe::mod_any_access |
                                                                  boost::describe::mod_inherited>;

template <class T>
void appendValue(std::string& out, const T& value, bool nested);

template <DescribedRecord T>
void appendInlineRecord(std::string& out, const T& value) {
  out += recordTypeName(typeid(T));
  out += '(';
  bool first = true;
  boost::mp11::mp_for_each<DescribedMembers<T>>([&](auto member) {
    if (!first) out += ", ";
    first = false;
    out += member.name;
    out += ": ";
    if (isSecretName(member.name)) {
      out += kRedacted;
    } else {
      appendValue(out, value.*member.pointer, true);
    }
  });
  out += ')';
}

/// Appends `value`'s text form. `nested` is true inside containers and nested records, where
/// texts are quoted so that separators in them stay readable.
template <class T>
void appendValue(std::string& out, const T& value, bool nested) {
  if constexpr (std::is_same_v<T, bool>) {
    out += value ? "true" : "false";
  } else if constexpr (TextLike<T>) {
    const std::string_view text = value;
    if (nested) {
      appendQuoted(out, text);
    } else {
      out += text;
    }
  } else if constexpr (std::is_enum_v<T>) {
    if constexpr (boost::describe::has_describe_enumerators<T>::value) {
      if (const char* name = boost::describe::enum_to_string(value, nullptr)) {
        out += name;
        return;
      }
      appendValue(out, static_cast<std::underlying_type_t<T>>(value), nested);
    } else if constexpr (HasRawValue<T>) {
      out += std::string_view(rawValue(value));
    } else {
      appendValue(out, static_cast<std::underlying_type_t<T>>(value), nested);
    }
  } else if constexpr (std::is_integral_v<T>) {
    char digits[24];
    const auto result = std::to_chars(std::begin(digits), std::end(digits), value);
    out.append(digits, result.ptr);
  } else if constexpr (std::is_floating_point_v<T>) {
    if constexpr (std::is_same_v<T, float>) {
      appendFloating(out, value);
    } else {
      appendFloating(out, static_cast<double>(value));
    }
  } else if constexpr (std::is_same_v<T, nlohmann::json> ||
                       std::is_same_v<T, nlohmann::ordered_json>) {
    appendJson(out, value);
  } else if constexpr (IsSystemTime<T>::value) {
    appendTime(out, std::chrono::time_point_cast<std::chrono::system_clock::duration>(value));
  } else if constexpr (IsOptional<T>::value) {
    if (value) {
      appendValue(out, *value, nested);
    } else {
      out += "nil";
    }
  } else if constexpr (IsVariant<T>::value) {
    std::visit([&](const auto& alternative) { appendValue(out, alternative, nested); }, value);
  } else if constexpr (DescribedRecord<T>) {
    appendInlineRecord(out, value);
  } else if constexpr (PointerLike<T>) {
    if (value) {
      appendValue(out, *value, nested);
    } else {
      out += "nil";
    }
  } else if constexpr (MapLike<T>) {
    if (std::ranges::empty(value)) {
      out += "[:]";
      return;
    }
    out += '[';
    bool first = true;
    for (const auto& [key, mapped] : value) {
      if (!first) out += ", ";
      first = false;
      appendValue(out, key, true);
      out += ": ";
      if constexpr (TextLike<typename T::key_type>) {
        if (isSecretName(std::string_view(key))) {
          out += kRedacted;
          continue;
        }
      }
      appendValue(out, mapped, true);
    }
    out += ']';
  } else if constexpr (std::ranges::input_range<T>) {
    out += '[';
    bool first = true;
    for (const auto& element : value) {
      if (!first) out += ", ";
      first = false;
      appendValue(out, element, true);
    }
    out += ']';
  } else if constexpr (Streamable<T>) {
    std::ostringstream stream;
    stream << value;
    out += stream.str();
  } else {
    static_assert(alwaysFalse<T>, "no text form for this field type; give it an operator<<");
  }
}

}  // namespace detail

/// "ServerClient." followed by the record's type name, e.g. "ServerClient.Session".
template <class T>
const std::string& fullyQualifiedTypeName() {
  static const std::string name = "ServerClient." + detail::recordTypeName(typeid(T));
  return name;
}

/// The multi-line text form of a record (see the top of this header).
template <DescribedRecord T>
std::string description(const T& value) {
  std::string out = "***** ";
  out += fullyQualifiedTypeName<T>();
  out += " *****\n";
  boost::mp11::mp_for_each<detail::DescribedMembers<T>>([&](auto member) {
    out += member.name;
    out += ": ";
    if (isSecretName(member.name)) {
      out += kRedacted;
    } else {
      detail::appendValue(out, value.*member.pointer, false);
    }
    out += '\n';
  });
  return out;
}

/// The text form of one value as it appears after "field: " in a description.
template <class T>
std::string textForm(const T& value) {
  std::string out;
  detail::appendValue(out, value, false);
  return out;
}

/// Writes `description(value)`; found by argument-dependent lookup for every described record
/// of the library.
template <DescribedRecord T>
std::ostream& operator<<(std::ostream& os, const T& value) {
  return os << description(value);
}

}  // namespace kel
