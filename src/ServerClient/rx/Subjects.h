#pragma once
// Subjects: hot, multicast sequences fed by hand. Calls to onNext/onError/onCompleted on one
// subject must be serialised by the caller (the Rx contract); subscribing and disposing may
// happen from any thread at any time.

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
  PublishSubject() : core_(std::make_shared<detail::SubjectCore<T>>()) {}

  void onNext(const T& value) const { core_->onNext(value); }
  void onError(std::exception_ptr error) const { core_->onError(std::move(error)); }
  void onCompleted() const { core_->onCompleted(); }

  Observable<T> asObservable() const {
    return Observable<T>(std::make_shared<const detail::SubjectSource<T>>(core_));
  }
  Observer<T> asObserver() const {
    return Observer<T>(std::make_shared<detail::SubjectInput<T>>(core_));
  }
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
  explicit BehaviorSubject(T initial)
      : core_(std::make_shared<detail::SubjectCore<T>>(std::move(initial))) {}

  /// The latest value; rethrows the error if the subject failed.
  T value() const { return core_->value(); }

  void onNext(const T& value) const { core_->onNext(value); }
  void onError(std::exception_ptr error) const { core_->onError(std::move(error)); }
  void onCompleted() const { core_->onCompleted(); }

  Observable<T> asObservable() const {
    return Observable<T>(std::make_shared<const detail::SubjectSource<T>>(core_));
  }
  Observer<T> asObserver() const {
    return Observer<T>(std::make_shared<detail::SubjectInput<T>>(core_));
  }
  bool hasObservers() const { return core_->hasObservers(); }

 private:
  std::shared_ptr<detail::SubjectCore<T>> core_;
};

/// A BehaviorSubject that can never error or complete: state that others observe.
template <class T>
class BehaviorRelay {
 public:
  explicit BehaviorRelay(T initial) : subject_(std::move(initial)) {}

  T value() const { return subject_.value(); }
  void accept(const T& value) const { subject_.onNext(value); }
  Observable<T> asObservable() const { return subject_.asObservable(); }
  bool hasObservers() const { return subject_.hasObservers(); }

 private:
  BehaviorSubject<T> subject_;
};

/// A PublishSubject that can never error or complete.
template <class T>
class PublishRelay {
 public:
  void accept(const T& value) const { subject_.onNext(value); }
  Observable<T> asObservable() const { return subject_.asObservable(); }
  bool hasObservers() const { return subject_.hasObservers(); }

 private:
  PublishSubject<T> subject_;
};

}  // namespace kel::rx
