#pragma once
// Internal: included by Observable.h. Conversions between Observable, Single and Completable, and
// the members of Single and Completable that depend on the element type.

namespace kel::rx {
namespace detail {

template <class T>
class AsSingleSink final : public Sink<T, T> {
 public:
  explicit AsSingleSink(Observer<T> down) : Sink<T, T>(std::move(down)) {}
  void onNext(const T& value) override {
    if (!this->live()) return;
    if (value_) return this->forwardError(std::make_exception_ptr(MoreThanOneElementError()));
    value_.emplace(value);
  }
  void onError(std::exception_ptr e) override { this->forwardError(std::move(e)); }
  void onCompleted() override {
    if (!this->live()) return;
    if (!value_) return this->forwardError(std::make_exception_ptr(NoElementsError()));
    this->down_.onNext(*value_);
    value_.reset();
    this->forwardCompleted();
  }

 private:
  std::optional<T> value_;
};

template <class T>
class FirstSink final : public Sink<T, std::optional<T>> {
 public:
  explicit FirstSink(Observer<std::optional<T>> down)
      : Sink<T, std::optional<T>>(std::move(down)) {}
  void onNext(const T& value) override {
    if (!this->live()) return;
    this->down_.onNext(std::optional<T>(value));
    this->forwardCompleted();
  }
  void onError(std::exception_ptr e) override { this->forwardError(std::move(e)); }
  void onCompleted() override {
    if (!this->live()) return;
    this->down_.onNext(std::optional<T>());
    this->forwardCompleted();
  }
};

/// The same terminal event with another element type; elements are dropped.
template <class U, class T>
Observable<U> retype(const Observable<T>& source) {
  return makeObservable<U>([source](Observer<U> o) {
    return runSink(std::make_shared<IgnoreElementsSink<T, U>>(std::move(o)), source);
  });
}

}  // namespace detail

template <class T>
Single<T> Observable<T>::asSingle() const {
  return Single<T>::unchecked(detail::makeObservable<T>([up = *this](Observer<T> o) {
    return detail::runSink(std::make_shared<detail::AsSingleSink<T>>(std::move(o)), up);
  }));
}

template <class T>
Single<std::optional<T>> Observable<T>::first() const {
  return Single<std::optional<T>>::unchecked(
      detail::makeObservable<std::optional<T>>([up = *this](Observer<std::optional<T>> o) {
        return detail::runSink(std::make_shared<detail::FirstSink<T>>(std::move(o)), up);
      }));
}

template <class T>
Completable Observable<T>::ignoreElements() const {
  return Completable::unchecked(detail::retype<Unit>(*this));
}

template <class T>
Completable Observable<T>::asCompletable() const {
  return ignoreElements();
}

// --- Single
// ---------------------------------------------------------------------------------------

template <class T>
Single<T> Single<T>::create(std::function<Disposable(SingleObserver<T>)> subscribe) {
  return Single(Observable<T>::create(
      [f = std::move(subscribe)](Observer<T> o) { return f(SingleObserver<T>(std::move(o))); }));
}
template <class T>
Single<T> Single<T>::just(T value) {
  return Single(Observable<T>::just(std::move(value)));
}
template <class T>
Single<T> Single<T>::error(std::exception_ptr error) {
  return Single(Observable<T>::error(std::move(error)));
}
template <class T>
Single<T> Single<T>::never() {
  return Single(Observable<T>::never());
}
template <class T>
Single<T> Single<T>::deferred(std::function<Single()> factory) {
  return Single(Observable<T>::deferred([f = std::move(factory)] { return f().asObservable(); }));
}

template <class T>
Disposable Single<T>::subscribe(std::function<void(const T&)> onSuccess,
                                std::function<void(std::exception_ptr)> onError) const {
  return source_.subscribe(std::move(onSuccess), std::move(onError));
}

template <class T>
Completable Single<T>::asCompletable() const {
  return source_.ignoreElements();
}

template <class T>
template <class F>
auto Single<T>::map(F f) const {
  using U = std::decay_t<std::invoke_result_t<F&, const T&>>;
  return Single<U>::unchecked(source_.map(std::move(f)));
}

template <class T>
template <class F>
auto Single<T>::flatMap(F f) const {
  using R = std::decay_t<std::invoke_result_t<F&, const T&>>;
  using U = typename detail::SequenceTraits<R>::Element;
  static_assert(std::is_same_v<R, Single<U>>, "Single::flatMap's function returns a Single");
  return Single<U>::unchecked(source_.flatMap(std::move(f)));
}

template <class T>
template <class F>
Completable Single<T>::flatMapCompletable(F f) const {
  return Completable::unchecked(source_.flatMap(
      [f = std::move(f)](const T& value) { return std::invoke(f, value).asObservable(); }));
}

template <class T>
template <class F>
auto Single<T>::flatMapObservable(F f) const {
  return source_.flatMap(std::move(f));
}

template <class T>
template <class F>
Single<T> Single<T>::catchError(F handler) const {
  return Single(source_.catchError(
      [h = std::move(handler)](std::exception_ptr e) { return std::invoke(h, e).asObservable(); }));
}
template <class T>
Single<T> Single<T>::catchErrorJustReturn(T value) const {
  return Single(source_.catchErrorJustReturn(std::move(value)));
}
template <class T>
Single<T> Single<T>::timeout(Duration due, SchedulerPtr scheduler) const {
  return Single(source_.timeout(due, std::move(scheduler)));
}
template <class T>
Single<T> Single<T>::timeout(Duration due, Single other, SchedulerPtr scheduler) const {
  return Single(source_.timeout(due, other.source_, std::move(scheduler)));
}
template <class T>
Single<T> Single<T>::retry(std::size_t maxAttemptCount) const {
  return Single(source_.retry(maxAttemptCount));
}
template <class T>
Single<T> Single<T>::delaySubscription(Duration due, SchedulerPtr scheduler) const {
  return Single(source_.delaySubscription(due, std::move(scheduler)));
}
template <class T>
Single<T> Single<T>::subscribeOn(SchedulerPtr scheduler) const {
  return Single(source_.subscribeOn(std::move(scheduler)));
}
template <class T>
Single<T> Single<T>::observeOn(SchedulerPtr scheduler) const {
  return Single(source_.observeOn(std::move(scheduler)));
}
template <class T>
Single<T> Single<T>::doOnSuccess(std::function<void(const T&)> f) const {
  return Single(source_.doOnNext(std::move(f)));
}
template <class T>
Single<T> Single<T>::doOnError(std::function<void(std::exception_ptr)> f) const {
  return Single(source_.doOnError(std::move(f)));
}
template <class T>
Single<T> Single<T>::doOnSubscribe(std::function<void()> f) const {
  return Single(source_.doOnSubscribe(std::move(f)));
}
template <class T>
Single<T> Single<T>::doOnDispose(std::function<void()> f) const {
  return Single(source_.doOnDispose(std::move(f)));
}
template <class T>
Single<T> Single<T>::amb(Single other) const {
  return Single(source_.amb(other.source_));
}

// --- Completable
// ----------------------------------------------------------------------------------

template <class T>
Single<T> Completable::andThen(Single<T> next) const {
  return Single<T>::unchecked(andThen(next.asObservable()));
}

template <class T>
Observable<T> Completable::andThen(Observable<T> next) const {
  return detail::retype<T>(source_).concat(std::move(next));
}

template <class T>
Observable<T> Completable::asObservable() const {
  if constexpr (std::is_same_v<T, Unit>) {
    return source_;
  } else {
    return detail::retype<T>(source_);
  }
}

template <class F>
Completable Completable::catchError(F handler) const {
  return Completable(source_.catchError([h = std::move(handler)](std::exception_ptr e) {
    return std::invoke(h, e).template asObservable<Unit>();
  }));
}

}  // namespace kel::rx
