#pragma once

// A domain service names its server resources with a scoped enumeration `Path` whose cases carry
// their resource path as raw text. The raw texts are declared once, next to the enumeration, in a
// table that the compiler checks:
//
//   class KelPresencesService {
//    public:
//     enum class Path { presence, batchPresence };
//     friend constexpr auto pathTable(Path) {
//       return kel::makePathTable<Path>({
//           {Path::presence, "/presence"},
//           {Path::batchPresence, "/batch/presence"},
//       });
//     }
//   };
//
// The table must list every case exactly once, in declaration order, with a non-empty raw text
// that no other case uses; anything else fails to compile with an error naming the broken rule
// (one of the detail::pathTable... functions below). The hook is found by argument-dependent
// lookup, so it is a hidden friend for an enumeration nested in a class and a plain constexpr
// function in the enumeration's namespace otherwise.
//
// The cases must keep their implicit values (0, 1, 2, ...): rawValue() is then an array index.

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string_view>
#include <type_traits>

namespace kel {

/// One case of a path enumeration and its raw text.
template <class Path>
struct PathEntry {
  Path path;                  ///< the case
  std::string_view rawValue;  ///< its resource path on the server
};

/// The checked raw texts of a path enumeration, one entry per case in declaration order.
template <class Path, std::size_t N>
struct PathTable {
  std::array<PathEntry<Path>, N> entries;  ///< one per case, in declaration order
};

namespace detail {

// Deliberately not constexpr: calling one during constant evaluation is a compile error whose
// message names the function, and so the rule that the table breaks.
inline void pathTableMustListEveryCaseOnceInDeclarationOrder() {}
inline void pathTableMustListEveryCaseUpToTheLast() {}
inline void pathTableRawValuesMustNotBeEmpty() {}
inline void pathTableRawValuesMustBeUnique() {}

// True when V is one of the enumeration's named cases. GCC and Clang print a named case by its
// (qualified) name and any other value as a cast such as "(Path)3".
template <auto V>
consteval bool isNamedEnumerator() {
#if defined(__GNUC__) || defined(__clang__)
  constexpr std::string_view signature = __PRETTY_FUNCTION__;
  constexpr std::string_view marker = "V = ";
  constexpr std::size_t at = signature.find(marker);
  if constexpr (at == std::string_view::npos || at + marker.size() >= signature.size()) {
    return false;
  } else {
    constexpr char first = signature[at + marker.size()];
    return first == '_' || (first >= 'a' && first <= 'z') || (first >= 'A' && first <= 'Z');
  }
#else
  return false;  // cannot tell: the check for a forgotten last case is skipped
#endif
}

template <class E>
inline constexpr bool isScopedEnum = std::is_enum_v<E> && !std::is_convertible_v<E, int>;

template <class T, class Path>
inline constexpr bool isPathTableFor = false;
template <class Path, std::size_t N>
inline constexpr bool isPathTableFor<PathTable<Path, N>, Path> = true;

}  // namespace detail

/// Builds the checked table of a path enumeration (see the top of this header). Runs only at
/// compile time.
template <class Path, std::size_t N>
consteval PathTable<Path, N> makePathTable(const PathEntry<Path> (&entries)[N]) {
  static_assert(detail::isScopedEnum<Path>, "a path enumeration must be an enum class");
  static_assert(N > 0, "a path enumeration needs at least one case");
  PathTable<Path, N> table{};
  for (std::size_t i = 0; i < N; ++i) {
    if (static_cast<long long>(entries[i].path) != static_cast<long long>(i)) {
      detail::pathTableMustListEveryCaseOnceInDeclarationOrder();
    }
    if (entries[i].rawValue.empty()) detail::pathTableRawValuesMustNotBeEmpty();
    for (std::size_t j = 0; j < i; ++j) {
      if (entries[j].rawValue == entries[i].rawValue) detail::pathTableRawValuesMustBeUnique();
    }
    table.entries[i] = entries[i];
  }
  if (detail::isNamedEnumerator<static_cast<Path>(N)>()) {
    detail::pathTableMustListEveryCaseUpToTheLast();
  }
  return table;
}

/// A scoped enumeration whose cases have raw texts (declared with makePathTable), convertible
/// both ways with rawValue() and pathFromRawValue(), and hashable.
template <class Path>
concept PathRepresentable = detail::isScopedEnum<Path> && requires(Path path) {
  requires detail::isPathTableFor<decltype(pathTable(path)), Path>;
  { std::hash<Path>{}(path) } -> std::convertible_to<std::size_t>;
};

namespace detail {
template <class Path>
inline constexpr auto pathTableOf = pathTable(Path{});
}  // namespace detail

/// The raw text of a path case: the resource path on the server.
template <PathRepresentable Path>
constexpr std::string_view rawValue(Path path) noexcept {
  const auto& entries = detail::pathTableOf<Path>.entries;
  const auto index = static_cast<std::size_t>(path);
  // Only a value cast from outside the enumeration can miss the table.
  return index < entries.size() ? entries[index].rawValue : std::string_view{};
}

/// The path case whose raw text is exactly `raw`, if any.
template <PathRepresentable Path>
constexpr std::optional<Path> pathFromRawValue(std::string_view raw) noexcept {
  for (const auto& entry : detail::pathTableOf<Path>.entries) {
    if (entry.rawValue == raw) return entry.path;
  }
  return std::nullopt;
}

/// Every case of a path enumeration, in declaration order.
template <PathRepresentable Path>
constexpr auto allPaths() noexcept {
  constexpr auto& entries = detail::pathTableOf<Path>.entries;
  std::array<Path, entries.size()> paths{};
  for (std::size_t i = 0; i < entries.size(); ++i) paths[i] = entries[i].path;
  return paths;
}

}  // namespace kel
