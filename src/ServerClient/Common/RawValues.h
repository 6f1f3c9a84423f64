#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace kel {

/// The wire texts of an enumeration whose enumerators count up from zero, in enumerator order:
///
///   constexpr RawValues<Color, 2> kColors{{"red", "green"}};
///   kColors.text(Color::green) == "green";  kColors.find("red") == Color::red
template <class Enum, std::size_t N>
struct RawValues {
  std::array<std::string_view, N> texts;  ///< the text of each enumerator, by its value

  /// The text of `value`, which must be one of the N enumerators.
  constexpr std::string_view text(Enum value) const noexcept {
    return texts[static_cast<std::size_t>(value)];
  }
  /// The enumerator of `text`; nothing for any other text.
  constexpr std::optional<Enum> find(std::string_view text) const noexcept {
    for (std::size_t i = 0; i < N; ++i) {
      if (texts[i] == text) return static_cast<Enum>(i);
    }
    return std::nullopt;
  }
};

}  // namespace kel
