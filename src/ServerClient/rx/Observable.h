#pragma once
// Observable<T>, Single<T> and Completable: cold, lazy sequences. They are declared together
// because each converts into the others; the operators live in detail/ and are included below.

#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Errors.h"
#include "ServerClient/rx/Event.h"
#include "ServerClient/rx/Observer.h"
#include "ServerClient/rx/Scheduler.h"
#include "ServerClient/rx/detail/Sinks.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

namespace kel::rx {

template <class T>
class Observable;
template <class T>
class Single;
class Completable;
template <class In, class Out, class Stage>
class Pipeline;

namespace detail {
template <class X>
struct SequenceTraits {
  static constexpr bool isSequence = false;
};
template <class U>
struct SequenceTraits<Observable<U>> {
  static constexpr bool isSequence = true;
  using Element = U;
};
template <class U>
struct SequenceTraits<Single<U>> {
  static constexpr bool isSequence = true;
  using Element = U;
};
template <class X>
struct OptionalTraits {
  static constexpr bool isOptional = false;
};
template <class U>
struct OptionalTraits<std::optional<U>> {
  static constexpr bool isOptional = true;
  using Value = U;
};
/// A callable element handler other than std::function (which has its own overload) or null.
template <class F, class T>
concept PlainOnNext = std::is_invocable_v<F&, const T&> &&
                      !std::is_same_v<std::decay_t<F>, std::function<void(const T&)>> &&
                      !std::is_same_v<std::decay_t<F>, std::nullptr_t>;
}  // namespace detail

/// A cold, lazy sequence of `T`: nothing happens until subscribe(), and each subscription runs the
/// producer anew. A copyable handle; copies share the (immutable) recipe. A default-constructed
/// Observable never emits.
template <class T>
class Observable {
 public:
  using Element = T;

  Observable();
  explicit Observable(std::shared_ptr<const detail::Source<T>> source) noexcept
      : source_(std::move(source)) {}

  // --- creation -------------------------------------------------------------------------------
  /// `subscribe` runs once per subscription with an observer that ignores anything after a
  /// terminal event or disposal; the disposable it returns is disposed on either. An exception it
  /// throws becomes onError. The producer must not call the observer concurrently.
  static Observable create(std::function<Disposable(Observer<T>)> subscribe);
  static Observable just(T value);
  static Observable from(std::vector<T> values);
  static Observable error(std::exception_ptr error);
  static Observable empty();
  static Observable never();
  static Observable deferred(std::function<Observable()> factory);
  static Observable merge(std::vector<Observable> sources);
  static Observable concat(std::vector<Observable> sources);
  /// Mirrors whichever source notifies first and disposes all the others at that moment.
  static Observable amb(std::vector<Observable> sources);
  Observable amb(Observable other) const;

  // --- subscription -----------------------------------------------------------------------------
  Disposable subscribe(Observer<T> observer) const;
  /// Subscribes callbacks. Without onError, errors go to the unhandled-error hook. An exception
  /// thrown by onNext disposes the subscription and is passed to onError. onDisposed runs once,
  /// after a terminal event or on disposal.
  Disposable subscribe(std::function<void(const T&)> onNext,
                       std::function<void(std::exception_ptr)> onError = {},
                       std::function<void()> onCompleted = {},
                       std::function<void()> onDisposed = {}) const;
  /// The same, keeping a lambda's type so that each element costs no std::function call.
  template <class OnNext>
  requires detail::PlainOnNext<OnNext, T> Disposable
  subscribe(OnNext onNext, std::function<void(std::exception_ptr)> onError = {},
            std::function<void()> onCompleted = {}, std::function<void()> onDisposed = {})
  const;
  Observable<T> asObservable() const { return *this; }

  // --- transformation ---------------------------------------------------------------------------
  template <class F>
  auto map(F f) const;
  /// `f` returns std::optional<U>; empty results are dropped.
  template <class F>
  auto compactMap(F f) const;
  template <class P>
  auto filter(P pred) const;
  /// `f` returns Observable<U> or Single<U>; inner sequences are merged.
  template <class F>
  auto flatMap(F f) const;
  /// Like flatMap, but each new element disposes the previous inner sequence.
  template <class F>
  auto flatMapLatest(F f) const;
  template <class Acc, class F>
  Observable<Acc> scan(Acc seed, F accumulator) const;
  Observable take(std::size_t count) const;
  Observable skip(std::size_t count) const;
  template <class U>
  Observable takeUntil(Observable<U> other) const;
  template <class P>
  Observable takeWhile(P pred) const;
  Observable distinctUntilChanged() const;
  template <class Eq>
  Observable distinctUntilChanged(Eq eq) const;
  /// Combines each element with the latest element of `other`; elements before other's first one
  /// are dropped. other's error is forwarded, its completion is not.
  template <class U, class S>
  auto withLatestFrom(Observable<U> other, S selector) const;
  template <class U>
  Observable<std::pair<T, U>> withLatestFrom(Observable<U> other) const;
  Observable startWith(T value) const;
  Observable concat(Observable next) const;

  // --- errors -----------------------------------------------------------------------------------
  /// `handler` maps the error to the sequence that continues in its place.
  template <class F>
  Observable catchError(F handler) const;
  Observable catchErrorJustReturn(T value) const;
  /// Resubscribes after every error, forever.
  Observable retry() const;
  /// Subscribes at most `maxAttemptCount` times in total (0 behaves like 1); the last error is
  /// forwarded.
  Observable retry(std::size_t maxAttemptCount) const;
  /// On each error, `handler` decides whether to retry: it receives the errors as an observable
  /// and returns an observable whose element triggers a resubscription and whose error or
  /// completion ends the sequence.
  template <class F>
  Observable retryWhen(F handler) const;
  Observable<Event<T>> materialize() const;

  // --- time and threads -------------------------------------------------------------------------
  /// Errors with TimeoutError when `due` passes without a notification (measured from the
  /// subscription and then from each element).
  Observable timeout(Duration due, SchedulerPtr scheduler) const;
  /// Switches to `other` instead of failing.
  Observable timeout(Duration due, Observable other, SchedulerPtr scheduler) const;
  Observable delaySubscription(Duration due, SchedulerPtr scheduler) const;
  /// Subscribes (runs the producer's subscription side effects) on `scheduler`.
  Observable subscribeOn(SchedulerPtr scheduler) const;
  /// Delivers notifications on `scheduler`, in order, one at a time.
  Observable observeOn(SchedulerPtr scheduler) const;

  // --- side effects -----------------------------------------------------------------------------
  Observable doOnNext(std::function<void(const T&)> f) const;
  Observable doOnError(std::function<void(std::exception_ptr)> f) const;
  Observable doOnCompleted(std::function<void()> f) const;
  Observable doOnSubscribe(std::function<void()> f) const;
  /// Runs once when the subscription is disposed, including after a terminal event.
  Observable doOnDispose(std::function<void()> f) const;

  // --- sharing ----------------------------------------------------------------------------------
  /// One upstream subscription shared by all current subscribers; it starts with the first
  /// subscriber and is disposed when the last one leaves. Late subscribers miss earlier elements.
  Observable share() const;

  // --- conversion -------------------------------------------------------------------------------
  /// Errors NoElementsError on an empty source, MoreThanOneElementError on a second element.
  Single<T> asSingle() const;
  /// The first element, or nullopt if the source completes empty.
  Single<std::optional<T>> first() const;
  Completable ignoreElements() const;
  Completable asCompletable() const;

  const std::shared_ptr<const detail::Source<T>>& source() const noexcept { return source_; }

 private:
  template <class U>
  friend class Observable;
  template <class Src, class... Args>
  static Observable make(Args&&... args) {
    return Observable(std::make_shared<const Src>(std::forward<Args>(args)...));
  }

  std::shared_ptr<const detail::Source<T>> source_;
};

/// Emits 0, 1, 2, ... every `period`, the first one period after subscription.
Observable<std::int64_t> interval(Duration period, SchedulerPtr scheduler);
/// Emits 0 after `due`, then completes.
Observable<std::int64_t> timer(Duration due, SchedulerPtr scheduler);
/// Emits 0 after `due`, then 1, 2, ... every `period`.
Observable<std::int64_t> timer(Duration due, Duration period, SchedulerPtr scheduler);

template <class T>
class SingleObserver {
 public:
  SingleObserver() = default;
  explicit SingleObserver(Observer<T> observer) : observer_(std::move(observer)) {}
  void onSuccess(const T& value) const {
    observer_.onNext(value);
    observer_.onCompleted();
  }
  void onError(std::exception_ptr error) const { observer_.onError(std::move(error)); }

 private:
  Observer<T> observer_;
};

/// Exactly one value or an error.
template <class T>
class Single {
 public:
  using Element = T;

  Single() = default;  // never emits
  /// Wraps an observable that is known to emit exactly one element then complete, or an error.
  static Single unchecked(Observable<T> source) { return Single(std::move(source)); }

  static Single create(std::function<Disposable(SingleObserver<T>)> subscribe);
  static Single just(T value);
  static Single error(std::exception_ptr error);
  static Single never();
  static Single deferred(std::function<Single()> factory);

  Disposable subscribe(std::function<void(const T&)> onSuccess,
                       std::function<void(std::exception_ptr)> onError = {}) const;
  Observable<T> asObservable() const { return source_; }
  Completable asCompletable() const;

  template <class F>
  auto map(F f) const;
  /// `f` returns Single<U>.
  template <class F>
  auto flatMap(F f) const;
  template <class F>
  Completable flatMapCompletable(F f) const;
  template <class F>
  auto flatMapObservable(F f) const;
  /// `handler` maps the error to the Single that continues in its place.
  template <class F>
  Single catchError(F handler) const;
  Single catchErrorJustReturn(T value) const;
  Single timeout(Duration due, SchedulerPtr scheduler) const;
  Single timeout(Duration due, Single other, SchedulerPtr scheduler) const;
  Single retry(std::size_t maxAttemptCount) const;
  Single delaySubscription(Duration due, SchedulerPtr scheduler) const;
  Single subscribeOn(SchedulerPtr scheduler) const;
  Single observeOn(SchedulerPtr scheduler) const;
  Single doOnSuccess(std::function<void(const T&)> f) const;
  Single doOnError(std::function<void(std::exception_ptr)> f) const;
  Single doOnSubscribe(std::function<void()> f) const;
  Single doOnDispose(std::function<void()> f) const;
  Single amb(Single other) const;

 private:
  explicit Single(Observable<T> source) : source_(std::move(source)) {}
  Observable<T> source_;
};

/// Receives the outcome of a Completable. Also callable as `observer(error)`, a null error
/// meaning completion.
class CompletableObserver {
 public:
  CompletableObserver() = default;
  explicit CompletableObserver(Observer<Unit> observer) : observer_(std::move(observer)) {}
  void onCompleted() const { observer_.onCompleted(); }
  void onError(std::exception_ptr error) const { observer_.onError(std::move(error)); }
  void operator()(std::exception_ptr error) const {
    if (error) {
      onError(std::move(error));
    } else {
      onCompleted();
    }
  }

 private:
  Observer<Unit> observer_;
};

/// Completion or an error, no elements.
class Completable {
 public:
  Completable();  // never completes
  /// Wraps an observable that is known to emit no elements.
  static Completable unchecked(Observable<Unit> source) { return Completable(std::move(source)); }

  static Completable create(std::function<Disposable(CompletableObserver)> subscribe);
  static Completable empty();
  static Completable error(std::exception_ptr error);
  static Completable never();
  static Completable deferred(std::function<Completable()> factory);
  static Completable merge(std::vector<Completable> sources);

  Disposable subscribe(std::function<void()> onCompleted,
                       std::function<void(std::exception_ptr)> onError = {}) const;

  Completable andThen(Completable next) const;
  template <class T>
  Single<T> andThen(Single<T> next) const;
  template <class T>
  Observable<T> andThen(Observable<T> next) const;
  template <class T = Unit>
  Observable<T> asObservable() const;

  template <class F>
  Completable catchError(F handler) const;
  Completable timeout(Duration due, SchedulerPtr scheduler) const;
  Completable retry(std::size_t maxAttemptCount) const;
  Completable delaySubscription(Duration due, SchedulerPtr scheduler) const;
  Completable subscribeOn(SchedulerPtr scheduler) const;
  Completable observeOn(SchedulerPtr scheduler) const;
  Completable doOnCompleted(std::function<void()> f) const;
  Completable doOnError(std::function<void(std::exception_ptr)> f) const;
  Completable doOnSubscribe(std::function<void()> f) const;
  Completable doOnDispose(std::function<void()> f) const;
  Completable amb(Completable other) const;

 private:
  explicit Completable(Observable<Unit> source) : source_(std::move(source)) {}
  Observable<Unit> source_;
};

}  // namespace kel::rx

// Order matters: each part uses helpers of the ones before it.
// clang-format off
#include "ServerClient/rx/detail/Creation.h"
#include "ServerClient/rx/detail/Transform.h"
#include "ServerClient/rx/detail/Combine.h"
#include "ServerClient/rx/detail/ErrorHandling.h"
#include "ServerClient/rx/detail/Time.h"
#include "ServerClient/rx/detail/Conversion.h"
// clang-format on
