#include "ServerClient/Utils/EpochMilliseconds.h"

#include <cmath>
#include <limits>
#include <stdexcept>

namespace kel {

std::chrono::system_clock::time_point timeFromEpochMilliseconds(double milliseconds) {
  using Duration = std::chrono::system_clock::duration;
  const std::chrono::duration<double, std::milli> count(milliseconds);
  // Compared in floating point, with a margin for rounding: converting an out-of-range count
  // would be undefined.
  constexpr auto limit = static_cast<double>(std::numeric_limits<Duration::rep>::max()) *
                         Duration::period::num / Duration::period::den * 1000.0 * 0.999;
  if (!std::isfinite(milliseconds) || std::fabs(milliseconds) >= limit) {
    throw std::out_of_range("instant out of range");
  }
  return std::chrono::system_clock::time_point(std::chrono::round<Duration>(count));
}

std::int64_t epochMilliseconds(std::chrono::system_clock::time_point time) noexcept {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

}  // namespace kel
