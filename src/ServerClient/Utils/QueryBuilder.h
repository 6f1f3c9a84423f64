#pragma once

// Query strings for the server's addresses.
//
// Items are written "name=value", joined by "&", in the map's order: std::map, so ascending
// byte order of the names, the same for every run. Names and values are percent-encoded by
// Boost.URL (UTF-8 bytes, upper-case hex digits). Left as they are: letters, digits and
//   - . _ ~ ! $ ' ( ) * , : @ / ?
// Everything else is encoded, including the space ("%20", never "+") and, although a query may
// hold them literally, "&", "=", "+" and ";": "&" and "=" would split an item, many servers read
// "+" as a space, and some split items at ";".
//   {"q": "a+b c", "x&y": "1=2"}  ->  "?q=a%2Bb%20c&x%26y=1%3D2"

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kel {

/// One query value: text, an integer, a floating number or a truth value, kept as the text it is
/// written as (decimal digits; floating numbers as in record descriptions, 2 -> "2.0";
/// "true"/"false").
///
/// The constructors are implicit so that parameters read {{"limit", 20}, {"name", "x"}}. A
/// `char` is refused (ambiguous) rather than silently written as its code.
class QueryValue {
 public:
  /// The text as it is (encoded when the query is built).
  QueryValue(std::string text) : text_(std::move(text)) {}
  /// The text as it is.
  QueryValue(std::string_view text) : text_(text) {}
  /// The text as it is; `text` must not be null.
  QueryValue(const char* text) : text_(text) {}
  /// "true" or "false".
  QueryValue(bool value) : text_(value ? "true" : "false") {}
  /// Decimal digits, with a leading "-" for a negative value.
  template <std::integral I>
  requires(!std::same_as<I, bool> && !std::same_as<I, char>) QueryValue(I value)
      : text_(std::to_string(value)) {}
  /// The shortest text that reads back to `value`, always with a "." or an exponent.
  QueryValue(double value);

  /// The value's text, before percent-encoding.
  const std::string& text() const noexcept { return text_; }

 private:
  std::string text_;
};

/// The query string of a request path from named values (see the top of this header); a
/// value left empty is left out. Pure computation: no state shared, safe anywhere.
///
///   QueryBuilder({{"limit", 20}, {"before", std::nullopt}, {"q", "a b"}}).build()
///   // "?limit=20&q=a%20b"
class QueryBuilder {
 public:
  /// Names and their values, kept in name order; an empty value leaves its item out.
  using Parameters = std::map<std::string, std::optional<QueryValue>, std::less<>>;

  /// The items of `params`.
  explicit QueryBuilder(Parameters params) : params_(std::move(params)) {}
  /// The items listed in braces; a name given twice keeps its first value.
  // Spelled out so that one text pair, {{"name", "value"}}, is not read as an iterator range.
  QueryBuilder(std::initializer_list<Parameters::value_type> params) : params_(params) {}

  /// "?" followed by the items whose value is present, or "" when there are none.
  std::string build() const;

 private:
  Parameters params_;
};

}  // namespace kel
