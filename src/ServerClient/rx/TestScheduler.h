#pragma once
/// @file
/// Virtual time for tests: time only moves when the test says so, so time-based operators are
/// tested deterministically and instantly.

#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Event.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Observer.h"
#include "ServerClient/rx/Scheduler.h"
#include "ServerClient/rx/Subjects.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace kel::rx {

/// A value stamped with the virtual time at which it happened.
template <class E>
struct Recorded {
  TimePoint time;  ///< The virtual time; TestScheduler::at() makes one from an offset.
  E value;         ///< What happened: usually an Event.
  /// Same time and equal value.
  bool operator==(const Recorded&) const = default;
};

/// When a test observable was subscribed and disposed (or terminated, which disposes it).
struct SubscriptionRecord {
  TimePoint subscribed;               ///< When subscribe() was called.
  std::optional<TimePoint> disposed;  ///< When it was disposed or terminated; none while live.
  /// Same times.
  bool operator==(const SubscriptionRecord&) const = default;
};

class TestScheduler;

/// Records every notification with the virtual time it arrived at. Make it with
/// TestScheduler::createObserver() and subscribe it as an Observer (it converts). Records
/// everything it is given, also after a terminal event, so a test sees a broken contract. Not
/// thread-safe: for the test's own thread.
template <class T>
class TestableObserver final : public detail::ObserverBase<T> {
 public:
  /// An observer stamping with `scheduler`'s clock, which must outlive it.
  explicit TestableObserver(const TestScheduler& scheduler) : scheduler_(&scheduler) {}

  /// Records the element.
  void onNext(const T& value) override;
  /// Records the error.
  void onError(std::exception_ptr error) override;
  /// Records the completion.
  void onCompleted() override;

  /// Everything recorded, in order of arrival.
  const std::vector<Recorded<Event<T>>>& events() const noexcept { return events_; }
  /// Just the elements, in order.
  std::vector<T> values() const {
    std::vector<T> out;
    for (const auto& r : events_) {
      if (r.value.isNext()) out.push_back(r.value.value());
    }
    return out;
  }

 private:
  const TestScheduler* scheduler_;  // tests keep the scheduler alive longer than its observers
  std::vector<Recorded<Event<T>>> events_;
};

/// An observable scripted in virtual time that records its subscriptions. Made by
/// TestScheduler::createColdObservable() and TestScheduler::createHotObservable().
template <class T>
class TestableObservable {
 public:
  /// The scripted sequence.
  const Observable<T>& observable() const noexcept { return observable_; }
  /// Same as observable(), so that it can be passed where an Observable is expected.
  operator Observable<T>() const { return observable_; }  // NOLINT(google-explicit-constructor)
  /// One record per subscription so far, in order: when it started and when it ended.
  const std::vector<SubscriptionRecord>& subscriptions() const noexcept { return *records_; }

 private:
  friend class TestScheduler;
  TestableObservable(Observable<T> o, std::shared_ptr<std::vector<SubscriptionRecord>> r)
      : observable_(std::move(o)), records_(std::move(r)) {}
  Observable<T> observable_;
  std::shared_ptr<std::vector<SubscriptionRecord>> records_;
};

/// Runs scheduled work in virtual time on the thread that advances it. Work due at the same
/// instant runs in the order it was scheduled. Actions may schedule more work or dispose other
/// work while the clock advances. Not for concurrent use, except that disposing is thread-safe.
/// Create it with std::make_shared (operators take a SchedulerPtr).
class TestScheduler final : public Scheduler {
 public:
  /// A scheduler whose clock reads `start` (the epoch, TimePoint{}, by default).
  explicit TestScheduler(TimePoint start = TimePoint{});
  /// Releases the work that never ran (and what it holds) without running it.
  ~TestScheduler() override;
  TestScheduler(const TestScheduler&) = delete;
  TestScheduler& operator=(const TestScheduler&) = delete;

  /// The virtual time.
  TimePoint now() const override;
  /// Queues `action` at the current virtual time; it runs at the next advanceBy(), advanceTo()
  /// or start(), never inside this call.
  Disposable schedule(std::function<void()> action) override;
  /// Queues `action` at now + `due` (now for a non-positive `due`).
  Disposable scheduleAfter(Duration due, std::function<void()> action) override;
  /// Queues `action` at the virtual time `at` (now, when `at` has passed). Disposing the result
  /// removes it from the queue and releases it.
  Disposable scheduleAt(TimePoint at, std::function<void()> action);

  /// Runs everything due up to now + `by`, moving the clock to each item's time, and leaves the
  /// clock at now + `by`.
  void advanceBy(Duration by);
  /// Runs everything due up to `at`, then leaves the clock at `at` (or where it is, when `at` has
  /// passed already: time never goes back).
  void advanceTo(TimePoint at);
  /// Runs until no work is left (never returns with endless periodic work pending).
  void start();
  /// Work scheduled and neither run nor cancelled yet.
  std::size_t pendingCount() const;

  /// A time `offset` after the scheduler's epoch (TimePoint{}), for writing expectations.
  static TimePoint at(Duration offset) { return TimePoint{} + offset; }

  /// A TestableObserver stamping with this scheduler's clock.
  template <class T>
  std::shared_ptr<TestableObserver<T>> createObserver() const {
    return std::make_shared<TestableObserver<T>>(*this);
  }

  /// Each subscription replays `messages` with times taken relative to the subscription
  /// (time - epoch). A subscription's record ends when it is disposed or its sequence
  /// terminates. The scheduler must outlive the observable.
  template <class T>
  TestableObservable<T> createColdObservable(std::vector<Recorded<Event<T>>> messages);
  /// `messages` happen at their absolute times whether or not anyone is subscribed; scheduled
  /// now, so only messages at or after now are delivered at their time (earlier ones at once, at
  /// the next advance). Subscribers see those after their subscription.
  template <class T>
  TestableObservable<T> createHotObservable(std::vector<Recorded<Event<T>>> messages);

 private:
  struct Item;
  struct Queue;
  bool runNext(TimePoint limit);

  std::shared_ptr<Queue> queue_;
};

template <class T>
void TestableObserver<T>::onNext(const T& value) {
  events_.push_back({scheduler_->now(), Event<T>::next(value)});
}
template <class T>
void TestableObserver<T>::onError(std::exception_ptr error) {
  events_.push_back({scheduler_->now(), Event<T>::error(std::move(error))});
}
template <class T>
void TestableObserver<T>::onCompleted() {
  events_.push_back({scheduler_->now(), Event<T>::completed()});
}

template <class T>
TestableObservable<T> TestScheduler::createColdObservable(
    std::vector<Recorded<Event<T>>> messages) {
  auto records = std::make_shared<std::vector<SubscriptionRecord>>();
  auto list = std::make_shared<const std::vector<Recorded<Event<T>>>>(std::move(messages));
  auto observable = Observable<T>::create([this, records, list](Observer<T> observer) {
    std::size_t index = records->size();
    records->push_back({now(), std::nullopt});
    CompositeDisposable ctl;
    for (const auto& m : *list) {
      ctl.insert(scheduleAfter(m.time - TimePoint{}, [observer, e = m.value] { observer.on(e); }));
    }
    ctl.insert(Disposable::create([this, records, index] { (*records)[index].disposed = now(); }));
    return ctl.asDisposable();
  });
  return TestableObservable<T>(std::move(observable), std::move(records));
}

template <class T>
TestableObservable<T> TestScheduler::createHotObservable(std::vector<Recorded<Event<T>>> messages) {
  auto records = std::make_shared<std::vector<SubscriptionRecord>>();
  PublishSubject<T> subject;
  for (auto& m : messages) {
    scheduleAt(m.time,
               [observer = subject.asObserver(), e = std::move(m.value)] { observer.on(e); });
  }
  auto observable = Observable<T>::create([this, records, subject](Observer<T> observer) {
    std::size_t index = records->size();
    records->push_back({now(), std::nullopt});
    CompositeDisposable ctl;
    ctl.insert(subject.asObservable().subscribe(std::move(observer)));
    ctl.insert(Disposable::create([this, records, index] { (*records)[index].disposed = now(); }));
    return ctl.asDisposable();
  });
  return TestableObservable<T>(std::move(observable), std::move(records));
}

/// Shorthands for scripting and expecting recorded events at an offset from the epoch: an
/// element at `offset`.
template <class T>
Recorded<Event<T>> nextAt(Duration offset, T value) {
  return {TimePoint{} + offset, Event<T>::next(std::move(value))};
}
/// The completion at `offset` from the epoch.
template <class T>
Recorded<Event<T>> completedAt(Duration offset) {
  return {TimePoint{} + offset, Event<T>::completed()};
}
/// The error `error` at `offset` from the epoch.
template <class T>
Recorded<Event<T>> errorAt(Duration offset, std::exception_ptr error) {
  return {TimePoint{} + offset, Event<T>::error(std::move(error))};
}

}  // namespace kel::rx
