#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ServerClient/Socket/Model/PathRepresentable.h"
#include "ServerClient/Socket/Model/PathRule.h"

namespace kel {

/// A path case with its rules, and the finished path that goes on the wire. The value is worked
/// out once, at construction; a Pathname never changes afterwards.
template <PathRepresentable Path>
class Pathname {
 public:
  /// A bare path case is a pathname without rules, so it converts implicitly.
  Pathname(Path path) : Pathname(path, {}) {}  // NOLINT(google-explicit-constructor)

  /// The case's raw text with `rules` applied in order (see applyPathRules).
  Pathname(Path path, std::vector<PathRule> rules)
      : path_(path), rules_(std::move(rules)), value_(applyPathRules(rawValue(path_), rules_)) {}

  /// The path case.
  Path path() const noexcept { return path_; }
  /// The rules applied to it.
  const std::vector<PathRule>& rules() const noexcept { return rules_; }
  /// The path on the wire.
  const std::string& value() const noexcept { return value_; }

  /// Same case, rules and value.
  bool operator==(const Pathname&) const = default;

 private:
  Path path_;
  std::vector<PathRule> rules_;
  std::string value_;
};

}  // namespace kel
