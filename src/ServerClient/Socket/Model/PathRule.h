#pragma once

#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace kel {

/// One step that turns a path enumeration's raw text into the path sent on the wire.
struct PathRule {
  /// What the rule does with its value.
  enum class Operation {
    interpolation,  ///< every ":id" in the path so far becomes `value`
    append,         ///< the path so far, "/", then `value` (a leading "/" in it doubles)
    query,          ///< the path so far immediately followed by `value`, a ready query text
  };

  /// `ruleOperation` with `ruleValue`.
  PathRule(std::string ruleValue, Operation ruleOperation)
      : value(std::move(ruleValue)), operation(ruleOperation) {}

  /// Replaces every ":id" with `value`.
  static PathRule interpolation(std::string value) {
    return {std::move(value), Operation::interpolation};
  }
  /// Appends "/" and `value`, as it is: an identifier is not percent-encoded.
  static PathRule append(std::string value) { return {std::move(value), Operation::append}; }
  /// Appends `value`, a ready query text such as QueryBuilder::build() makes.
  static PathRule query(std::string value) { return {std::move(value), Operation::query}; }

  /// Same value and operation.
  bool operator==(const PathRule&) const = default;

  std::string value;    ///< the text the operation uses
  Operation operation;  ///< what is done with it
};

/// The case's name, e.g. "append".
std::string_view name(PathRule::Operation operation) noexcept;

/// Applies `rules` in order to `rawPath`, each to the result of the one before.
std::string applyPathRules(std::string_view rawPath, std::span<const PathRule> rules);

}  // namespace kel
