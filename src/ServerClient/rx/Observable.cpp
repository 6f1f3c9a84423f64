#include "ServerClient/rx/Observable.h"

namespace kel::rx {

namespace {

/// timer() and interval(). Each tick is scheduled against the start time rather than the previous
/// tick, so periods don't drift. The mutex only orders the re-arming of the timer: the first arm
/// (from the subscriber's thread) and a tick (on the scheduler) must not overwrite each other.
class TimerSink final : public std::enable_shared_from_this<TimerSink> {
 public:
  TimerSink(Observer<std::int64_t> down, SchedulerPtr scheduler, std::optional<Duration> period)
      : down_(std::move(down)),
        serial_(std::make_shared<detail::SerialState>()),
        scheduler_(std::move(scheduler)),
        period_(period) {}

  Disposable run(Duration due) {
    start_ = scheduler_->now() + due;
    arm(start_);
    return Disposable(serial_);
  }

 private:
  void arm(TimePoint at) {
    std::lock_guard lock(mutex_);
    serial_->set(scheduler_->scheduleAfter(at - scheduler_->now(),
                                           [self = shared_from_this()] { self->tick(); }));
  }
  void tick() {
    if (serial_->isDisposed()) return;
    std::int64_t n = count_++;
    down_.onNext(n);
    if (!period_) {
      auto down = std::exchange(down_, Observer<std::int64_t>());
      if (!serial_->isDisposed()) down.onCompleted();
      serial_->dispose();
      return;
    }
    if (!serial_->isDisposed()) arm(start_ + *period_ * count_);
  }

  std::mutex mutex_;
  Observer<std::int64_t> down_;  // touched only by ticks, which never overlap
  std::shared_ptr<detail::SerialState> serial_;
  SchedulerPtr scheduler_;
  std::optional<Duration> period_;
  TimePoint start_{};
  std::int64_t count_ = 0;
};

Observable<std::int64_t> makeTimer(Duration due, std::optional<Duration> period,
                                   SchedulerPtr scheduler) {
  return detail::makeObservable<std::int64_t>(
      [due, period, s = std::move(scheduler)](Observer<std::int64_t> o) {
        return std::make_shared<TimerSink>(std::move(o), s, period)->run(due);
      });
}

}  // namespace

Observable<std::int64_t> interval(Duration period, SchedulerPtr scheduler) {
  return makeTimer(period, period, std::move(scheduler));
}

Observable<std::int64_t> timer(Duration due, SchedulerPtr scheduler) {
  return makeTimer(due, std::nullopt, std::move(scheduler));
}

Observable<std::int64_t> timer(Duration due, Duration period, SchedulerPtr scheduler) {
  return makeTimer(due, period, std::move(scheduler));
}

// --- Completable
// ----------------------------------------------------------------------------------

Completable::Completable() : source_(Observable<Unit>::never()) {}

Completable Completable::create(std::function<Disposable(CompletableObserver)> subscribe) {
  return Completable(Observable<Unit>::create([f = std::move(subscribe)](Observer<Unit> o) {
    return f(CompletableObserver(std::move(o)));
  }));
}
Completable Completable::empty() {
  return Completable(Observable<Unit>::empty());
}
Completable Completable::error(std::exception_ptr error) {
  return Completable(Observable<Unit>::error(std::move(error)));
}
Completable Completable::never() {
  return Completable(Observable<Unit>::never());
}
Completable Completable::deferred(std::function<Completable()> factory) {
  return Completable(Observable<Unit>::deferred([f = std::move(factory)] { return f().source_; }));
}
Completable Completable::merge(std::vector<Completable> sources) {
  std::vector<Observable<Unit>> list;
  list.reserve(sources.size());
  for (auto& s : sources) list.push_back(std::move(s.source_));
  return Completable(Observable<Unit>::merge(std::move(list)));
}

Disposable Completable::subscribe(std::function<void()> onCompleted,
                                  std::function<void(std::exception_ptr)> onError) const {
  return source_.subscribe(nullptr, std::move(onError), std::move(onCompleted));
}

Completable Completable::andThen(Completable next) const {
  return Completable(source_.concat(std::move(next.source_)));
}
Completable Completable::timeout(Duration due, SchedulerPtr scheduler) const {
  return Completable(source_.timeout(due, std::move(scheduler)));
}
Completable Completable::retry(std::size_t maxAttemptCount) const {
  return Completable(source_.retry(maxAttemptCount));
}
Completable Completable::delaySubscription(Duration due, SchedulerPtr scheduler) const {
  return Completable(source_.delaySubscription(due, std::move(scheduler)));
}
Completable Completable::subscribeOn(SchedulerPtr scheduler) const {
  return Completable(source_.subscribeOn(std::move(scheduler)));
}
Completable Completable::observeOn(SchedulerPtr scheduler) const {
  return Completable(source_.observeOn(std::move(scheduler)));
}
Completable Completable::doOnCompleted(std::function<void()> f) const {
  return Completable(source_.doOnCompleted(std::move(f)));
}
Completable Completable::doOnError(std::function<void(std::exception_ptr)> f) const {
  return Completable(source_.doOnError(std::move(f)));
}
Completable Completable::doOnSubscribe(std::function<void()> f) const {
  return Completable(source_.doOnSubscribe(std::move(f)));
}
Completable Completable::doOnDispose(std::function<void()> f) const {
  return Completable(source_.doOnDispose(std::move(f)));
}
Completable Completable::amb(Completable other) const {
  return Completable(source_.amb(std::move(other.source_)));
}

}  // namespace kel::rx
