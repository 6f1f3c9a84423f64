#pragma once
// Internal: the multicast engine behind the subjects and share().
//
// Fan-out reads an immutable observer list and calls every observer with the same const
// reference. Subscribing and unsubscribing copy the list (copy-on-write) under the lock. A
// subscription disposed while a fan-out is running is skipped from then on through its entry's
// flag.
//
// A subject without a current value (PublishSubject, share()) publishes without a lock and
// without touching a reference count, relying on the serialised-notifications contract: only one
// fan-out runs at a time. It raises `emitting_`, reads the list through a raw pointer and lowers
// the flag when done. A writer that replaces the list while the flag is up cannot free the old
// one, so it parks it in `retired_`; whoever next finds the flag down (a writer, or the emitter
// itself at the end of its fan-out) frees the parked lists. The store-then-load on each side is
// ordered by the asymmetric barrier of Barrier.h. A notification that finds the flag already up
// (an observer publishing into the subject it is being called from) takes the locked path, which
// holds its own reference to the list.
//
// A replaying subject (BehaviorSubject) must deliver its current value to a new subscriber before
// anything newer, without holding a lock during the call. The entry is published with `replaying`
// set; notifications that arrive meanwhile are parked in the entry's pending queue, and the
// subscribing thread drains that queue before clearing the flag. The entry lock guards only the
// queue. Its notifications take the locked path, which keeps the current value and the list
// consistent with each other.

#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Event.h"
#include "ServerClient/rx/Observer.h"
#include "ServerClient/rx/detail/Barrier.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace kel::rx::detail {

template <class T>
class SubjectCore : public std::enable_shared_from_this<SubjectCore<T>> {
 public:
  static constexpr std::uint8_t kRemoved = 1;    // disposed: deliver nothing more
  static constexpr std::uint8_t kReplaying = 2;  // the current value is still being replayed
  struct Entry {
    explicit Entry(std::shared_ptr<ObserverBase<T>> o) : observer(std::move(o)) {}
    std::shared_ptr<ObserverBase<T>> observer;
    // kRemoved and kReplaying in one word, so that a delivery reads both with one load.
    std::atomic<std::uint8_t> flags{0};
    bool removed() const noexcept { return flags.load(std::memory_order_acquire) & kRemoved; }
    std::mutex pendingMutex;
    std::deque<Event<T>> pending;
  };
  using List = std::vector<std::shared_ptr<Entry>>;

  SubjectCore() : observers_(emptyList()), current_(observers_.get()) {}
  explicit SubjectCore(T initial)
      : observers_(emptyList()), current_(observers_.get()), value_(std::move(initial)) {}

  void onNext(const T& value) {
    if (replays_ || emitting_.load(std::memory_order_relaxed)) return lockedNext(value);
    // A terminated subject's list is empty for good, so the fast path needs no stopped check.
    emitting_.store(true, std::memory_order_relaxed);
    lightBarrier();
    deliverNext(*current_.load(std::memory_order_acquire), value);
    emitting_.store(false, std::memory_order_release);
    if (hasRetired_.load(std::memory_order_relaxed)) {
      Garbage garbage;  // released after unlocking: observers' destructors may call back in
      std::lock_guard lock(mutex_);
      collectRetiredLocked(garbage);
    }
  }

  void onError(std::exception_ptr error) { terminate(Event<T>::error(std::move(error))); }
  void onCompleted() { terminate(Event<T>::completed()); }

  Disposable subscribe(std::shared_ptr<ObserverBase<T>> observer) {
    if (!observer) return Disposable();
    std::unique_lock lock(mutex_);
    if (stopped_) {
      auto error = error_;
      lock.unlock();
      if (error) {
        observer->onError(error);
      } else {
        observer->onCompleted();
      }
      return Disposable();
    }
    auto entry = std::make_shared<Entry>(observer);
    std::optional<T> replay;
    if (value_) {
      replay = *value_;
      entry->flags.store(kReplaying, std::memory_order_relaxed);
    }
    auto next = std::make_shared<List>(*observers_);
    next->push_back(entry);
    Garbage garbage;
    publishLocked(std::move(next), garbage);
    lock.unlock();
    garbage.clear();

    auto subscription = std::make_shared<Subscription>(this->weak_from_this(), entry);
    if (replay) {
      observer->onNext(*replay);
      replay.reset();
      drainParked(*entry);
    }
    return Disposable(std::move(subscription));
  }

  bool hasObservers() const {
    std::lock_guard lock(mutex_);
    return !observers_->empty();
  }
  bool isStopped() const {
    std::lock_guard lock(mutex_);
    return stopped_;
  }
  /// The current value of a replaying subject; rethrows the error if it failed.
  T value() const {
    std::lock_guard lock(mutex_);
    if (error_) std::rethrow_exception(error_);
    return *value_;
  }

 private:
  class Subscription final : public DisposableState {
   public:
    Subscription(std::weak_ptr<SubjectCore> core, std::weak_ptr<Entry> entry)
        : core_(std::move(core)), entry_(std::move(entry)) {}

   protected:
    void onDispose() noexcept override {
      auto entry = entry_.lock();
      if (!entry) return;
      entry->flags.fetch_or(kRemoved, std::memory_order_release);
      if (auto core = core_.lock()) core->remove(entry);
    }

   private:
    std::weak_ptr<SubjectCore> core_;
    std::weak_ptr<Entry> entry_;
  };

  static std::shared_ptr<const List> emptyList() {
    static const auto empty = std::make_shared<const List>();
    return empty;
  }

  void remove(const std::shared_ptr<Entry>& entry) {
    Garbage garbage;  // released outside the lock
    std::lock_guard lock(mutex_);
    auto next = std::make_shared<List>();
    next->reserve(observers_->size());
    for (const auto& e : *observers_) {
      if (e != entry) next->push_back(e);
    }
    publishLocked(std::move(next), garbage);
  }

  // Lists (and through them entries and observers) to release once the lock is let go, since an
  // observer's destructor may dispose another subscription of this subject.
  using Garbage = std::vector<std::shared_ptr<const List>>;

  // Makes `next` the list that fan-outs read. The previous list goes to `garbage`, or waits in
  // retired_ while a lock-free fan-out may still be reading it.
  void publishLocked(std::shared_ptr<const List> next, Garbage& garbage) {
    auto old = std::exchange(observers_, std::move(next));
    current_.store(observers_.get(), std::memory_order_seq_cst);
    heavyBarrier();
    if (emitting_.load(std::memory_order_seq_cst)) {
      retired_.push_back(std::move(old));
      hasRetired_.store(true, std::memory_order_relaxed);
      return;
    }
    garbage.push_back(std::move(old));
    moveRetired(garbage);
  }

  // Hands the parked lists to `garbage` unless a lock-free fan-out is running; that one collects
  // them when done.
  void collectRetiredLocked(Garbage& garbage) {
    if (retired_.empty()) return;
    heavyBarrier();
    if (emitting_.load(std::memory_order_seq_cst)) return;
    moveRetired(garbage);
  }
  void moveRetired(Garbage& garbage) {
    if (retired_.empty()) return;
    for (auto& list : retired_) garbage.push_back(std::move(list));
    retired_.clear();
    hasRetired_.store(false, std::memory_order_relaxed);
  }

  void lockedNext(const T& value) {
    std::shared_ptr<const List> snapshot;
    {
      std::lock_guard lock(mutex_);
      if (stopped_) return;
      if (value_) *value_ = value;
      snapshot = observers_;
    }
    deliverNext(*snapshot, value);
  }

  static void deliverNext(const List& list, const T& value) {
    for (const auto& entry : list) {
      const auto flags = entry->flags.load(std::memory_order_acquire);
      if (flags & kRemoved) continue;
      if ((flags & kReplaying) && park(*entry, Event<T>::next(value))) continue;
      entry->observer->onNext(value);
    }
  }

  void terminate(Event<T> event) {
    std::shared_ptr<const List> snapshot;
    Garbage garbage;
    {
      std::lock_guard lock(mutex_);
      if (stopped_) return;
      stopped_ = true;
      error_ = event.error();
      snapshot = observers_;
      publishLocked(emptyList(), garbage);
    }
    for (const auto& entry : *snapshot) {
      const auto flags = entry->flags.load(std::memory_order_acquire);
      if (flags & kRemoved) continue;
      if ((flags & kReplaying) && park(*entry, Event<T>(event))) continue;
      deliverTerminal(*entry, event);
    }
  }

  static void deliverTerminal(Entry& entry, const Event<T>& event) {
    if (event.isError()) {
      entry.observer->onError(event.error());
    } else {
      entry.observer->onCompleted();
    }
  }

  // Returns false when the replay finished meanwhile, so the caller delivers directly.
  static bool park(Entry& entry, Event<T>&& event) {
    std::lock_guard lock(entry.pendingMutex);
    if (!(entry.flags.load(std::memory_order_relaxed) & kReplaying)) return false;
    entry.pending.push_back(std::move(event));
    return true;
  }

  static void drainParked(Entry& entry) {
    for (;;) {
      std::optional<Event<T>> event;
      {
        std::lock_guard lock(entry.pendingMutex);
        if (entry.pending.empty()) {
          entry.flags.fetch_and(static_cast<std::uint8_t>(~kReplaying), std::memory_order_release);
          return;
        }
        event.emplace(std::move(entry.pending.front()));
        entry.pending.pop_front();
      }
      if (entry.removed()) continue;
      if (event->isNext()) {
        entry.observer->onNext(event->value());
      } else {
        deliverTerminal(entry, *event);
      }
    }
  }

  mutable std::mutex mutex_;               // guards everything below but the atomics
  std::shared_ptr<const List> observers_;  // the list, owned
  std::atomic<const List*> current_;       // the same list, for lock-free fan-outs
  std::vector<std::shared_ptr<const List>> retired_;
  std::atomic<bool> hasRetired_{false};  // retired_ is not empty (a hint, read without lock)
  std::atomic<bool> emitting_{false};    // a lock-free fan-out is running
  std::optional<T> value_;
  const bool replays_ = value_.has_value();
  bool stopped_ = false;
  std::exception_ptr error_;
};

/// Lets a subject's core be used as an observer (Subject::asObserver, share()'s connection).
template <class T>
class SubjectInput final : public ObserverBase<T> {
 public:
  explicit SubjectInput(std::shared_ptr<SubjectCore<T>> core) : core_(std::move(core)) {}
  void onNext(const T& value) override { core_->onNext(value); }
  void onError(std::exception_ptr error) override { core_->onError(std::move(error)); }
  void onCompleted() override { core_->onCompleted(); }

 private:
  std::shared_ptr<SubjectCore<T>> core_;
};

}  // namespace kel::rx::detail
