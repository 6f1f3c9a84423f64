#pragma once

// The server's form of an instant: milliseconds since 1970-01-01T00:00:00Z as a JSON number.

#include <chrono>
#include <cstdint>

namespace kel {

/// The instant `milliseconds` after the epoch, to the clock's precision. Throws
/// std::out_of_range when the count is not finite or lies outside the clock's range (about the
/// years 1678 to 2261), which the decoders turn into their decoding error.
std::chrono::system_clock::time_point timeFromEpochMilliseconds(double milliseconds);

/// Whole milliseconds since the epoch, truncated toward zero.
std::int64_t epochMilliseconds(std::chrono::system_clock::time_point time) noexcept;

}  // namespace kel
