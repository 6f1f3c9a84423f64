#pragma once
// Internal: included by Observable.h. Operators with several upstreams. Their notifications come
// from different threads, so they serialise through an Emitter (no lock held while calling
// downstream) and keep their state under one mutex.

#include "ServerClient/rx/detail/SubjectCore.h"

#include <atomic>

namespace kel::rx {
namespace detail {

template <class X>
auto toObservable(X&& x) {
  using D = std::decay_t<X>;
  static_assert(SequenceTraits<D>::isSequence,
                "the function must return an Observable or a Single");
  if constexpr (std::is_same_v<D, Observable<typename SequenceTraits<D>::Element>>) {
    return std::forward<X>(x);
  } else {
    return x.asObservable();
  }
}

/// Forwards an inner subscription's notifications to its parent with an identifying tag.
template <class Parent, class U, class Tag>
class TaggedObserver final : public ObserverBase<U> {
 public:
  TaggedObserver(std::shared_ptr<Parent> parent, Tag tag) : parent_(std::move(parent)), tag_(tag) {}
  void onNext(const U& value) override { parent_->innerNext(tag_, value); }
  void onError(std::exception_ptr error) override { parent_->innerError(tag_, std::move(error)); }
  void onCompleted() override { parent_->innerCompleted(tag_); }

 private:
  std::shared_ptr<Parent> parent_;
  Tag tag_;
};

/// Merges inner sequences; completes when the outer (if any) and every inner completed.
template <class U>
class MergeCore : public std::enable_shared_from_this<MergeCore<U>> {
 public:
  using Key = CompositeState::Key;
  explicit MergeCore(Observer<U> down)
      : ctl_(std::make_shared<CompositeState>()), emitter_(std::move(down), ctl_.get()) {}
  virtual ~MergeCore() = default;

  void addSource() {
    std::lock_guard lock(mutex_);
    ++active_;
  }
  /// Pairs with an addSource() made before.
  void subscribeInner(const Observable<U>& inner) {
    auto sad = std::make_shared<SingleAssignmentState>();
    Key key = ctl_->insert(Disposable(sad));
    if (key == 0) return;
    auto observer =
        std::make_shared<TaggedObserver<MergeCore, U, Key>>(this->shared_from_this(), key);
    sad->set(inner.subscribe(std::move(observer)));
  }
  void innerNext(Key, const U& value) {
    std::unique_lock lock(mutex_);
    emitter_.next(lock, value);
  }
  void innerError(Key, std::exception_ptr error) { fail(std::move(error)); }
  void innerCompleted(Key key) {
    ctl_->remove(key);
    sourceCompleted();
  }
  void sourceCompleted() {
    std::unique_lock lock(mutex_);
    if (--active_ == 0) {
      emitter_.completed(lock);
    }
  }
  void fail(std::exception_ptr error) {
    std::unique_lock lock(mutex_);
    emitter_.error(lock, std::move(error));
  }
  const std::shared_ptr<CompositeState>& control() const noexcept { return ctl_; }

 protected:
  std::mutex mutex_;
  std::shared_ptr<CompositeState> ctl_;
  Emitter<U> emitter_;
  std::size_t active_ = 0;
};

template <class T, class U, class F>
class FlatMapSink final : public MergeCore<U>, public ObserverBase<T> {
 public:
  FlatMapSink(Observer<U> down, const F& f) : MergeCore<U>(std::move(down)), f_(f) {}

  void onNext(const T& value) override {
    if (this->ctl_->isDisposed()) return;
    Observable<U> inner;
    try {
      inner = toObservable(std::invoke(f_, value));
    } catch (...) {
      return this->fail(std::current_exception());
    }
    this->addSource();
    this->subscribeInner(inner);
  }
  void onError(std::exception_ptr error) override { this->fail(std::move(error)); }
  void onCompleted() override { this->sourceCompleted(); }

  Disposable run(const Observable<T>& upstream) {
    this->addSource();
    auto sad = std::make_shared<SingleAssignmentState>();
    this->ctl_->insert(Disposable(sad));
    sad->set(upstream.subscribe(std::static_pointer_cast<FlatMapSink>(this->shared_from_this())));
    return Disposable(this->ctl_);
  }

 private:
  F f_;
};

template <class T, class U, class F>
class SwitchSink final : public ObserverBase<T>,
                         public std::enable_shared_from_this<SwitchSink<T, U, F>> {
 public:
  SwitchSink(Observer<U> down, const F& f)
      : ctl_(std::make_shared<CompositeState>()),
        inner_(std::make_shared<SerialState>()),
        emitter_(std::move(down), ctl_.get()),
        f_(f) {
    ctl_->insert(Disposable(inner_));
  }

  Disposable run(const Observable<T>& upstream) {
    auto sad = std::make_shared<SingleAssignmentState>();
    ctl_->insert(Disposable(sad));
    sad->set(upstream.subscribe(this->shared_from_this()));
    return Disposable(ctl_);
  }

  void onNext(const T& value) override {
    if (ctl_->isDisposed()) return;
    Observable<U> inner;
    try {
      inner = toObservable(std::invoke(f_, value));
    } catch (...) {
      return fail(std::current_exception());
    }
    std::uint64_t id;
    {
      std::lock_guard lock(mutex_);
      if (emitter_.done()) return;
      id = ++latest_;
      innerActive_ = true;
    }
    auto sad = std::make_shared<SingleAssignmentState>();
    inner_->set(Disposable(sad));  // disposes the previous inner before the next one starts
    sad->set(inner.subscribe(std::make_shared<TaggedObserver<SwitchSink, U, std::uint64_t>>(
        this->shared_from_this(), id)));
  }
  void onError(std::exception_ptr error) override { fail(std::move(error)); }
  void onCompleted() override {
    std::unique_lock lock(mutex_);
    outerDone_ = true;
    if (innerActive_) return;
    emitter_.completed(lock);
  }

  void innerNext(std::uint64_t id, const U& value) {
    std::unique_lock lock(mutex_);
    if (id != latest_) return;
    emitter_.next(lock, value);
  }
  void innerError(std::uint64_t id, std::exception_ptr error) {
    std::unique_lock lock(mutex_);
    if (id != latest_) return;
    emitter_.error(lock, std::move(error));
  }
  void innerCompleted(std::uint64_t id) {
    std::unique_lock lock(mutex_);
    if (id != latest_) return;
    innerActive_ = false;
    if (!outerDone_) return;
    emitter_.completed(lock);
  }

 private:
  void fail(std::exception_ptr error) {
    std::unique_lock lock(mutex_);
    emitter_.error(lock, std::move(error));
  }

  std::mutex mutex_;
  std::shared_ptr<CompositeState> ctl_;
  std::shared_ptr<SerialState> inner_;
  Emitter<U> emitter_;
  F f_;
  std::uint64_t latest_ = 0;
  bool innerActive_ = false;
  bool outerDone_ = false;
};

/// amb: the first source to notify wins; the decision is one compare-and-swap, after which only
/// the winner's (already serialised) notifications pass, so no lock is needed on the way down.
template <class T>
class AmbCore : public std::enable_shared_from_this<AmbCore<T>> {
 public:
  AmbCore(Observer<T> down, std::size_t count)
      : down_(std::move(down)), ctl_(std::make_shared<CompositeState>()) {
    subs_.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
      subs_.push_back(std::make_shared<SingleAssignmentState>());
      ctl_->insert(Disposable(subs_.back()));
    }
  }

  Disposable run(const std::vector<Observable<T>>& sources) {
    for (std::size_t i = 0; i < sources.size(); ++i) {
      if (winner_.load(std::memory_order_acquire) >= 0 || ctl_->isDisposed()) break;
      subs_[i]->set(
          sources[i].subscribe(std::make_shared<TaggedObserver<AmbCore, T, std::ptrdiff_t>>(
              this->shared_from_this(), std::ptrdiff_t(i))));
    }
    return Disposable(ctl_);
  }

  void innerNext(std::ptrdiff_t i, const T& value) {
    if (wins(i) && !stopped_ && !ctl_->isDisposed()) down_.onNext(value);
  }
  void innerError(std::ptrdiff_t i, std::exception_ptr error) {
    if (!wins(i) || stopped_) return;
    stopped_ = true;
    auto down = std::exchange(down_, Observer<T>());
    if (!ctl_->isDisposed()) down.onError(std::move(error));
    ctl_->dispose();
  }
  void innerCompleted(std::ptrdiff_t i) {
    if (!wins(i) || stopped_) return;
    stopped_ = true;
    auto down = std::exchange(down_, Observer<T>());
    if (!ctl_->isDisposed()) down.onCompleted();
    ctl_->dispose();
  }

 private:
  bool wins(std::ptrdiff_t i) {
    std::ptrdiff_t current = winner_.load(std::memory_order_acquire);
    if (current >= 0) return current == i;
    if (!winner_.compare_exchange_strong(current, i, std::memory_order_acq_rel))
      return current == i;
    for (std::size_t j = 0; j < subs_.size(); ++j) {
      if (std::ptrdiff_t(j) != i) subs_[j]->dispose();
    }
    return true;
  }

  std::atomic<std::ptrdiff_t> winner_{-1};
  Observer<T> down_;  // touched only by the winner's notifications
  bool stopped_ = false;
  std::shared_ptr<CompositeState> ctl_;
  std::vector<std::shared_ptr<SingleAssignmentState>> subs_;
};

/// Subscribes to the sources one after the other. Subscribing the next source from inside the
/// previous one's completion is trampolined so that long chains of synchronous sources don't grow
/// the stack.
template <class T>
class ConcatSink final : public ObserverBase<T>,
                         public std::enable_shared_from_this<ConcatSink<T>> {
 public:
  ConcatSink(Observer<T> down, std::shared_ptr<const std::vector<Observable<T>>> sources)
      : down_(std::move(down)),
        serial_(std::make_shared<SerialState>()),
        sources_(std::move(sources)) {}

  Disposable run() {
    subscribeNext();
    return Disposable(serial_);
  }
  void onNext(const T& value) override {
    if (!stopped_ && !serial_->isDisposed()) down_.onNext(value);
  }
  void onError(std::exception_ptr error) override {
    if (stopped_) return;
    stopped_ = true;
    auto down = std::exchange(down_, Observer<T>());
    if (!serial_->isDisposed()) down.onError(std::move(error));
    serial_->dispose();
  }
  void onCompleted() override {
    if (stopped_) return;
    if (index_ < sources_->size()) return subscribeNext();
    stopped_ = true;
    auto down = std::exchange(down_, Observer<T>());
    if (!serial_->isDisposed()) down.onCompleted();
    serial_->dispose();
  }
  bool isStopped() const noexcept override {
    return stopped_ || serial_->isDisposed() || down_.isStopped();
  }

 private:
  void subscribeNext() {
    if (wip_.fetch_add(1, std::memory_order_acq_rel) != 0) return;
    do {
      if (down_.isStopped()) serial_->dispose();
      if (serial_->isDisposed()) return;
      if (index_ >= sources_->size()) {
        onCompleted();
      } else {
        auto sad = std::make_shared<SingleAssignmentState>();
        serial_->set(Disposable(sad));
        const Observable<T>& source = (*sources_)[index_++];
        sad->set(source.subscribe(this->shared_from_this()));
      }
    } while (wip_.fetch_sub(1, std::memory_order_acq_rel) != 1);
  }

  Observer<T> down_;
  std::shared_ptr<SerialState> serial_;
  std::shared_ptr<const std::vector<Observable<T>>> sources_;
  std::size_t index_ = 0;
  bool stopped_ = false;
  std::atomic<int> wip_{0};
};

enum class Side { source, other };

template <class T, class U>
class TakeUntilSink final : public std::enable_shared_from_this<TakeUntilSink<T, U>> {
 public:
  explicit TakeUntilSink(Observer<T> down)
      : ctl_(std::make_shared<CompositeState>()), emitter_(std::move(down), ctl_.get()) {}

  Disposable run(const Observable<T>& source, const Observable<U>& other) {
    auto self = this->shared_from_this();
    auto otherSad = std::make_shared<SingleAssignmentState>();
    auto sourceSad = std::make_shared<SingleAssignmentState>();
    ctl_->insert(Disposable(otherSad));
    ctl_->insert(Disposable(sourceSad));
    otherSad->set(other.subscribe(
        std::make_shared<TaggedObserver<TakeUntilSink, U, Side>>(self, Side::other)));
    if (!ctl_->isDisposed()) {
      sourceSad->set(source.subscribe(
          std::make_shared<TaggedObserver<TakeUntilSink, T, Side>>(self, Side::source)));
    }
    return Disposable(ctl_);
  }

  void innerNext(Side side, const T& value) requires(!std::is_same_v<T, U>) {
    (void)side;
    std::unique_lock lock(mutex_);
    emitter_.next(lock, value);
  }
  void innerNext(Side side, const U& value) {
    std::unique_lock lock(mutex_);
    if (side == Side::other) {
      emitter_.completed(lock);
    } else if constexpr (std::is_same_v<T, U>) {
      emitter_.next(lock, value);
    }
  }
  void innerError(Side, std::exception_ptr error) {
    std::unique_lock lock(mutex_);
    emitter_.error(lock, std::move(error));
  }
  void innerCompleted(Side side) {
    if (side == Side::other) return;  // other ending without an element changes nothing
    std::unique_lock lock(mutex_);
    emitter_.completed(lock);
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<CompositeState> ctl_;
  Emitter<T> emitter_;
};

template <class T, class U, class R, class S>
class WithLatestFromSink final
    : public std::enable_shared_from_this<WithLatestFromSink<T, U, R, S>> {
 public:
  WithLatestFromSink(Observer<R> down, const S& selector)
      : ctl_(std::make_shared<CompositeState>()),
        emitter_(std::move(down), ctl_.get()),
        selector_(selector) {}

  Disposable run(const Observable<T>& source, const Observable<U>& other) {
    auto self = this->shared_from_this();
    auto otherSad = std::make_shared<SingleAssignmentState>();
    auto sourceSad = std::make_shared<SingleAssignmentState>();
    ctl_->insert(Disposable(otherSad));
    ctl_->insert(Disposable(sourceSad));
    otherSad->set(other.subscribe(std::make_shared<OtherObserver>(self)));
    if (!ctl_->isDisposed())
      sourceSad->set(source.subscribe(std::make_shared<SourceObserver>(self)));
    return Disposable(ctl_);
  }

 private:
  struct OtherObserver final : ObserverBase<U> {
    explicit OtherObserver(std::shared_ptr<WithLatestFromSink> s) : sink(std::move(s)) {}
    void onNext(const U& value) override {
      // One allocation per update of `other` buys a source path that copies a pointer, not a U.
      auto latest = std::make_shared<const U>(value);
      std::lock_guard lock(sink->mutex_);
      sink->latest_ = std::move(latest);
    }
    void onError(std::exception_ptr error) override { sink->fail(std::move(error)); }
    void onCompleted() override {}
    std::shared_ptr<WithLatestFromSink> sink;
  };
  struct SourceObserver final : ObserverBase<T> {
    explicit SourceObserver(std::shared_ptr<WithLatestFromSink> s) : sink(std::move(s)) {}
    void onNext(const T& value) override {
      if (sink->ctl_->isDisposed()) return;
      std::shared_ptr<const U> latest;
      {
        std::lock_guard lock(sink->mutex_);
        latest = sink->latest_;
      }
      if (!latest) return;
      std::optional<R> result;
      try {
        result.emplace(std::invoke(sink->selector_, value, *latest));
      } catch (...) {
        return sink->fail(std::current_exception());
      }
      std::unique_lock lock(sink->mutex_);
      sink->emitter_.next(lock, *result);
    }
    void onError(std::exception_ptr error) override { sink->fail(std::move(error)); }
    void onCompleted() override {
      std::unique_lock lock(sink->mutex_);
      sink->emitter_.completed(lock);
    }
    std::shared_ptr<WithLatestFromSink> sink;
  };

  void fail(std::exception_ptr error) {
    std::unique_lock lock(mutex_);
    emitter_.error(lock, std::move(error));
  }

  std::mutex mutex_;
  std::shared_ptr<CompositeState> ctl_;
  Emitter<R> emitter_;
  S selector_;
  std::shared_ptr<const U> latest_;
};

/// An observable view of a subject core.
template <class T>
class SubjectSource final : public Source<T> {
 public:
  explicit SubjectSource(std::shared_ptr<SubjectCore<T>> core) : core_(std::move(core)) {}
  Disposable subscribe(Observer<T> observer) const override {
    return core_->subscribe(observer.impl());
  }

 private:
  std::shared_ptr<SubjectCore<T>> core_;
};

/// share(): one upstream connection multicast through a subject core, reference counted.
template <class T>
class ShareState : public std::enable_shared_from_this<ShareState<T>> {
 public:
  explicit ShareState(Observable<T> upstream) : upstream_(std::move(upstream)) {}

  Disposable subscribe(Observer<T> observer) {
    std::shared_ptr<Connection> connection;
    bool connect = false;
    {
      std::lock_guard lock(mutex_);
      if (!current_) {
        current_ = std::make_shared<Connection>();
        connect = true;
      }
      connection = current_;
      ++connection->refs;
    }
    Disposable inner = connection->core->subscribe(observer.impl());
    auto subscription =
        std::make_shared<Subscription>(this->weak_from_this(), connection, std::move(inner));
    if (connect) {
      auto self = this->shared_from_this();
      connection->upstream->set(
          upstream_.subscribe(std::make_shared<ConnectionObserver>(self, connection)));
    }
    return Disposable(std::move(subscription));
  }

 private:
  struct Connection {
    std::shared_ptr<SubjectCore<T>> core = std::make_shared<SubjectCore<T>>();
    std::shared_ptr<SingleAssignmentState> upstream = std::make_shared<SingleAssignmentState>();
    std::size_t refs = 0;  // guarded by ShareState::mutex_
  };
  struct ConnectionObserver final : ObserverBase<T> {
    ConnectionObserver(std::shared_ptr<ShareState> s, std::shared_ptr<Connection> c)
        : state(std::move(s)), connection(std::move(c)) {}
    void onNext(const T& value) override { connection->core->onNext(value); }
    void onError(std::exception_ptr error) override {
      state->detach(connection);
      connection->core->onError(std::move(error));
    }
    void onCompleted() override {
      state->detach(connection);
      connection->core->onCompleted();
    }
    std::shared_ptr<ShareState> state;
    std::shared_ptr<Connection> connection;
  };
  class Subscription final : public DisposableState {
   public:
    // Weak, so that a subscriber's control never keeps the multicast (and through it the
    // subscriber itself) alive.
    Subscription(std::weak_ptr<ShareState> s, std::weak_ptr<Connection> c, Disposable inner)
        : state_(std::move(s)), connection_(std::move(c)), inner_(std::move(inner)) {}

   protected:
    void onDispose() noexcept override {
      inner_.dispose();
      inner_ = Disposable();
      auto state = state_.lock();
      auto connection = connection_.lock();
      if (state && connection) state->release(connection);
    }

   private:
    std::weak_ptr<ShareState> state_;
    std::weak_ptr<Connection> connection_;
    Disposable inner_;
  };

  void detach(const std::shared_ptr<Connection>& connection) {
    std::lock_guard lock(mutex_);
    if (current_ == connection) current_.reset();
  }
  void release(const std::shared_ptr<Connection>& connection) {
    bool last = false;
    {
      std::lock_guard lock(mutex_);
      last = --connection->refs == 0;
      if (last && current_ == connection) current_.reset();
    }
    if (last) connection->upstream->dispose();
  }

  Observable<T> upstream_;
  std::mutex mutex_;
  std::shared_ptr<Connection> current_;
};

template <class T>
class ShareSource final : public Source<T> {
 public:
  explicit ShareSource(Observable<T> upstream)
      : state_(std::make_shared<ShareState<T>>(std::move(upstream))) {}
  Disposable subscribe(Observer<T> observer) const override {
    return state_->subscribe(std::move(observer));
  }

 private:
  std::shared_ptr<ShareState<T>> state_;
};

}  // namespace detail

template <class T>
Observable<T> Observable<T>::merge(std::vector<Observable> sources) {
  if (sources.empty()) return empty();
  auto list = std::make_shared<const std::vector<Observable>>(std::move(sources));
  return detail::makeObservable<T>([list](Observer<T> o) {
    auto core = std::make_shared<detail::MergeCore<T>>(std::move(o));
    for (std::size_t i = 0; i < list->size(); ++i) core->addSource();
    for (const auto& source : *list) core->subscribeInner(source);
    return Disposable(core->control());
  });
}

template <class T>
Observable<T> Observable<T>::concat(std::vector<Observable> sources) {
  auto list = std::make_shared<const std::vector<Observable>>(std::move(sources));
  return detail::makeObservable<T>([list](Observer<T> o) {
    return std::make_shared<detail::ConcatSink<T>>(std::move(o), list)->run();
  });
}

template <class T>
Observable<T> Observable<T>::concat(Observable next) const {
  return concat({*this, std::move(next)});
}

template <class T>
Observable<T> Observable<T>::amb(std::vector<Observable> sources) {
  if (sources.empty()) return never();
  if (sources.size() == 1) return sources.front();
  auto list = std::make_shared<const std::vector<Observable>>(std::move(sources));
  return detail::makeObservable<T>([list](Observer<T> o) {
    return std::make_shared<detail::AmbCore<T>>(std::move(o), list->size())->run(*list);
  });
}

template <class T>
Observable<T> Observable<T>::amb(Observable other) const {
  return amb(std::vector<Observable>{*this, std::move(other)});
}

template <class T>
template <class F>
auto Observable<T>::flatMap(F f) const {
  using R = std::decay_t<std::invoke_result_t<F&, const T&>>;
  using U = typename detail::SequenceTraits<R>::Element;
  return detail::makeObservable<U>([up = *this, f = std::move(f)](Observer<U> o) {
    return std::make_shared<detail::FlatMapSink<T, U, F>>(std::move(o), f)->run(up);
  });
}

template <class T>
template <class F>
auto Observable<T>::flatMapLatest(F f) const {
  using R = std::decay_t<std::invoke_result_t<F&, const T&>>;
  using U = typename detail::SequenceTraits<R>::Element;
  return detail::makeObservable<U>([up = *this, f = std::move(f)](Observer<U> o) {
    return std::make_shared<detail::SwitchSink<T, U, F>>(std::move(o), f)->run(up);
  });
}

template <class T>
template <class U>
Observable<T> Observable<T>::takeUntil(Observable<U> other) const {
  return detail::makeObservable<T>([up = *this, other = std::move(other)](Observer<T> o) {
    return std::make_shared<detail::TakeUntilSink<T, U>>(std::move(o))->run(up, other);
  });
}

template <class T>
template <class U, class S>
auto Observable<T>::withLatestFrom(Observable<U> other, S selector) const {
  using R = std::decay_t<std::invoke_result_t<S&, const T&, const U&>>;
  return detail::makeObservable<R>(
      [up = *this, other = std::move(other), s = std::move(selector)](Observer<R> o) {
        return std::make_shared<detail::WithLatestFromSink<T, U, R, S>>(std::move(o), s)
            ->run(up, other);
      });
}

template <class T>
template <class U>
Observable<std::pair<T, U>> Observable<T>::withLatestFrom(Observable<U> other) const {
  return withLatestFrom(std::move(other),
                        [](const T& t, const U& u) { return std::pair<T, U>(t, u); });
}

template <class T>
Observable<T> Observable<T>::share() const {
  return make<detail::ShareSource<T>>(*this);
}

}  // namespace kel::rx
