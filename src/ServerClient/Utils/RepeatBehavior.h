#pragma once

// A retry policy and the operator that applies it.
//
// Attempts are counted from 1, and maxCount is the total number of subscriptions: with
// delayed(30, 2.0) a source that keeps failing is subscribed 30 times, 2 seconds apart, and the
// 30th failure is passed on. The delay before attempt n + 1 is conditions(n).delay:
//
//   immediate             0 (resubscribe at once)
//   delayed               time
//   exponentialDelayed    initial for n = 1, initial * (1 + multiplier)^(n - 1) after that
//   customTimerDelayed    delayCalculator(n)
//
// A delay of 0 or less resubscribes at once; a positive one is waited on the scheduler in whole
// seconds, fractions dropped (1.5 s is waited as 1 s, 0.5 s as a zero-length wait on the
// scheduler). A delay that is not a number, or +infinity, cannot say when to retry, so the error
// is passed on instead; finite delays longer than kMaxRepeatDelay are waited as kMaxRepeatDelay,
// which keeps the timer's arithmetic from overflowing.

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Scheduler.h"

namespace kel {

/// The longest wait between two attempts: about 68 years, i.e. never in practice.
inline constexpr std::chrono::seconds kMaxRepeatDelay{std::int64_t{1} << 31};

/// How often and how far apart retry() resubscribes to a failing source (see the top of this
/// header). A value: copy it freely; `customTimerDelayed`'s calculator is shared by the copies
/// and called on the thread that handles the error.
class RepeatBehavior {
 public:
  /// The cases: no wait, the same wait each time, a wait growing by a factor each time, the
  /// wait a calculator gives.
  enum class Kind { immediate, delayed, exponentialDelayed, customTimerDelayed };
  /// The delay in seconds before the attempt after attempt `n`.
  using DelayCalculator = std::function<double(std::uint64_t n)>;

  /// What the behaviour says for one attempt.
  struct Conditions {
    std::uint64_t maxCount;  ///< subscriptions in all, the first included
    double delay;            ///< seconds
    /// Same count and delay.
    bool operator==(const Conditions&) const = default;
  };

  /// Up to `maxCount` subscriptions, each at once after the failure before.
  static RepeatBehavior immediate(std::uint64_t maxCount);
  /// Up to `maxCount` subscriptions, `time` seconds apart.
  static RepeatBehavior delayed(std::uint64_t maxCount, double time);
  /// Up to `maxCount` subscriptions; `initial` seconds before the second, then each wait
  /// (1 + `multiplier`) times the one before.
  static RepeatBehavior exponentialDelayed(std::uint64_t maxCount, double initial,
                                           double multiplier);
  /// Up to `maxCount` subscriptions, waiting `delayCalculator(n)` seconds after attempt n (no
  /// wait when the calculator is empty).
  static RepeatBehavior customTimerDelayed(std::uint64_t maxCount, DelayCalculator delayCalculator);

  /// Which case this is.
  Kind kind() const noexcept { return kind_; }
  /// Subscriptions in all, the first included.
  std::uint64_t maxCount() const noexcept { return maxCount_; }
  /// The conditions for attempt `n`, counted from 1.
  Conditions conditions(std::uint64_t n) const;

 private:
  RepeatBehavior(Kind kind, std::uint64_t maxCount) : kind_(kind), maxCount_(maxCount) {}

  Kind kind_;
  std::uint64_t maxCount_;
  double time_ = 0;  // delayed; initial of exponentialDelayed
  double multiplier_ = 0;
  DelayCalculator delayCalculator_;
};

namespace detail {
/// How long to wait for a positive delay of `seconds`, or nothing when the error must be passed on
/// instead.
std::optional<rx::Duration> repeatDelay(double seconds) noexcept;
}  // namespace detail

/// Resubscribes to `source` after each error as `behavior` allows, `attempt` being the number of
/// the first subscription (callers start at 1). `shouldRetry`, when given, may refuse an error,
/// which is then passed on. Waits run on `scheduler`. Elements and completion pass through.
/// Resubscriptions are trampolined, so a source that fails synchronously does not deepen the
/// stack however many immediate attempts are allowed. Disposing stops the current attempt and
/// cancels a wait in progress.
template <class T>
rx::Observable<T> retry(const rx::Observable<T>& source, std::uint64_t attempt,
                        RepeatBehavior behavior, rx::SchedulerPtr scheduler,
                        std::function<bool(std::exception_ptr)> shouldRetry = {}) {
  return source.retryWhen(
      [attempt, behavior = std::move(behavior), scheduler = std::move(scheduler),
       shouldRetry = std::move(shouldRetry)](rx::Observable<std::exception_ptr> errors) {
        // One counter per subscription: retryWhen calls this once for each.
        auto next = std::make_shared<std::uint64_t>(attempt);
        return errors.flatMap([next, behavior, scheduler, shouldRetry](std::exception_ptr error) {
          const std::uint64_t n = (*next)++;
          const auto conditions = behavior.conditions(n);
          if (n >= conditions.maxCount || (shouldRetry && !shouldRetry(error))) {
            return rx::Observable<rx::Unit>::error(std::move(error));
          }
          if (conditions.delay <= 0) return rx::Observable<rx::Unit>::just(rx::Unit{});
          auto delay = detail::repeatDelay(conditions.delay);
          if (!delay) return rx::Observable<rx::Unit>::error(std::move(error));
          return rx::Observable<rx::Unit>::just(rx::Unit{}).delaySubscription(*delay, scheduler);
        });
      });
}

/// The same for a Single.
template <class T>
rx::Single<T> retry(const rx::Single<T>& source, std::uint64_t attempt, RepeatBehavior behavior,
                    rx::SchedulerPtr scheduler,
                    std::function<bool(std::exception_ptr)> shouldRetry = {}) {
  return rx::Single<T>::unchecked(retry(source.asObservable(), attempt, std::move(behavior),
                                        std::move(scheduler), std::move(shouldRetry)));
}

/// The same for a Completable.
inline rx::Completable retry(const rx::Completable& source, std::uint64_t attempt,
                             RepeatBehavior behavior, rx::SchedulerPtr scheduler,
                             std::function<bool(std::exception_ptr)> shouldRetry = {}) {
  return rx::Completable::unchecked(retry(source.asObservable(), attempt, std::move(behavior),
                                          std::move(scheduler), std::move(shouldRetry)));
}

}  // namespace kel
