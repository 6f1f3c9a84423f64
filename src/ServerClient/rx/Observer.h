#pragma once

#include "ServerClient/rx/Errors.h"
#include "ServerClient/rx/Event.h"

#include <concepts>
#include <exception>
#include <functional>
#include <memory>
#include <utility>

namespace kel::rx {

namespace detail {

/// What every sink implements. The caller of these functions holds a strong reference for the
/// duration of the call and delivers notifications one at a time.
template <class T>
class ObserverBase {
 public:
  ObserverBase() = default;
  ObserverBase(const ObserverBase&) = delete;
  ObserverBase& operator=(const ObserverBase&) = delete;
  virtual ~ObserverBase() = default;

  virtual void onNext(const T& value) = 0;
  virtual void onError(std::exception_ptr error) = 0;
  virtual void onCompleted() = 0;
  /// True once nothing more will be accepted (terminated or disposed). Producers that emit in a
  /// synchronous loop poll it so that a downstream take(n) or dispose() ends the loop even before
  /// they returned their disposable. Only meaningful on the producer's own thread.
  virtual bool isStopped() const noexcept { return false; }
};

template <class T>
class CallbackObserver final : public ObserverBase<T> {
 public:
  CallbackObserver(std::function<void(const T&)> onNext,
                   std::function<void(std::exception_ptr)> onError,
                   std::function<void()> onCompleted)
      : onNext_(std::move(onNext)),
        onError_(std::move(onError)),
        onCompleted_(std::move(onCompleted)) {}

  void onNext(const T& value) override {
    if (!stopped_ && onNext_) onNext_(value);
  }
  void onError(std::exception_ptr error) override {
    if (stopped_) return;
    auto handler = release();
    if (handler) {
      handler(std::move(error));
    } else {
      reportUnhandledError(std::move(error));
    }
  }
  void onCompleted() override {
    if (stopped_) return;
    auto handler = std::move(onCompleted_);
    release();
    if (handler) handler();
  }
  bool isStopped() const noexcept override { return stopped_; }

 private:
  std::function<void(std::exception_ptr)> release() {
    stopped_ = true;
    auto handler = std::move(onError_);
    onNext_ = nullptr;
    onError_ = nullptr;
    onCompleted_ = nullptr;
    return handler;
  }

  bool stopped_ = false;
  std::function<void(const T&)> onNext_;
  std::function<void(std::exception_ptr)> onError_;
  std::function<void()> onCompleted_;
};

}  // namespace detail

/// A type-erased, copyable receiver of notifications. Copies share the same receiver. A
/// default-constructed observer ignores everything.
///
/// Whoever calls an observer keeps to the contract of Rx.h: one call at a time, nothing after
/// onError or onCompleted. The calls run on the caller's thread.
template <class T>
class Observer {
 public:
  /// An empty observer: ignores everything and reports itself stopped.
  Observer() = default;
  /// Wraps an observer implementation (the library's own sinks, a TestableObserver).
  template <class O>
  requires std::derived_from<O, detail::ObserverBase<T>> Observer(std::shared_ptr<O> impl)
  noexcept  // NOLINT(google-explicit-constructor)
      : impl_(std::move(impl)) {}
  /// An observer made of callbacks. Without an error callback, errors go to the unhandled-error
  /// hook. Notifications after a terminal one are ignored.
  explicit Observer(std::function<void(const T&)> onNext,
                    std::function<void(std::exception_ptr)> onError = {},
                    std::function<void()> onCompleted = {})
      : impl_(std::make_shared<detail::CallbackObserver<T>>(std::move(onNext), std::move(onError),
                                                            std::move(onCompleted))) {}

  /// Delivers an element.
  void onNext(const T& value) const {
    if (impl_) impl_->onNext(value);
  }
  /// Delivers the error that ends the sequence.
  void onError(std::exception_ptr error) const {
    if (impl_) impl_->onError(std::move(error));
  }
  /// Delivers the completion that ends the sequence.
  void onCompleted() const {
    if (impl_) impl_->onCompleted();
  }
  /// True once the receiver accepts nothing more (it terminated or its subscription was
  /// disposed); an empty observer is stopped. A producer that emits in a synchronous loop (a
  /// create() producer, say) polls it to stop early. Only meaningful on the producer's thread.
  bool isStopped() const noexcept { return !impl_ || impl_->isStopped(); }
  /// Delivers `event` through onNext, onError or onCompleted.
  void on(const Event<T>& event) const {
    if (event.isNext()) {
      onNext(event.value());
    } else if (event.isError()) {
      onError(event.error());
    } else {
      onCompleted();
    }
  }

  /// False for an empty observer.
  explicit operator bool() const noexcept { return static_cast<bool>(impl_); }
  /// The shared receiver; null for an empty observer.
  const std::shared_ptr<detail::ObserverBase<T>>& impl() const noexcept { return impl_; }

 private:
  std::shared_ptr<detail::ObserverBase<T>> impl_;
};

}  // namespace kel::rx
