#pragma once
/// @file
/// Subjects: hot, multicast sequences fed by hand. Calls to onNext/onError/onCompleted on one
/// subject must be serialised by the caller (the Rx contract; SerialEmitter does it for producers
/// on several threads); subscribing and disposing may happen from any thread at any time.
///
/// Delivery is synchronous: each notification reaches every current subscriber on the thread
/// that called onNext, onError or onCompleted (or accept), before that call returns. A subscriber
/// may publish into the subject from inside its callback; that element is delivered at once,
/// nested in the current delivery. A subscription disposed during a delivery receives nothing
/// more from then on.

#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Observer.h"
#include "ServerClient/rx/detail/SubjectCore.h"

#include <exception>
#include <memory>
#include <utility>

namespace kel::rx {

/// Forwards to every current subscriber. Late subscribers after termination receive only the
/// terminal event. A copyable handle: copies share one subject.
template <class T>
class PublishSubject {
 public:
  /// A subject without subscribers.
  PublishSubject() : core_(std::make_shared<detail::SubjectCore<T>>()) {}

  /// Delivers `value` to the current subscribers; ignored once the subject terminated.
  void onNext(const T& value) const { core_->onNext(value); }
  /// Ends the subject with `error`: delivered to the current subscribers, and to every later one
  /// inside its subscribe(). Later notifications are ignored.
  void onError(std::exception_ptr error) const { core_->onError(std::move(error)); }
  /// Ends the subject: the completion goes to the current subscribers, and to every later one
  /// inside its subscribe(). Later notifications are ignored.
  void onCompleted() const { core_->onCompleted(); }

  /// The subject's sequence. Subscribing adds a subscriber, disposing removes it; neither ever
  /// blocks on a delivery running on another thread.
  Observable<T> asObservable() const {
    return Observable<T>(std::make_shared<const detail::SubjectSource<T>>(core_));
  }
  /// The subject as an Observer, to feed it from another sequence.
  Observer<T> asObserver() const {
    return Observer<T>(std::make_shared<detail::SubjectInput<T>>(core_));
  }
  /// True while some subscription is live; false once the subject terminated.
  bool hasObservers() const { return core_->hasObservers(); }

 private:
  std::shared_ptr<detail::SubjectCore<T>> core_;
};

/// Holds a current value, replayed to each new subscriber before anything newer. A subscriber
/// that joins while another thread is emitting still receives the current value first and every
/// later one in order.
template <class T>
class BehaviorSubject {
 public:
  /// A subject whose current value is `initial`.
  explicit BehaviorSubject(T initial)
      : core_(std::make_shared<detail::SubjectCore<T>>(std::move(initial))) {}

  /// The latest value; rethrows the error if the subject failed. After completion, the last
  /// value. Thread-safe.
  T value() const { return core_->value(); }

  /// Makes `value` current and delivers it to the current subscribers; ignored once the subject
  /// terminated.
  void onNext(const T& value) const { core_->onNext(value); }
  /// Ends the subject with `error`: delivered to the current subscribers, and to every later one
  /// (instead of a value) inside its subscribe().
  void onError(std::exception_ptr error) const { core_->onError(std::move(error)); }
  /// Ends the subject: the completion goes to the current subscribers, and to every later one
  /// (without a value) inside its subscribe().
  void onCompleted() const { core_->onCompleted(); }

  /// The subject's sequence: a new subscriber receives the current value inside subscribe(),
  /// on the subscribing thread, then every later one.
  Observable<T> asObservable() const {
    return Observable<T>(std::make_shared<const detail::SubjectSource<T>>(core_));
  }
  /// The subject as an Observer, to feed it from another sequence.
  Observer<T> asObserver() const {
    return Observer<T>(std::make_shared<detail::SubjectInput<T>>(core_));
  }
  /// True while some subscription is live; false once the subject terminated.
  bool hasObservers() const { return core_->hasObservers(); }

 private:
  std::shared_ptr<detail::SubjectCore<T>> core_;
};

/// A BehaviorSubject that can never error or complete: state that others observe. A copyable
/// handle: copies share one relay. Calls to accept() must be serialised like onNext calls.
template <class T>
class BehaviorRelay {
 public:
  /// A relay whose current value is `initial`.
  explicit BehaviorRelay(T initial) : subject_(std::move(initial)) {}

  /// The current value. Thread-safe.
  T value() const { return subject_.value(); }
  /// Makes `value` current and delivers it to the current subscribers.
  void accept(const T& value) const { subject_.onNext(value); }
  /// The current value at subscription (inside subscribe(), on the subscribing thread), then
  /// every later one; never terminates.
  Observable<T> asObservable() const { return subject_.asObservable(); }
  /// True while some subscription is live.
  bool hasObservers() const { return subject_.hasObservers(); }

 private:
  BehaviorSubject<T> subject_;
};

/// A PublishSubject that can never error or complete: events that others observe. A copyable
/// handle: copies share one relay. Calls to accept() must be serialised like onNext calls.
template <class T>
class PublishRelay {
 public:
  /// Delivers `value` to the current subscribers.
  void accept(const T& value) const { subject_.onNext(value); }
  /// Every value accepted after subscription; never terminates.
  Observable<T> asObservable() const { return subject_.asObservable(); }
  /// True while some subscription is live.
  bool hasObservers() const { return subject_.hasObservers(); }

 private:
  PublishSubject<T> subject_;
};

}  // namespace kel::rx
