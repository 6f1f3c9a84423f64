#pragma once
// Internal: included by Observable.h. Single-upstream, element-by-element operators. None of them
// locks or allocates per element: the user function is stored by value and called directly.

namespace kel::rx {
namespace detail {

template <class T, class U, class F>
class MapSink final : public Sink<T, U> {
 public:
  MapSink(Observer<U> down, const F& f) : Sink<T, U>(std::move(down)), f_(f) {}
  void onNext(const T& value) override {
    if (!this->live()) return;
    try {
      this->down_.onNext(std::invoke(f_, value));
    } catch (...) {
      this->forwardError(std::current_exception());
    }
  }
  void onError(std::exception_ptr e) override { this->forwardError(std::move(e)); }
  void onCompleted() override { this->forwardCompleted(); }

 private:
  F f_;
};

template <class T, class U, class F>
class CompactMapSink final : public Sink<T, U> {
 public:
  CompactMapSink(Observer<U> down, const F& f) : Sink<T, U>(std::move(down)), f_(f) {}
  void onNext(const T& value) override {
    if (!this->live()) return;
    try {
      if (auto result = std::invoke(f_, value)) this->down_.onNext(*result);
    } catch (...) {
      this->forwardError(std::current_exception());
    }
  }
  void onError(std::exception_ptr e) override { this->forwardError(std::move(e)); }
  void onCompleted() override { this->forwardCompleted(); }

 private:
  F f_;
};

template <class T, class P>
class FilterSink final : public Sink<T, T> {
 public:
  FilterSink(Observer<T> down, const P& p) : Sink<T, T>(std::move(down)), p_(p) {}
  void onNext(const T& value) override {
    if (!this->live()) return;
    try {
      if (std::invoke(p_, value)) this->down_.onNext(value);
    } catch (...) {
      this->forwardError(std::current_exception());
    }
  }
  void onError(std::exception_ptr e) override { this->forwardError(std::move(e)); }
  void onCompleted() override { this->forwardCompleted(); }

 private:
  P p_;
};

template <class T, class Acc, class F>
class ScanSink final : public Sink<T, Acc> {
 public:
  ScanSink(Observer<Acc> down, Acc seed, const F& f)
      : Sink<T, Acc>(std::move(down)), acc_(std::move(seed)), f_(f) {}
  void onNext(const T& value) override {
    if (!this->live()) return;
    try {
      acc_ = std::invoke(f_, std::as_const(acc_), value);
      this->down_.onNext(acc_);
    } catch (...) {
      this->forwardError(std::current_exception());
    }
  }
  void onError(std::exception_ptr e) override { this->forwardError(std::move(e)); }
  void onCompleted() override { this->forwardCompleted(); }

 private:
  Acc acc_;
  F f_;
};

template <class T>
class TakeSink final : public Sink<T, T> {
 public:
  TakeSink(Observer<T> down, std::size_t count) : Sink<T, T>(std::move(down)), left_(count) {}
  void onNext(const T& value) override {
    if (!this->live()) return;
    --left_;
    this->down_.onNext(value);
    if (left_ == 0) this->forwardCompleted();
  }
  void onError(std::exception_ptr e) override { this->forwardError(std::move(e)); }
  void onCompleted() override { this->forwardCompleted(); }

 private:
  std::size_t left_;
};

template <class T>
class SkipSink final : public Sink<T, T> {
 public:
  SkipSink(Observer<T> down, std::size_t count) : Sink<T, T>(std::move(down)), left_(count) {}
  void onNext(const T& value) override {
    if (!this->live()) return;
    if (left_ > 0) {
      --left_;
      return;
    }
    this->down_.onNext(value);
  }
  void onError(std::exception_ptr e) override { this->forwardError(std::move(e)); }
  void onCompleted() override { this->forwardCompleted(); }

 private:
  std::size_t left_;
};

template <class T, class P>
class TakeWhileSink final : public Sink<T, T> {
 public:
  TakeWhileSink(Observer<T> down, const P& p) : Sink<T, T>(std::move(down)), p_(p) {}
  void onNext(const T& value) override {
    if (!this->live()) return;
    bool keep = false;
    try {
      keep = std::invoke(p_, value);
    } catch (...) {
      return this->forwardError(std::current_exception());
    }
    if (keep) {
      this->down_.onNext(value);
    } else {
      this->forwardCompleted();
    }
  }
  void onError(std::exception_ptr e) override { this->forwardError(std::move(e)); }
  void onCompleted() override { this->forwardCompleted(); }

 private:
  P p_;
};

template <class T, class Eq>
class DistinctSink final : public Sink<T, T> {
 public:
  DistinctSink(Observer<T> down, const Eq& eq) : Sink<T, T>(std::move(down)), eq_(eq) {}
  void onNext(const T& value) override {
    if (!this->live()) return;
    try {
      if (last_ && std::invoke(eq_, *last_, value)) return;
      last_ = value;
    } catch (...) {
      return this->forwardError(std::current_exception());
    }
    this->down_.onNext(value);
  }
  void onError(std::exception_ptr e) override { this->forwardError(std::move(e)); }
  void onCompleted() override { this->forwardCompleted(); }

 private:
  Eq eq_;
  std::optional<T> last_;
};

template <class T>
class MaterializeSink final : public Sink<T, Event<T>> {
 public:
  explicit MaterializeSink(Observer<Event<T>> down) : Sink<T, Event<T>>(std::move(down)) {}
  void onNext(const T& value) override {
    if (this->live()) this->down_.onNext(Event<T>::next(value));
  }
  void onError(std::exception_ptr e) override {
    if (!this->live()) return;
    this->down_.onNext(Event<T>::error(std::move(e)));
    this->forwardCompleted();
  }
  void onCompleted() override {
    if (!this->live()) return;
    this->down_.onNext(Event<T>::completed());
    this->forwardCompleted();
  }
};

/// Drops elements, keeps the terminal event; changes the element type.
template <class T, class U>
class IgnoreElementsSink final : public Sink<T, U> {
 public:
  explicit IgnoreElementsSink(Observer<U> down) : Sink<T, U>(std::move(down)) {}
  void onNext(const T&) override {}
  void onError(std::exception_ptr e) override { this->forwardError(std::move(e)); }
  void onCompleted() override { this->forwardCompleted(); }
};

template <class T>
struct DoCallbacks {
  std::function<void(const T&)> onNext;
  std::function<void(std::exception_ptr)> onError;
  std::function<void()> onCompleted;
  std::function<void()> onSubscribe;
  std::function<void()> onDispose;
};

template <class T>
class DoSink final : public Sink<T, T> {
 public:
  DoSink(Observer<T> down, std::shared_ptr<const DoCallbacks<T>> callbacks)
      : Sink<T, T>(std::move(down)), callbacks_(std::move(callbacks)) {}
  void onNext(const T& value) override {
    if (!this->live()) return;
    if (callbacks_->onNext) {
      if (auto e = invokeCatching(callbacks_->onNext, value)) return fail(std::move(e));
    }
    this->down_.onNext(value);
  }
  void onError(std::exception_ptr error) override {
    if (!this->live()) return;
    if (callbacks_->onError) {
      if (auto e = invokeCatching(callbacks_->onError, error)) error = std::move(e);
    }
    release();
    this->forwardError(std::move(error));
  }
  void onCompleted() override {
    if (!this->live()) return;
    if (callbacks_->onCompleted) {
      if (auto e = invokeCatching(callbacks_->onCompleted)) {
        release();
        return this->forwardError(std::move(e));
      }
    }
    release();
    this->forwardCompleted();
  }

 private:
  void fail(std::exception_ptr e) {
    release();
    this->forwardError(std::move(e));
  }
  // Keep the dispose callback alive (it sits in the control) but drop the rest once terminated.
  void release() { callbacks_.reset(); }

  std::shared_ptr<const DoCallbacks<T>> callbacks_;
};

template <class T>
class DoSource final : public Source<T> {
 public:
  DoSource(Observable<T> upstream, DoCallbacks<T> callbacks)
      : upstream_(std::move(upstream)),
        callbacks_(std::make_shared<const DoCallbacks<T>>(std::move(callbacks))) {}
  Disposable subscribe(Observer<T> observer) const override {
    if (callbacks_->onSubscribe) {
      if (auto e = invokeCatching(callbacks_->onSubscribe)) {
        observer.onError(std::move(e));
        return Disposable();
      }
    }
    auto sink = std::make_shared<DoSink<T>>(std::move(observer), callbacks_);
    if (!callbacks_->onDispose) return runSink(sink, upstream_);
    // The dispose callback sits in the sink's control so that it also runs when the sink
    // terminates, which disposes that control.
    auto composite = std::make_shared<CompositeState>();
    sink->control()->set(Disposable(composite));
    composite->insert(upstream_.subscribe(sink));
    composite->insert(Disposable::create(callbacks_->onDispose));
    return Disposable(sink->control());
  }

 private:
  Observable<T> upstream_;
  std::shared_ptr<const DoCallbacks<T>> callbacks_;
};

/// A source made of a subscribe function; used by operators whose whole logic is a sink.
template <class T, class F>
class LambdaSource final : public Source<T> {
 public:
  explicit LambdaSource(F f) : f_(std::move(f)) {}
  Disposable subscribe(Observer<T> observer) const override { return f_(std::move(observer)); }

 private:
  F f_;
};

template <class T, class F>
Observable<T> makeObservable(F f) {
  return Observable<T>(std::make_shared<const LambdaSource<T, F>>(std::move(f)));
}

template <class T>
struct EqualTo {
  bool operator()(const T& a, const T& b) const { return a == b; }
};

}  // namespace detail

template <class T>
template <class F>
auto Observable<T>::map(F f) const {
  using U = std::decay_t<std::invoke_result_t<F&, const T&>>;
  return detail::makeObservable<U>([up = *this, f = std::move(f)](Observer<U> o) {
    return detail::runSink(std::make_shared<detail::MapSink<T, U, F>>(std::move(o), f), up);
  });
}

template <class T>
template <class F>
auto Observable<T>::compactMap(F f) const {
  using R = std::decay_t<std::invoke_result_t<F&, const T&>>;
  static_assert(detail::OptionalTraits<R>::isOptional, "compactMap's function returns an optional");
  using U = typename detail::OptionalTraits<R>::Value;
  return detail::makeObservable<U>([up = *this, f = std::move(f)](Observer<U> o) {
    return detail::runSink(std::make_shared<detail::CompactMapSink<T, U, F>>(std::move(o), f), up);
  });
}

template <class T>
template <class P>
Observable<T> Observable<T>::filter(P pred) const {
  return detail::makeObservable<T>([up = *this, p = std::move(pred)](Observer<T> o) {
    return detail::runSink(std::make_shared<detail::FilterSink<T, P>>(std::move(o), p), up);
  });
}

template <class T>
template <class Acc, class F>
Observable<Acc> Observable<T>::scan(Acc seed, F accumulator) const {
  return detail::makeObservable<Acc>(
      [up = *this, seed = std::move(seed), f = std::move(accumulator)](Observer<Acc> o) {
        return detail::runSink(std::make_shared<detail::ScanSink<T, Acc, F>>(std::move(o), seed, f),
                               up);
      });
}

template <class T>
Observable<T> Observable<T>::take(std::size_t count) const {
  if (count == 0) return empty();
  return detail::makeObservable<T>([up = *this, count](Observer<T> o) {
    return detail::runSink(std::make_shared<detail::TakeSink<T>>(std::move(o), count), up);
  });
}

template <class T>
Observable<T> Observable<T>::skip(std::size_t count) const {
  if (count == 0) return *this;
  return detail::makeObservable<T>([up = *this, count](Observer<T> o) {
    return detail::runSink(std::make_shared<detail::SkipSink<T>>(std::move(o), count), up);
  });
}

template <class T>
template <class P>
Observable<T> Observable<T>::takeWhile(P pred) const {
  return detail::makeObservable<T>([up = *this, p = std::move(pred)](Observer<T> o) {
    return detail::runSink(std::make_shared<detail::TakeWhileSink<T, P>>(std::move(o), p), up);
  });
}

template <class T>
Observable<T> Observable<T>::distinctUntilChanged() const {
  return distinctUntilChanged(detail::EqualTo<T>{});
}

template <class T>
template <class Eq>
Observable<T> Observable<T>::distinctUntilChanged(Eq eq) const {
  return detail::makeObservable<T>([up = *this, eq = std::move(eq)](Observer<T> o) {
    return detail::runSink(std::make_shared<detail::DistinctSink<T, Eq>>(std::move(o), eq), up);
  });
}

template <class T>
Observable<Event<T>> Observable<T>::materialize() const {
  return detail::makeObservable<Event<T>>([up = *this](Observer<Event<T>> o) {
    return detail::runSink(std::make_shared<detail::MaterializeSink<T>>(std::move(o)), up);
  });
}

template <class T>
Observable<T> Observable<T>::startWith(T value) const {
  return concat({just(std::move(value)), *this});
}

template <class T>
Observable<T> Observable<T>::doOnNext(std::function<void(const T&)> f) const {
  detail::DoCallbacks<T> c;
  c.onNext = std::move(f);
  return make<detail::DoSource<T>>(*this, std::move(c));
}
template <class T>
Observable<T> Observable<T>::doOnError(std::function<void(std::exception_ptr)> f) const {
  detail::DoCallbacks<T> c;
  c.onError = std::move(f);
  return make<detail::DoSource<T>>(*this, std::move(c));
}
template <class T>
Observable<T> Observable<T>::doOnCompleted(std::function<void()> f) const {
  detail::DoCallbacks<T> c;
  c.onCompleted = std::move(f);
  return make<detail::DoSource<T>>(*this, std::move(c));
}
template <class T>
Observable<T> Observable<T>::doOnSubscribe(std::function<void()> f) const {
  detail::DoCallbacks<T> c;
  c.onSubscribe = std::move(f);
  return make<detail::DoSource<T>>(*this, std::move(c));
}
template <class T>
Observable<T> Observable<T>::doOnDispose(std::function<void()> f) const {
  detail::DoCallbacks<T> c;
  c.onDispose = std::move(f);
  return make<detail::DoSource<T>>(*this, std::move(c));
}

}  // namespace kel::rx
