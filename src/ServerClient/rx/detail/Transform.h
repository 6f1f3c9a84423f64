#pragma once
// Internal: included by Observable.h. Single-upstream, element-by-element operators. None of them
// locks or allocates per element: the user function is stored by value and called directly, and
// runs of map, compactMap and filter share one sink (Pipeline).

namespace kel::rx {
namespace detail {

/// One sink for a run of map, compactMap and filter: `Stage` is the run composed into a single
/// function `stage(value, emit)` that calls `emit` with the run's result, or not at all when a
/// filter dropped the element. The lambdas of the run are inlined into each other, so an element
/// costs one virtual call for the whole run instead of one per operator.
template <class In, class Out, class Stage, class Final = ObserverBase<Out>>
class PipelineSink final : public Sink<In, Out> {
 public:
  PipelineSink(std::shared_ptr<Final> down, const Stage& stage)
      : Sink<In, Out>(Observer<Out>(down)), next_(down.get()), stage_(stage) {}
  void onNext(const In& value) override {
    // A final observer that checks its own subscription's disposal before each element (the
    // subscribe() with callbacks) is disposed no later than this sink, so stopped_ is enough here:
    // an element that got past the subject before a disposal may run the stage, never a callback.
    if constexpr (kFinalChecksDisposal) {
      if (this->stopped_) return;
    } else {
      if (!this->live()) return;
    }
    try {
      // next_ is down_'s observer, typed: when it is a final class the call below is direct.
      stage_(value, [this](const Out& result) { next_->onNext(result); });
    } catch (...) {
      this->forwardError(std::current_exception());
    }
  }
  void onError(std::exception_ptr e) override { this->forwardError(std::move(e)); }
  void onCompleted() override { this->forwardCompleted(); }

 private:
  static constexpr bool kFinalChecksDisposal = requires { Final::kChecksDisposalBeforeNext; };
  Final* next_;  // owned by down_, which outlives every call to onNext (live() checks it)
  Stage stage_;
};

template <class In, class Out, class Stage>
class PipelineSource final : public Source<Out> {
 public:
  PipelineSource(Observable<In> upstream, Stage stage)
      : upstream_(std::move(upstream)), stage_(std::move(stage)) {}
  Disposable subscribe(Observer<Out> observer) const override {
    if (!observer) return upstream_.subscribe(Observer<In>());
    return runSink(std::make_shared<PipelineSink<In, Out, Stage>>(observer.impl(), stage_),
                   upstream_);
  }
  /// Subscribes callbacks with the element callback called directly from the stage.
  template <class OnNext>
  Disposable subscribeCallbacks(OnNext onNext, std::function<void(std::exception_ptr)> onError,
                                std::function<void()> onCompleted,
                                std::function<void()> onDisposed) const {
    return detail::subscribeCallbacks<Out>(
        [this](auto final) {
          return runSink(std::make_shared<
                             PipelineSink<In, Out, Stage, typename decltype(final)::element_type>>(
                             std::move(final), stage_),
                         upstream_);
        },
        std::move(onNext), std::move(onError), std::move(onCompleted), std::move(onDisposed));
  }

 private:
  Observable<In> upstream_;
  Stage stage_;
};

/// The stage of a single map, compactMap or filter.
template <class F>
auto mapStage(F f) {
  return [f = std::move(f)](const auto& value, auto&& emit) { emit(std::invoke(f, value)); };
}
template <class F>
auto compactMapStage(F f) {
  return [f = std::move(f)](const auto& value, auto&& emit) {
    if (auto result = std::invoke(f, value)) emit(*result);
  };
}
template <class P>
auto filterStage(P p) {
  return [p = std::move(p)](const auto& value, auto&& emit) {
    if (std::invoke(p, value)) emit(value);
  };
}
/// `first` then `second`: what first emits goes through second.
template <class First, class Second>
auto chainStages(First first, Second second) {
  return [first = std::move(first), second = std::move(second)](const auto& value, auto&& emit) {
    first(value, [&second, &emit](const auto& middle) { second(middle, emit); });
  };
}

template <class F, class T>
using MapResult = std::decay_t<std::invoke_result_t<F&, const T&>>;
template <class F, class T>
using CompactMapResult = typename OptionalTraits<MapResult<F, T>>::Value;

}  // namespace detail

/// What map, compactMap and filter return: an Observable<Out> (it converts to one by slicing, and
/// every other operator treats it as one) that remembers its source and its composed stage, so
/// that a further map, compactMap or filter extends the same single sink instead of adding one.
template <class In, class Out, class Stage>
class Pipeline : public Observable<Out> {
 public:
  Pipeline(Observable<In> upstream, Stage stage)
      : Observable<Out>(
            std::make_shared<const detail::PipelineSource<In, Out, Stage>>(upstream, stage)),
        upstream_(std::move(upstream)),
        stage_(std::move(stage)) {}

  template <class F>
  auto map(F f) const {
    return extend<detail::MapResult<F, Out>>(detail::mapStage(std::move(f)));
  }
  template <class F>
  auto compactMap(F f) const {
    static_assert(detail::OptionalTraits<detail::MapResult<F, Out>>::isOptional,
                  "compactMap's function returns an optional");
    return extend<detail::CompactMapResult<F, Out>>(detail::compactMapStage(std::move(f)));
  }
  template <class P>
  auto filter(P pred) const {
    return extend<Out>(detail::filterStage(std::move(pred)));
  }

  using Observable<Out>::subscribe;
  template <class OnNext>
  requires detail::PlainOnNext<OnNext, Out> Disposable
  subscribe(OnNext onNext, std::function<void(std::exception_ptr)> onError = {},
            std::function<void()> onCompleted = {}, std::function<void()> onDisposed = {})
  const {
    return source().subscribeCallbacks(std::move(onNext), std::move(onError),
                                       std::move(onCompleted), std::move(onDisposed));
  }

 private:
  template <class Next, class S>
  auto extend(S next) const {
    auto stage = detail::chainStages(stage_, std::move(next));
    return Pipeline<In, Next, decltype(stage)>(upstream_, std::move(stage));
  }

  const detail::PipelineSource<In, Out, Stage>& source() const noexcept {
    return static_cast<const detail::PipelineSource<In, Out, Stage>&>(*Observable<Out>::source());
  }

  Observable<In> upstream_;
  Stage stage_;
};

namespace detail {

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
  auto stage = detail::mapStage(std::move(f));
  return Pipeline<T, detail::MapResult<F, T>, decltype(stage)>(*this, std::move(stage));
}

template <class T>
template <class F>
auto Observable<T>::compactMap(F f) const {
  static_assert(detail::OptionalTraits<detail::MapResult<F, T>>::isOptional,
                "compactMap's function returns an optional");
  auto stage = detail::compactMapStage(std::move(f));
  return Pipeline<T, detail::CompactMapResult<F, T>, decltype(stage)>(*this, std::move(stage));
}

template <class T>
template <class P>
auto Observable<T>::filter(P pred) const {
  auto stage = detail::filterStage(std::move(pred));
  return Pipeline<T, T, decltype(stage)>(*this, std::move(stage));
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
