#pragma once
// Internal: included by Observable.h. catchError and the retry family. Every attempt gets its own
// single-assignment slot inside a serial disposable, so an upstream that fails synchronously while
// being subscribed cannot have its replacement overwritten by the stale handle returned later.

namespace kel::rx {
namespace detail {

template <class T, class F>
class CatchSink final : public ObserverBase<T>,
                        public std::enable_shared_from_this<CatchSink<T, F>> {
 public:
  CatchSink(Observer<T> down, const F& handler)
      : down_(std::move(down)), serial_(std::make_shared<SerialState>()), handler_(handler) {}

  Disposable run(const Observable<T>& upstream) {
    subscribeTo(upstream);
    return Disposable(serial_);
  }
  void onNext(const T& value) override {
    if (!stopped_ && !serial_->isDisposed()) down_.onNext(value);
  }
  void onError(std::exception_ptr error) override {
    if (stopped_ || serial_->isDisposed()) return;
    if (!switched_) {
      switched_ = true;
      std::optional<Observable<T>> next;
      try {
        next.emplace(std::invoke(*handler_, error));
      } catch (...) {
        error = std::current_exception();
      }
      handler_.reset();
      if (next) return subscribeTo(*next);
    }
    stopped_ = true;
    auto down = std::exchange(down_, Observer<T>());
    down.onError(std::move(error));
    serial_->dispose();
  }
  void onCompleted() override {
    if (stopped_ || serial_->isDisposed()) return;
    stopped_ = true;
    auto down = std::exchange(down_, Observer<T>());
    down.onCompleted();
    serial_->dispose();
  }

 public:
  bool isStopped() const noexcept override {
    return stopped_ || serial_->isDisposed() || down_.isStopped();
  }

 private:
  void subscribeTo(const Observable<T>& source) {
    auto sad = std::make_shared<SingleAssignmentState>();
    serial_->set(Disposable(sad));
    sad->set(source.subscribe(this->shared_from_this()));
  }

  Observer<T> down_;
  std::shared_ptr<SerialState> serial_;
  std::optional<F> handler_;
  bool switched_ = false;
  bool stopped_ = false;
};

/// Resubscribes after errors while attempts remain (0 = unlimited). Resubscription is trampolined:
/// a source that fails synchronously loops here instead of recursing.
template <class T>
class RetrySink final : public ObserverBase<T>, public std::enable_shared_from_this<RetrySink<T>> {
 public:
  RetrySink(Observer<T> down, Observable<T> source, std::size_t maxAttempts)
      : down_(std::move(down)),
        source_(std::move(source)),
        serial_(std::make_shared<SerialState>()),
        maxAttempts_(maxAttempts) {}

  Disposable run() {
    resubscribe();
    return Disposable(serial_);
  }
  void onNext(const T& value) override {
    if (!stopped_ && !serial_->isDisposed()) down_.onNext(value);
  }
  void onError(std::exception_ptr error) override {
    if (stopped_ || serial_->isDisposed()) return;
    if (maxAttempts_ == 0 || attempts_ < maxAttempts_) return resubscribe();
    stopped_ = true;
    auto down = std::exchange(down_, Observer<T>());
    down.onError(std::move(error));
    serial_->dispose();
  }
  void onCompleted() override {
    if (stopped_ || serial_->isDisposed()) return;
    stopped_ = true;
    auto down = std::exchange(down_, Observer<T>());
    down.onCompleted();
    serial_->dispose();
  }
  bool isStopped() const noexcept override {
    return stopped_ || serial_->isDisposed() || down_.isStopped();
  }

 private:
  void resubscribe() {
    if (wip_.fetch_add(1, std::memory_order_acq_rel) != 0) return;
    do {
      if (down_.isStopped()) serial_->dispose();
      if (serial_->isDisposed()) return;
      ++attempts_;
      auto sad = std::make_shared<SingleAssignmentState>();
      serial_->set(Disposable(sad));
      sad->set(source_.subscribe(this->shared_from_this()));
    } while (wip_.fetch_sub(1, std::memory_order_acq_rel) != 1);
  }

  Observer<T> down_;
  Observable<T> source_;
  std::shared_ptr<SerialState> serial_;
  std::size_t maxAttempts_;
  std::size_t attempts_ = 0;
  bool stopped_ = false;
  std::atomic<int> wip_{0};
};

/// retryWhen: errors feed a subject the handler turns into triggers; a trigger resubscribes, the
/// triggers' end ends the sequence. Source and trigger notifications may come from different
/// threads, so they go through an emitter.
template <class T>
class RetryWhenSink final : public ObserverBase<T>,
                            public std::enable_shared_from_this<RetryWhenSink<T>> {
 public:
  RetryWhenSink(Observer<T> down, Observable<T> source)
      : ctl_(std::make_shared<CompositeState>()),
        serial_(std::make_shared<SerialState>()),
        emitter_(std::move(down), ctl_.get()),
        source_(std::move(source)),
        errors_(std::make_shared<SubjectCore<std::exception_ptr>>()) {
    ctl_->insert(Disposable(serial_));
  }

  template <class F>
  Disposable run(const F& handler) {
    Observable<std::exception_ptr> errors(
        std::make_shared<const SubjectSource<std::exception_ptr>>(errors_));
    std::optional<decltype(toObservable(std::invoke(handler, errors)))> triggers;
    try {
      triggers.emplace(toObservable(std::invoke(handler, errors)));
    } catch (...) {
      std::unique_lock lock(mutex_);
      emitter_.error(lock, std::current_exception());
      return Disposable();
    }
    using X = typename decltype(triggers)::value_type::Element;
    auto sad = std::make_shared<SingleAssignmentState>();
    ctl_->insert(Disposable(sad));
    sad->set(triggers->subscribe(std::make_shared<TriggerObserver<X>>(this->shared_from_this())));
    resubscribe();
    return Disposable(ctl_);
  }

  void onNext(const T& value) override {
    std::unique_lock lock(mutex_);
    emitter_.next(lock, value);
  }
  void onError(std::exception_ptr error) override {
    if (ctl_->isDisposed()) return;
    errors_->onNext(error);
  }
  void onCompleted() override { complete(); }

 private:
  template <class X>
  struct TriggerObserver final : ObserverBase<X> {
    explicit TriggerObserver(std::shared_ptr<RetryWhenSink> s) : sink(std::move(s)) {}
    void onNext(const X&) override { sink->resubscribe(); }
    void onError(std::exception_ptr error) override {
      std::unique_lock lock(sink->mutex_);
      sink->emitter_.error(lock, std::move(error));
    }
    void onCompleted() override { sink->complete(); }
    std::shared_ptr<RetryWhenSink> sink;
  };

  void complete() {
    std::unique_lock lock(mutex_);
    emitter_.completed(lock);
  }
  void resubscribe() {
    if (wip_.fetch_add(1, std::memory_order_acq_rel) != 0) return;
    do {
      if (ctl_->isDisposed()) return;
      auto sad = std::make_shared<SingleAssignmentState>();
      serial_->set(Disposable(sad));
      sad->set(source_.subscribe(this->shared_from_this()));
    } while (wip_.fetch_sub(1, std::memory_order_acq_rel) != 1);
  }

  std::mutex mutex_;
  std::shared_ptr<CompositeState> ctl_;
  std::shared_ptr<SerialState> serial_;
  Emitter<T> emitter_;
  Observable<T> source_;
  std::shared_ptr<SubjectCore<std::exception_ptr>> errors_;
  std::atomic<int> wip_{0};
};

}  // namespace detail

template <class T>
template <class F>
Observable<T> Observable<T>::catchError(F handler) const {
  auto wrapped = [h = std::move(handler)](std::exception_ptr e) {
    return detail::toObservable(std::invoke(h, std::move(e)));
  };
  using W = decltype(wrapped);
  return detail::makeObservable<T>([up = *this, w = std::move(wrapped)](Observer<T> o) {
    return std::make_shared<detail::CatchSink<T, W>>(std::move(o), w)->run(up);
  });
}

template <class T>
Observable<T> Observable<T>::catchErrorJustReturn(T value) const {
  return catchError([v = std::move(value)](std::exception_ptr) { return just(v); });
}

template <class T>
Observable<T> Observable<T>::retry() const {
  return detail::makeObservable<T>([up = *this](Observer<T> o) {
    return std::make_shared<detail::RetrySink<T>>(std::move(o), up, 0)->run();
  });
}

template <class T>
Observable<T> Observable<T>::retry(std::size_t maxAttemptCount) const {
  if (maxAttemptCount <= 1) return *this;
  return detail::makeObservable<T>([up = *this, maxAttemptCount](Observer<T> o) {
    return std::make_shared<detail::RetrySink<T>>(std::move(o), up, maxAttemptCount)->run();
  });
}

template <class T>
template <class F>
Observable<T> Observable<T>::retryWhen(F handler) const {
  return detail::makeObservable<T>([up = *this, h = std::move(handler)](Observer<T> o) {
    return std::make_shared<detail::RetryWhenSink<T>>(std::move(o), up)->run(h);
  });
}

}  // namespace kel::rx
