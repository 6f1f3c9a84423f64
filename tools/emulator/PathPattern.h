#pragma once

// Paths of the routers, socket and HTTP alike.
//
// A pattern is a path of literal segments and ":name" segments, each of which captures one
// segment: "/sessions", "/users/:userId/contacts". A pattern matches every path that begins with
// its segments, so "/sessions/abc" and "/sessions/abc/x" reach "/sessions"; what follows is the
// match's `rest` ("abc", "abc/x"), empty for an exact match. This is how the server's resources
// are shaped: a collection path, optionally followed by an identifier.
//
// Among the patterns that match a path the most specific wins: the one with more segments, then
// the one with more literal segments. Empty segments ("/a//b", a trailing "/") are ignored on both
// sides. Segments compare after percent-decoding, case-sensitively.

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kel::emulator {

/// A request target ("/path?query") taken apart.
struct Target {
  /// The path as sent, without the query.
  std::string path;
  /// The path's non-empty segments, percent-decoded.
  std::vector<std::string> segments;
  /// The query's parameters in order, percent-decoded ("+" is a space); a key without "=" has an
  /// empty value.
  std::vector<std::pair<std::string, std::string>> query;

  /// The value of the first query parameter with that key.
  std::optional<std::string> queryValue(std::string_view key) const;
};

/// Nothing when `target` is not an origin-form request target (it must start with "/"; a
/// fragment or a bad percent-escape is refused).
std::optional<Target> parseTarget(std::string_view target);

class PathPattern {
 public:
  struct Match {
    std::map<std::string, std::string, std::less<>> params;
    std::string rest;
  };

  /// Throws std::invalid_argument when `pattern` does not start with "/" or has a ":" segment
  /// without a name.
  explicit PathPattern(std::string_view pattern);

  std::optional<Match> match(const std::vector<std::string>& segments) const;

  /// Orders patterns by specificity: positive when this one beats `other`.
  int compareSpecificity(const PathPattern& other) const noexcept;

  const std::string& text() const noexcept { return text_; }

 private:
  struct Segment {
    std::string text;  // the literal, or the parameter's name
    bool isParam = false;
  };

  std::string text_;
  std::vector<Segment> segments_;
  std::size_t literalCount_ = 0;
};

}  // namespace kel::emulator
