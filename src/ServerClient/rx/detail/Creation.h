#pragma once
// Internal: included by Observable.h. Sources that start sequences, and subscribe().

namespace kel::rx {
namespace detail {

template <class T>
class NeverSource final : public Source<T> {
 public:
  Disposable subscribe(Observer<T>) const override { return Disposable(); }
};

template <class T>
class EmptySource final : public Source<T> {
 public:
  Disposable subscribe(Observer<T> observer) const override {
    observer.onCompleted();
    return Disposable();
  }
};

template <class T>
class ErrorSource final : public Source<T> {
 public:
  explicit ErrorSource(std::exception_ptr error) : error_(std::move(error)) {}
  Disposable subscribe(Observer<T> observer) const override {
    observer.onError(error_);
    return Disposable();
  }

 private:
  std::exception_ptr error_;
};

template <class T>
class FromSource final : public Source<T> {
 public:
  explicit FromSource(std::vector<T> values) : values_(std::move(values)) {}
  Disposable subscribe(Observer<T> observer) const override {
    // The downstream sinks ignore everything once disposed (take(1) for instance), so the loop
    // only needs the control to stop early.
    auto ctl = Disposable::create();
    for (const auto& v : values_) {
      if (ctl.isDisposed() || observer.isStopped()) return ctl;
      observer.onNext(v);
    }
    observer.onCompleted();
    return ctl;
  }

 private:
  std::vector<T> values_;
};

/// The observer handed to a user's create() function. It is the boundary where foreign code holds
/// our observer, so it enforces the contract (nothing after a terminal event or disposal) and lets
/// go of downstream on either, which frees the rest of the chain even if the foreign code keeps
/// this object forever. The lock only guards the downstream pointer, never a call.
template <class T>
class CreateSink final : public ObserverBase<T> {
 public:
  CreateSink(Observer<T> down, std::shared_ptr<SingleAssignmentState> ctl)
      : down_(std::move(down)), ctl_(std::move(ctl)) {}

  void onNext(const T& value) override {
    Observer<T> down;
    {
      std::lock_guard lock(mutex_);
      down = down_;
    }
    if (!ctl_->isDisposed()) down.onNext(value);
  }
  void onError(std::exception_ptr error) override {
    auto down = release();
    if (!ctl_->isDisposed()) down.onError(std::move(error));
    ctl_->dispose();
  }
  void onCompleted() override {
    auto down = release();
    if (!ctl_->isDisposed()) down.onCompleted();
    ctl_->dispose();
  }
  Observer<T> release() {
    std::lock_guard lock(mutex_);
    return std::exchange(down_, Observer<T>());
  }
  bool isStopped() const noexcept override {
    Observer<T> down;
    {
      std::lock_guard lock(mutex_);
      down = down_;
    }
    return ctl_->isDisposed() || down.isStopped();
  }

 private:
  mutable std::mutex mutex_;
  Observer<T> down_;
  std::shared_ptr<SingleAssignmentState> ctl_;
};

template <class T>
class CreateSource final : public Source<T> {
 public:
  explicit CreateSource(std::function<Disposable(Observer<T>)> f) : f_(std::move(f)) {}

  Disposable subscribe(Observer<T> observer) const override {
    auto ctl = std::make_shared<SingleAssignmentState>();
    auto sink = std::make_shared<CreateSink<T>>(std::move(observer), ctl);
    // The control reaches the sink weakly: it only needs to cut it loose on disposal, and a strong
    // edge would make a cycle with the sink's own reference to the control.
    std::weak_ptr<CreateSink<T>> weak = sink;
    auto release = Disposable::create([weak] {
      if (auto s = weak.lock()) s->release();
    });
    Disposable user;
    try {
      user = f_(Observer<T>(sink));
    } catch (...) {
      sink->onError(std::current_exception());
    }
    auto composite = std::make_shared<CompositeState>();
    composite->insert(std::move(release));
    composite->insert(std::move(user));
    ctl->set(Disposable(std::move(composite)));
    return Disposable(ctl);
  }

 private:
  std::function<Disposable(Observer<T>)> f_;
};

template <class T>
class JustSource final : public Source<T> {
 public:
  explicit JustSource(T value) : value_(std::move(value)) {}
  Disposable subscribe(Observer<T> observer) const override {
    observer.onNext(value_);
    observer.onCompleted();
    return Disposable();
  }

 private:
  T value_;
};

template <class T>
class DeferredSource final : public Source<T> {
 public:
  explicit DeferredSource(std::function<Observable<T>()> f) : f_(std::move(f)) {}
  Disposable subscribe(Observer<T> observer) const override {
    Observable<T> source;
    try {
      source = f_();
    } catch (...) {
      observer.onError(std::current_exception());
      return Disposable();
    }
    return source.subscribe(std::move(observer));
  }

 private:
  std::function<Observable<T>()> f_;
};

/// The final observer of subscribe(callbacks). `OnNext` is the subscriber's own callable when
/// subscribe() was handed one, so delivering an element costs one virtual call and nothing more.
template <class T, class OnNext>
class LambdaObserver final : public ObserverBase<T> {
 public:
  LambdaObserver(OnNext next, std::function<void(std::exception_ptr)> error,
                 std::function<void()> completed, std::shared_ptr<CompositeState> ctl)
      : onError_(std::move(error)), onCompleted_(std::move(completed)), ctl_(std::move(ctl)) {
    if (hasTarget(next)) onNext_.emplace(std::move(next));
  }

  /// onNext() checks ctl_, which disposes whatever feeds this observer, before each element.
  static constexpr bool kChecksDisposalBeforeNext = true;

  void onNext(const T& value) override {
    // Only a std::function or a pointer can be empty from the start; clear() comes after stopped_.
    if constexpr (kMayBeEmpty) {
      if (!onNext_) return;
    }
    if (stopped_ || ctl_->isDisposed()) return;
    try {
      (*onNext_)(value);
    } catch (...) {
      auto error = std::current_exception();
      ctl_->dispose();  // stops upstream first, as if the subscriber had cancelled
      terminate(error, true);
    }
  }
  void onError(std::exception_ptr error) override {
    if (stopped_ || ctl_->isDisposed()) return;
    terminate(std::move(error), false);
  }
  void onCompleted() override {
    if (stopped_ || ctl_->isDisposed()) return;
    stopped_ = true;
    auto handler = std::move(onCompleted_);
    clear();
    if (handler) {
      if (auto e = invokeCatching(handler)) reportUnhandledError(e);
    }
    ctl_->dispose();
  }
  bool isStopped() const noexcept override { return stopped_ || ctl_->isDisposed(); }

 private:
  template <class F>
  struct IsFunction : std::false_type {};
  template <class R, class... A>
  struct IsFunction<std::function<R(A...)>> : std::true_type {};
  static constexpr bool kMayBeEmpty = IsFunction<OnNext>::value || std::is_pointer_v<OnNext>;
  // A lambda always has a target; only std::function and pointers may be null.
  static bool hasTarget(const OnNext& f) {
    if constexpr (kMayBeEmpty) {
      return f != nullptr;
    } else {
      return true;
    }
  }
  void terminate(std::exception_ptr error, bool alreadyDisposed) {
    stopped_ = true;
    auto handler = std::move(onError_);
    clear();
    if (handler) {
      if (auto e = invokeCatching(handler, std::move(error))) reportUnhandledError(e);
    } else {
      reportUnhandledError(std::move(error));
    }
    if (!alreadyDisposed) ctl_->dispose();
  }
  // Releases what the callbacks captured as soon as nothing more will be delivered.
  void clear() {
    onNext_.reset();
    onError_ = nullptr;
    onCompleted_ = nullptr;
  }

  bool stopped_ = false;
  std::optional<OnNext> onNext_;
  std::function<void(std::exception_ptr)> onError_;
  std::function<void()> onCompleted_;
  std::shared_ptr<CompositeState> ctl_;
};

/// Subscribes a LambdaObserver made of the callbacks through `subscribe`, which receives the
/// observer as a typed shared pointer and returns the upstream subscription.
template <class T, class Subscribe, class OnNext>
Disposable subscribeCallbacks(Subscribe&& subscribe, OnNext onNext,
                              std::function<void(std::exception_ptr)> onError,
                              std::function<void()> onCompleted, std::function<void()> onDisposed) {
  auto ctl = std::make_shared<CompositeState>();
  auto upstream = std::make_shared<SingleAssignmentState>();
  ctl->insert(Disposable(upstream));
  if (onDisposed) ctl->insert(Disposable::create(std::move(onDisposed)));
  auto observer = std::make_shared<LambdaObserver<T, OnNext>>(std::move(onNext), std::move(onError),
                                                              std::move(onCompleted), ctl);
  upstream->set(subscribe(std::move(observer)));
  return Disposable(std::move(ctl));
}

}  // namespace detail

template <class T>
Observable<T>::Observable() : source_(std::make_shared<const detail::NeverSource<T>>()) {}

template <class T>
Observable<T> Observable<T>::create(std::function<Disposable(Observer<T>)> subscribe) {
  return make<detail::CreateSource<T>>(std::move(subscribe));
}
template <class T>
Observable<T> Observable<T>::just(T value) {
  return make<detail::JustSource<T>>(std::move(value));
}
template <class T>
Observable<T> Observable<T>::from(std::vector<T> values) {
  return make<detail::FromSource<T>>(std::move(values));
}
template <class T>
Observable<T> Observable<T>::error(std::exception_ptr error) {
  return make<detail::ErrorSource<T>>(std::move(error));
}
template <class T>
Observable<T> Observable<T>::empty() {
  return make<detail::EmptySource<T>>();
}
template <class T>
Observable<T> Observable<T>::never() {
  return make<detail::NeverSource<T>>();
}
template <class T>
Observable<T> Observable<T>::deferred(std::function<Observable()> factory) {
  return make<detail::DeferredSource<T>>(std::move(factory));
}

template <class T>
Disposable Observable<T>::subscribe(Observer<T> observer) const {
  return source_->subscribe(std::move(observer));
}

template <class T>
Disposable Observable<T>::subscribe(std::function<void(const T&)> onNext,
                                    std::function<void(std::exception_ptr)> onError,
                                    std::function<void()> onCompleted,
                                    std::function<void()> onDisposed) const {
  return detail::subscribeCallbacks<T>(
      [this](auto observer) { return source_->subscribe(Observer<T>(std::move(observer))); },
      std::move(onNext), std::move(onError), std::move(onCompleted), std::move(onDisposed));
}

template <class T>
template <class OnNext>
requires detail::PlainOnNext<OnNext, T> Disposable
Observable<T>::subscribe(OnNext onNext, std::function<void(std::exception_ptr)> onError,
                         std::function<void()> onCompleted, std::function<void()> onDisposed)
const {
  return detail::subscribeCallbacks<T>(
      [this](auto observer) { return source_->subscribe(Observer<T>(std::move(observer))); },
      std::move(onNext), std::move(onError), std::move(onCompleted), std::move(onDisposed));
}

}  // namespace kel::rx
