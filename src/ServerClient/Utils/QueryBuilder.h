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
  QueryValue(std::string text) : text_(std::move(text)) {}
  QueryValue(std::string_view text) : text_(text) {}
  QueryValue(const char* text) : text_(text) {}
  QueryValue(bool value) : text_(value ? "true" : "false") {}
  template <std::integral I>
  requires(!std::same_as<I, bool> && !std::same_as<I, char>) QueryValue(I value)
      : text_(std::to_string(value)) {}
  QueryValue(double value);

  const std::string& text() const noexcept { return text_; }

 private:
  std::string text_;
};

class QueryBuilder {
 public:
  using Parameters = std::map<std::string, std::optional<QueryValue>, std::less<>>;

  explicit QueryBuilder(Parameters params) : params_(std::move(params)) {}
  // Spelled out so that one text pair, {{"name", "value"}}, is not read as an iterator range.
  QueryBuilder(std::initializer_list<Parameters::value_type> params) : params_(params) {}

  /// "?" followed by the items whose value is present, or "" when there are none.
  std::string build() const;

 private:
  Parameters params_;
};

}  // namespace kel
