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
/// What Observable::map(), compactMap() and filter() return: an `Observable<Out>` that remembers
/// its source `In` and its composed stage.
///
/// It is an Observable in every respect (it converts by slicing, and every other operator treats
/// it as one). Its own map(), compactMap() and filter() extend the same stage instead of adding
/// an operator, so a run of them costs one sink and one virtual call per element, and its
/// subscribe() with a lambda calls that lambda directly from the stage. The same contract holds:
/// the functions run on the upstream's thread, and an exception thrown by one becomes onError
/// and disposes upstream.
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
///
/// The contract of every operator is that of Rx.h. In short: notifications come on the thread
/// that produces them (operators that change threads say so), one at a time, nothing after the
/// error or completion; an exception thrown by a function given to an operator becomes onError
/// and disposes upstream; disposing a subscription, from any thread, disposes upstream and
/// cancels pending timers. Building an Observable is thread-safe and does nothing by itself.
template <class T>
class Observable {
 public:
  /// The element type.
  using Element = T;

  /// An observable that never emits.
  Observable();
  /// An observable over `source`; how the operators make theirs.
  explicit Observable(std::shared_ptr<const detail::Source<T>> source) noexcept
      : source_(std::move(source)) {}

  // --- creation -------------------------------------------------------------------------------
  /// `subscribe` runs once per subscription with an observer that ignores anything after a
  /// terminal event or disposal; the disposable it returns is disposed on either. An exception it
  /// throws becomes onError. The producer must not call the observer concurrently.
  ///
  /// `subscribe` runs on the subscribing thread, inside subscribe(); the producer may keep the
  /// observer and call it later from any thread. Once disposed, the subscription lets go of the
  /// downstream observer even while the producer still holds its own.
  static Observable create(std::function<Disposable(Observer<T>)> subscribe);
  /// Emits `value` and completes, inside subscribe() on the subscribing thread.
  static Observable just(T value);
  /// Emits `values` in order and completes, inside subscribe(); stops early once the subscriber
  /// accepts no more (a take(n) downstream, an onNext callback that threw).
  static Observable from(std::vector<T> values);
  /// Fails with `error`, inside subscribe().
  static Observable error(std::exception_ptr error);
  /// Completes at once, inside subscribe().
  static Observable empty();
  /// Never notifies; subscribing does nothing.
  static Observable never();
  /// Calls `factory` at each subscription, on the subscribing thread, and subscribes to the
  /// observable it returns. An exception it throws becomes onError.
  static Observable deferred(std::function<Observable()> factory);
  /// Subscribes to every source at once, in order, and emits their elements as they come,
  /// serialised. Completes when all completed (at once for no sources). The first error is
  /// forwarded and disposes the other sources.
  static Observable merge(std::vector<Observable> sources);
  /// Subscribes to the sources one after the other, each once the previous one completed, and
  /// emits their elements. Completes after the last one (at once for no sources); an error ends
  /// the sequence and the remaining sources are never subscribed.
  static Observable concat(std::vector<Observable> sources);
  /// Mirrors whichever source notifies first and disposes all the others at that moment.
  ///
  /// Sources are subscribed in order; once one has notified (perhaps inside its own
  /// subscription) the remaining ones are not subscribed at all. No sources: never(); one: that
  /// source itself.
  static Observable amb(std::vector<Observable> sources);
  /// amb() of this sequence and `other`.
  Observable amb(Observable other) const;

  // --- subscription -----------------------------------------------------------------------------
  /// Runs the sequence into `observer`; the result stops it when disposed. Notifications may
  /// arrive before this returns (synchronous sources), on the calling thread, or later on the
  /// producer's thread.
  Disposable subscribe(Observer<T> observer) const;
  /// Subscribes callbacks. Without onError, errors go to the unhandled-error hook. An exception
  /// thrown by onNext disposes the subscription and is passed to onError. onDisposed runs once,
  /// after a terminal event or on disposal.
  ///
  /// The callbacks run on the thread that delivers each notification; onDisposed on the thread
  /// that delivered the terminal event or called dispose(). An exception thrown by onError,
  /// onCompleted or onDisposed goes to the unhandled-error hook. After the terminal event or
  /// disposal the callbacks (and what they captured) are released.
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
  /// This sequence, as an Observable (for code written against subjects and Pipeline alike).
  Observable<T> asObservable() const { return *this; }

  // --- transformation ---------------------------------------------------------------------------
  /// Emits `f(element)` for each element. Returns a Pipeline: a further map, compactMap or filter
  /// joins the same stage instead of adding one.
  template <class F>
  auto map(F f) const;
  /// `f` returns `std::optional<U>`; empty results are dropped, the others emitted unwrapped.
  template <class F>
  auto compactMap(F f) const;
  /// Emits the elements for which `pred` returns true.
  template <class P>
  auto filter(P pred) const;
  /// `f` returns an `Observable<U>` or a `Single<U>`; inner sequences are merged.
  ///
  /// Each inner sequence is subscribed on the thread that delivered its outer element; their
  /// notifications are serialised. Completes once the outer sequence and every inner one
  /// completed. The first error (outer, inner, or thrown by `f`) is forwarded and disposes
  /// everything else.
  template <class F>
  auto flatMap(F f) const;
  /// Like flatMap, but each new element disposes the previous inner sequence.
  ///
  /// A replaced inner sequence's notifications are dropped, its errors included. Completes once
  /// the outer sequence and the latest inner one completed.
  template <class F>
  auto flatMapLatest(F f) const;
  /// Emits the running result: `accumulator(seed, first)`, then `accumulator(that, second)`, and
  /// so on. The seed itself is not emitted; each subscription starts from a copy of it.
  template <class Acc, class F>
  Observable<Acc> scan(Acc seed, F accumulator) const;
  /// The first `count` elements; then completes and disposes upstream. take(0) completes at once
  /// without subscribing upstream.
  Observable take(std::size_t count) const;
  /// Drops the first `count` elements; the rest, the error and the completion pass.
  Observable skip(std::size_t count) const;
  /// Mirrors this sequence until `other` emits its first element, then completes and disposes
  /// both. `other` is subscribed first (so an `other` that emits at once gives an empty
  /// sequence); its error is forwarded, its completion without an element changes nothing.
  template <class U>
  Observable takeUntil(Observable<U> other) const;
  /// Mirrors elements while `pred` returns true; at the first false, completes without that
  /// element and disposes upstream.
  template <class P>
  Observable takeWhile(P pred) const;
  /// Drops each element equal (`==`) to the element emitted before it.
  Observable distinctUntilChanged() const;
  /// Drops each element for which `eq(previous, element)` returns true, `previous` being the
  /// element emitted last.
  template <class Eq>
  Observable distinctUntilChanged(Eq eq) const;
  /// Combines each element with the latest element of `other`; elements before other's first one
  /// are dropped. other's error is forwarded, its completion is not.
  ///
  /// `other` is subscribed first. Emits `selector(element, latest)`; completes when this
  /// sequence completes.
  template <class U, class S>
  auto withLatestFrom(Observable<U> other, S selector) const;
  /// withLatestFrom() emitting pairs of each element and other's latest element.
  template <class U>
  Observable<std::pair<T, U>> withLatestFrom(Observable<U> other) const;
  /// Emits `value` (inside subscribe()), then this sequence's notifications.
  Observable startWith(T value) const;
  /// This sequence, then `next`, subscribed once this one completed. An error skips `next`.
  Observable concat(Observable next) const;

  // --- errors -----------------------------------------------------------------------------------
  /// `handler` maps the error to the sequence that continues in its place.
  ///
  /// `handler` returns an Observable or a Single; it is called on the thread that delivered the
  /// error and handles the first error only: errors of the replacement are forwarded. An
  /// exception it throws is forwarded in place of the error.
  template <class F>
  Observable catchError(F handler) const;
  /// On an error, emits `value` and completes.
  Observable catchErrorJustReturn(T value) const;
  /// Resubscribes after every error, forever.
  ///
  /// Resubscription happens on the thread that delivered the error, without recursion. A source
  /// that always fails inside its own subscription therefore makes subscribe() loop for ever: put
  /// a delay between attempts (retryWhen() with a timer) for such sources.
  Observable retry() const;
  /// Subscribes at most `maxAttemptCount` times in total (0 behaves like 1); the last error is
  /// forwarded.
  Observable retry(std::size_t maxAttemptCount) const;
  /// On each error, `handler` decides whether to retry: it receives the errors as an observable
  /// and returns an observable whose element triggers a resubscription and whose error or
  /// completion ends the sequence.
  ///
  /// `handler` runs once per subscription, before the source is subscribed; an exception it
  /// throws becomes onError. The source's completion completes the sequence. Disposing disposes
  /// the source and the triggers.
  template <class F>
  Observable retryWhen(F handler) const;
  /// Turns the notifications into elements: each element, then the error or the completion, as
  /// an Event; then completes. Never fails.
  Observable<Event<T>> materialize() const;

  // --- time and threads -------------------------------------------------------------------------
  /// Errors with TimeoutError when `due` passes without a notification (measured from the
  /// subscription and then from each element).
  ///
  /// The TimeoutError comes on the scheduler's thread and disposes the source; the source's own
  /// notifications keep their thread.
  Observable timeout(Duration due, SchedulerPtr scheduler) const;
  /// Switches to `other` instead of failing.
  ///
  /// `other` is subscribed on the scheduler's thread when the time is up, after the source was
  /// disposed; it is not timed itself.
  Observable timeout(Duration due, Observable other, SchedulerPtr scheduler) const;
  /// Subscribes to this sequence `due` after subscribe(), on the scheduler's thread. Disposing
  /// before then cancels the timer, and nothing is subscribed.
  Observable delaySubscription(Duration due, SchedulerPtr scheduler) const;
  /// Subscribes (runs the producer's subscription side effects) on `scheduler`.
  ///
  /// subscribe() returns at once; disposing before the scheduled subscription ran cancels it.
  /// Notifications come from wherever the producer emits them: for a source that emits inside
  /// its subscription, the scheduler's thread.
  Observable subscribeOn(SchedulerPtr scheduler) const;
  /// Delivers notifications on `scheduler`, in order, one at a time.
  ///
  /// Notifications are queued and drained by one scheduled action at a time; disposing drops what
  /// is still queued. The error or completion comes after the elements that preceded it.
  Observable observeOn(SchedulerPtr scheduler) const;

  // --- side effects -----------------------------------------------------------------------------
  /// Calls `f` with each element before passing it on. An exception thrown by `f` becomes onError
  /// and disposes upstream.
  Observable doOnNext(std::function<void(const T&)> f) const;
  /// Calls `f` with the error before passing it on; an exception thrown by `f` is passed on in
  /// its place.
  Observable doOnError(std::function<void(std::exception_ptr)> f) const;
  /// Calls `f` before passing the completion on; an exception thrown by `f` is passed on as
  /// onError instead.
  Observable doOnCompleted(std::function<void()> f) const;
  /// Calls `f` at each subscription, on the subscribing thread, before upstream is subscribed.
  /// An exception thrown by `f` becomes onError, and upstream is not subscribed.
  Observable doOnSubscribe(std::function<void()> f) const;
  /// Runs once when the subscription is disposed, including after a terminal event.
  ///
  /// `f` runs on the disposing thread, or after the terminal event reached downstream, on its
  /// thread. An exception it throws goes to the unhandled-error hook.
  Observable doOnDispose(std::function<void()> f) const;

  // --- sharing ----------------------------------------------------------------------------------
  /// One upstream subscription shared by all current subscribers; it starts with the first
  /// subscriber and is disposed when the last one leaves. Late subscribers miss earlier elements.
  ///
  /// Notifications reach every subscriber on the upstream's thread. Once upstream terminated,
  /// the next subscriber starts a new upstream subscription.
  Observable share() const;

  // --- conversion -------------------------------------------------------------------------------
  /// Errors NoElementsError on an empty source, MoreThanOneElementError on a second element.
  ///
  /// The element is emitted when the source completes.
  Single<T> asSingle() const;
  /// The first element, or nullopt if the source completes empty.
  ///
  /// Completes, and disposes the source, at the first element.
  Single<std::optional<T>> first() const;
  /// Drops the elements; keeps the completion or the error.
  Completable ignoreElements() const;
  /// Same as ignoreElements().
  Completable asCompletable() const;

  /// The recipe behind the handle; for the library's operators.
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
///
/// Ticks come on the scheduler's thread, one after the other, and never complete. They are timed
/// from the subscription rather than from the previous tick, so they do not drift; a tick that
/// comes late does not delay the later ones. Disposing cancels the pending tick.
Observable<std::int64_t> interval(Duration period, SchedulerPtr scheduler);
/// Emits 0 after `due`, then completes; on the scheduler's thread.
Observable<std::int64_t> timer(Duration due, SchedulerPtr scheduler);
/// Emits 0 after `due`, then 1, 2, ... every `period`; on the scheduler's thread, timed like
/// interval().
Observable<std::int64_t> timer(Duration due, Duration period, SchedulerPtr scheduler);

/// Receives the outcome of a Single: a value or an error. What Single::create() hands to its
/// producer; copies share one receiver, and only the first outcome counts.
template <class T>
class SingleObserver {
 public:
  /// A receiver that ignores everything.
  SingleObserver() = default;
  /// A receiver that delivers to `observer` as one element followed by completion.
  explicit SingleObserver(Observer<T> observer) : observer_(std::move(observer)) {}
  /// Delivers the value.
  void onSuccess(const T& value) const {
    observer_.onNext(value);
    observer_.onCompleted();
  }
  /// Delivers the error.
  void onError(std::exception_ptr error) const { observer_.onError(std::move(error)); }

 private:
  Observer<T> observer_;
};

/// Exactly one value or an error.
///
/// A cold, lazy computation like Observable (each subscription runs it anew), with the same
/// threading, disposal and error rules; an Observable of one element followed by completion
/// underneath. The operators below behave as their Observable namesakes.
template <class T>
class Single {
 public:
  /// The value type.
  using Element = T;

  /// A Single that never emits.
  Single() = default;  // never emits
  /// Wraps an observable that is known to emit exactly one element then complete, or an error.
  static Single unchecked(Observable<T> source) { return Single(std::move(source)); }

  /// Like Observable::create(): the producer calls onSuccess or onError once, from any thread.
  static Single create(std::function<Disposable(SingleObserver<T>)> subscribe);
  /// Succeeds with `value`, inside subscribe().
  static Single just(T value);
  /// Fails with `error`, inside subscribe().
  static Single error(std::exception_ptr error);
  /// Never succeeds nor fails.
  static Single never();
  /// Calls `factory` at each subscription and subscribes to the Single it returns; an exception
  /// it throws becomes the error.
  static Single deferred(std::function<Single()> factory);

  /// Runs the Single: `onSuccess` receives the value, `onError` the error (without it, errors go
  /// to the unhandled-error hook), on the thread that produced them. Disposing the result stops
  /// the work; no callback starts after that.
  Disposable subscribe(std::function<void(const T&)> onSuccess,
                       std::function<void(std::exception_ptr)> onError = {}) const;
  /// The value as an Observable of one element followed by completion.
  Observable<T> asObservable() const { return source_; }
  /// Drops the value; keeps success (as completion) or the error.
  Completable asCompletable() const;

  /// Succeeds with `f(value)`; an exception thrown by `f` becomes the error.
  template <class F>
  auto map(F f) const;
  /// `f` returns `Single<U>`, which is subscribed when the value arrives and whose outcome
  /// becomes this one's.
  template <class F>
  auto flatMap(F f) const;
  /// `f` returns a Completable, run with the value; completes or fails with it.
  template <class F>
  Completable flatMapCompletable(F f) const;
  /// `f` returns an Observable, run with the value; the result emits its notifications.
  template <class F>
  auto flatMapObservable(F f) const;
  /// `handler` maps the error to the Single that continues in its place.
  template <class F>
  Single catchError(F handler) const;
  /// On an error, succeeds with `value`.
  Single catchErrorJustReturn(T value) const;
  /// Fails with TimeoutError, on the scheduler's thread, when no value came within `due`.
  Single timeout(Duration due, SchedulerPtr scheduler) const;
  /// Switches to `other` when no value came within `due`.
  Single timeout(Duration due, Single other, SchedulerPtr scheduler) const;
  /// Subscribes at most `maxAttemptCount` times in total; the last error is forwarded.
  Single retry(std::size_t maxAttemptCount) const;
  /// Subscribes `due` after subscribe(), on the scheduler's thread.
  Single delaySubscription(Duration due, SchedulerPtr scheduler) const;
  /// Subscribes on `scheduler`.
  Single subscribeOn(SchedulerPtr scheduler) const;
  /// Delivers the outcome on `scheduler`.
  Single observeOn(SchedulerPtr scheduler) const;
  /// Calls `f` with the value before passing it on; an exception thrown by `f` becomes the
  /// error.
  Single doOnSuccess(std::function<void(const T&)> f) const;
  /// Calls `f` with the error before passing it on; an exception thrown by `f` replaces it.
  Single doOnError(std::function<void(std::exception_ptr)> f) const;
  /// Calls `f` at each subscription, before the work starts.
  Single doOnSubscribe(std::function<void()> f) const;
  /// Calls `f` once when the subscription is disposed, including after the outcome.
  Single doOnDispose(std::function<void()> f) const;
  /// Mirrors whichever of this and `other` notifies first; the other one is disposed.
  Single amb(Single other) const;

 private:
  explicit Single(Observable<T> source) : source_(std::move(source)) {}
  Observable<T> source_;
};

/// Receives the outcome of a Completable. Also callable as `observer(error)`, a null error
/// meaning completion.
///
/// What Completable::create() hands to its producer; copies share one receiver, and only the
/// first outcome counts.
class CompletableObserver {
 public:
  /// A receiver that ignores everything.
  CompletableObserver() = default;
  /// A receiver that delivers to `observer` (which receives no elements).
  explicit CompletableObserver(Observer<Unit> observer) : observer_(std::move(observer)) {}
  /// Delivers the completion.
  void onCompleted() const { observer_.onCompleted(); }
  /// Delivers the error.
  void onError(std::exception_ptr error) const { observer_.onError(std::move(error)); }
  /// onError(error), or onCompleted() for a null `error`.
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
///
/// A cold, lazy piece of work like Observable (each subscription runs it anew), with the same
/// threading, disposal and error rules; an Observable of Unit without elements underneath. The
/// operators below behave as their Observable namesakes.
class Completable {
 public:
  /// A Completable that never completes.
  Completable();  // never completes
  /// Wraps an observable that is known to emit no elements.
  static Completable unchecked(Observable<Unit> source) { return Completable(std::move(source)); }

  /// Like Observable::create(): the producer calls onCompleted or onError once, from any thread.
  static Completable create(std::function<Disposable(CompletableObserver)> subscribe);
  /// Completes inside subscribe().
  static Completable empty();
  /// Fails with `error`, inside subscribe().
  static Completable error(std::exception_ptr error);
  /// Never completes nor fails.
  static Completable never();
  /// Calls `factory` at each subscription and subscribes to the Completable it returns; an
  /// exception it throws becomes the error.
  static Completable deferred(std::function<Completable()> factory);
  /// Runs all of `sources` at once; completes when all completed (at once for none). The first
  /// error is forwarded and disposes the others.
  static Completable merge(std::vector<Completable> sources);

  /// Runs the work: `onCompleted` or `onError` (without it, errors go to the unhandled-error
  /// hook) runs on the thread that finished it. Disposing the result stops the work; no
  /// callback starts after that.
  Disposable subscribe(std::function<void()> onCompleted,
                       std::function<void(std::exception_ptr)> onError = {}) const;

  /// This, then `next` once this completed; an error skips `next`.
  Completable andThen(Completable next) const;
  /// This, then `next` once this completed; an error skips `next`.
  template <class T>
  Single<T> andThen(Single<T> next) const;
  /// This, then the elements of `next` once this completed; an error skips `next`.
  template <class T>
  Observable<T> andThen(Observable<T> next) const;
  /// The completion or error as an `Observable<T>` without elements.
  template <class T = Unit>
  Observable<T> asObservable() const;

  /// `handler` maps the error to the Completable that continues in its place.
  template <class F>
  Completable catchError(F handler) const;
  /// Fails with TimeoutError, on the scheduler's thread, when not finished within `due`.
  Completable timeout(Duration due, SchedulerPtr scheduler) const;
  /// Subscribes at most `maxAttemptCount` times in total; the last error is forwarded.
  Completable retry(std::size_t maxAttemptCount) const;
  /// Subscribes `due` after subscribe(), on the scheduler's thread.
  Completable delaySubscription(Duration due, SchedulerPtr scheduler) const;
  /// Subscribes on `scheduler`.
  Completable subscribeOn(SchedulerPtr scheduler) const;
  /// Delivers the outcome on `scheduler`.
  Completable observeOn(SchedulerPtr scheduler) const;
  /// Calls `f` before passing the completion on; an exception thrown by `f` becomes the error.
  Completable doOnCompleted(std::function<void()> f) const;
  /// Calls `f` with the error before passing it on; an exception thrown by `f` replaces it.
  Completable doOnError(std::function<void(std::exception_ptr)> f) const;
  /// Calls `f` at each subscription, before the work starts.
  Completable doOnSubscribe(std::function<void()> f) const;
  /// Calls `f` once when the subscription is disposed, including after the outcome.
  Completable doOnDispose(std::function<void()> f) const;
  /// Mirrors whichever of this and `other` finishes first; the other one is disposed.
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
