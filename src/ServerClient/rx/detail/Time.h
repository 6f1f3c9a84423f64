#pragma once
// Internal: included by Observable.h. Operators driven by a scheduler. Scheduled actions hold
// their sink strongly (a pending timer must fire even if nobody kept the subscription handle);
// the cycle sink -> control -> timer -> action -> sink is cut when the timer fires or is
// cancelled, and every scheduler releases the actions it will never run.

namespace kel::rx {
namespace detail {

template <class T>
class TimeoutSink final : public std::enable_shared_from_this<TimeoutSink<T>> {
 public:
  TimeoutSink(Observer<T> down, Duration due, SchedulerPtr scheduler,
              std::optional<Observable<T>> other)
      : ctl_(std::make_shared<CompositeState>()),
        timer_(std::make_shared<SerialState>()),
        upstream_(std::make_shared<SerialState>()),
        emitter_(std::move(down), ctl_.get()),
        due_(due),
        scheduler_(std::move(scheduler)),
        other_(std::move(other)) {
    ctl_->insert(Disposable(timer_));
    ctl_->insert(Disposable(upstream_));
  }

  Disposable run(const Observable<T>& source) {
    startTimer(0);
    auto sad = std::make_shared<SingleAssignmentState>();
    upstream_->set(Disposable(sad));
    sad->set(source.subscribe(std::make_shared<TaggedObserver<TimeoutSink, T, Side>>(
        this->shared_from_this(), Side::source)));
    return Disposable(ctl_);
  }

  void innerNext(Side side, const T& value) {
    std::unique_lock lock(mutex_);
    if ((side == Side::source) == switched_) return;
    if (side == Side::other) return emitter_.next(lock, value);
    std::uint64_t id = ++id_;
    emitter_.next(lock, value);
    startTimer(id);
  }
  void innerError(Side side, std::exception_ptr error) {
    std::unique_lock lock(mutex_);
    if ((side == Side::source) == switched_) return;
    ++id_;
    emitter_.error(lock, std::move(error));
  }
  void innerCompleted(Side side) {
    std::unique_lock lock(mutex_);
    if ((side == Side::source) == switched_) return;
    ++id_;
    emitter_.completed(lock);
  }

 private:
  void startTimer(std::uint64_t id) {
    timer_->set(
        scheduler_->scheduleAfter(due_, [self = this->shared_from_this(), id] { self->fire(id); }));
  }
  void fire(std::uint64_t id) {
    std::unique_lock lock(mutex_);
    if (switched_ || id != id_ || emitter_.done()) return;
    switched_ = true;
    if (!other_) {
      emitter_.error(lock, std::make_exception_ptr(TimeoutError()));
      return;
    }
    lock.unlock();
    auto sad = std::make_shared<SingleAssignmentState>();
    upstream_->set(Disposable(sad));  // disposes the original source
    sad->set(other_->subscribe(std::make_shared<TaggedObserver<TimeoutSink, T, Side>>(
        this->shared_from_this(), Side::other)));
  }

  std::mutex mutex_;
  std::shared_ptr<CompositeState> ctl_;
  std::shared_ptr<SerialState> timer_;
  std::shared_ptr<SerialState> upstream_;
  Emitter<T> emitter_;
  Duration due_;
  SchedulerPtr scheduler_;
  std::optional<Observable<T>> other_;
  std::uint64_t id_ = 0;
  bool switched_ = false;
};

/// Queues notifications and drains them on the scheduler, one drain at a time, so the observer
/// sees them in order and never concurrently.
template <class T>
class ObserveOnSink final : public ObserverBase<T>,
                            public std::enable_shared_from_this<ObserveOnSink<T>> {
 public:
  ObserveOnSink(Observer<T> down, SchedulerPtr scheduler)
      : down_(std::move(down)),
        ctl_(std::make_shared<SingleAssignmentState>()),
        scheduler_(std::move(scheduler)) {}

  const std::shared_ptr<SingleAssignmentState>& control() const noexcept { return ctl_; }

  void onNext(const T& value) override { enqueue(Event<T>::next(value), false); }
  void onError(std::exception_ptr error) override {
    enqueue(Event<T>::error(std::move(error)), true);
  }
  void onCompleted() override { enqueue(Event<T>::completed(), true); }

 private:
  void enqueue(Event<T>&& event, bool terminal) {
    {
      std::lock_guard lock(mutex_);
      if (done_ || ctl_->isDisposed()) return;
      done_ = terminal;
      queue_.push_back(std::move(event));
      if (scheduled_) return;
      scheduled_ = true;
    }
    // A pending drain is not tracked: it is short, and on disposal it finds nothing to do.
    scheduler_->schedule([self = this->shared_from_this()] { self->drain(); });
  }
  // Takes what is queued in one batch, so that a burst costs one lock per batch rather than
  // per element; the storage of each batch is handed back to the queue for the next.
  void drain() {
    std::deque<Event<T>> batch;
    for (;;) {
      {
        std::lock_guard lock(mutex_);
        if (queue_.empty() || ctl_->isDisposed()) {
          queue_.clear();
          scheduled_ = false;
          return;
        }
        batch.swap(queue_);
      }
      for (const auto& event : batch) {
        if (ctl_->isDisposed()) break;
        if (event.isNext()) {
          down_.onNext(event.value());
        } else {
          auto down = std::exchange(down_, Observer<T>());
          down.on(event);
          ctl_->dispose();
        }
      }
      batch.clear();
    }
  }

  std::mutex mutex_;
  std::deque<Event<T>> queue_;
  bool scheduled_ = false;
  bool done_ = false;
  Observer<T> down_;  // touched only by the single running drain
  std::shared_ptr<SingleAssignmentState> ctl_;
  SchedulerPtr scheduler_;
};

/// Subscribes `up` to `observer` once `schedule` runs the returned action; the composite collects
/// the timer and the subscription so disposal reaches whichever exists.
template <class T, class ScheduleFn>
Disposable subscribeLater(const Observable<T>& up, Observer<T> observer, ScheduleFn schedule) {
  auto ctl = std::make_shared<CompositeState>();
  ctl->insert(schedule([up, observer = std::move(observer), ctl]() mutable {
    if (ctl->isDisposed()) return;
    auto sad = std::make_shared<SingleAssignmentState>();
    ctl->insert(Disposable(sad));
    sad->set(up.subscribe(std::move(observer)));
  }));
  return Disposable(std::move(ctl));
}

}  // namespace detail

template <class T>
Observable<T> Observable<T>::timeout(Duration due, SchedulerPtr scheduler) const {
  return detail::makeObservable<T>([up = *this, due, s = std::move(scheduler)](Observer<T> o) {
    return std::make_shared<detail::TimeoutSink<T>>(std::move(o), due, s, std::nullopt)->run(up);
  });
}

template <class T>
Observable<T> Observable<T>::timeout(Duration due, Observable other, SchedulerPtr scheduler) const {
  return detail::makeObservable<T>(
      [up = *this, due, other = std::move(other), s = std::move(scheduler)](Observer<T> o) {
        return std::make_shared<detail::TimeoutSink<T>>(std::move(o), due, s, other)->run(up);
      });
}

template <class T>
Observable<T> Observable<T>::delaySubscription(Duration due, SchedulerPtr scheduler) const {
  return detail::makeObservable<T>([up = *this, due, s = std::move(scheduler)](Observer<T> o) {
    return detail::subscribeLater(up, std::move(o), [&](std::function<void()> action) {
      return s->scheduleAfter(due, std::move(action));
    });
  });
}

template <class T>
Observable<T> Observable<T>::subscribeOn(SchedulerPtr scheduler) const {
  return detail::makeObservable<T>([up = *this, s = std::move(scheduler)](Observer<T> o) {
    return detail::subscribeLater(up, std::move(o), [&](std::function<void()> action) {
      return s->schedule(std::move(action));
    });
  });
}

template <class T>
Observable<T> Observable<T>::observeOn(SchedulerPtr scheduler) const {
  return detail::makeObservable<T>([up = *this, s = std::move(scheduler)](Observer<T> o) {
    return detail::runSink(std::make_shared<detail::ObserveOnSink<T>>(std::move(o), s), up);
  });
}

}  // namespace kel::rx
