#include "ServerClient/Utils/RepeatBehavior.h"

#include <cmath>

namespace kel {

RepeatBehavior RepeatBehavior::immediate(std::uint64_t maxCount) {
  return RepeatBehavior(Kind::immediate, maxCount);
}

RepeatBehavior RepeatBehavior::delayed(std::uint64_t maxCount, double time) {
  RepeatBehavior behavior(Kind::delayed, maxCount);
  behavior.time_ = time;
  return behavior;
}

RepeatBehavior RepeatBehavior::exponentialDelayed(std::uint64_t maxCount, double initial,
                                                  double multiplier) {
  RepeatBehavior behavior(Kind::exponentialDelayed, maxCount);
  behavior.time_ = initial;
  behavior.multiplier_ = multiplier;
  return behavior;
}

RepeatBehavior RepeatBehavior::customTimerDelayed(std::uint64_t maxCount,
                                                  DelayCalculator delayCalculator) {
  RepeatBehavior behavior(Kind::customTimerDelayed, maxCount);
  behavior.delayCalculator_ = std::move(delayCalculator);
  return behavior;
}

RepeatBehavior::Conditions RepeatBehavior::conditions(std::uint64_t n) const {
  switch (kind_) {
    case Kind::immediate:
      return {maxCount_, 0};
    case Kind::delayed:
      return {maxCount_, time_};
    case Kind::exponentialDelayed:
      if (n <= 1) return {maxCount_, time_};
      return {maxCount_, time_ * std::pow(1 + multiplier_, static_cast<double>(n - 1))};
    case Kind::customTimerDelayed:
      return {maxCount_, delayCalculator_ ? delayCalculator_(n) : 0};
  }
  return {maxCount_, 0};
}

namespace detail {

std::optional<rx::Duration> repeatDelay(double seconds) noexcept {
  if (std::isnan(seconds) || std::isinf(seconds)) return std::nullopt;
  const double whole = std::trunc(seconds);
  if (whole >= static_cast<double>(kMaxRepeatDelay.count())) return kMaxRepeatDelay;
  if (whole <= 0) return rx::Duration::zero();
  return std::chrono::seconds(static_cast<std::int64_t>(whole));
}

}  // namespace detail

}  // namespace kel
