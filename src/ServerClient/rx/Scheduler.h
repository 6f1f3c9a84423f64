#pragma once

#include "ServerClient/rx/Disposable.h"

#include <chrono>
#include <functional>
#include <memory>

namespace kel::rx {

/// Delays and periods of the reactive core.
using Duration = std::chrono::nanoseconds;
/// A scheduler's clock reading: steady time, or virtual time on a TestScheduler.
using TimePoint = std::chrono::steady_clock::time_point;

/// Where and when work runs. Time-based operators take their scheduler by injection so that tests
/// can run them in virtual time. Implementations are safe to call from any thread; an exception
/// thrown by an action goes to the unhandled-error hook.
class Scheduler {
 public:
  virtual ~Scheduler() = default;

  /// The scheduler's clock: steady_clock for the real schedulers, virtual time for TestScheduler.
  virtual TimePoint now() const = 0;
  /// Runs `action` soon, never inline in the caller. Disposing the result before it ran cancels it
  /// and releases the action.
  virtual Disposable schedule(std::function<void()> action) = 0;
  /// Runs `action` once `due` has elapsed (a non-positive `due` behaves like schedule()). Disposing
  /// the result cancels the timer and releases the action.
  virtual Disposable scheduleAfter(Duration due, std::function<void()> action) = 0;
};

/// How operators take their scheduler: shared, so that pending work keeps it alive.
using SchedulerPtr = std::shared_ptr<Scheduler>;

}  // namespace kel::rx
