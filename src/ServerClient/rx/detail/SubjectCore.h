#pragma once
// Internal: the multicast engine behind the subjects and share().
//
// Fan-out takes the lock only to grab an immutable snapshot of the observer list, then calls every
// observer with the same const reference, so neither locks nor copies happen per observer.
// Subscribing and unsubscribing copy the list (copy-on-write). A subscription disposed while a
// fan-out is running is skipped from then on through its entry's flag.
//
// A replaying subject (BehaviorSubject) must deliver its current value to a new subscriber before
// anything newer, without holding a lock during the call. The entry is published with `replaying`
// set; notifications that arrive meanwhile are parked in the entry's pending queue, and the
// subscribing thread drains that queue before clearing the flag. The entry lock guards only the
// queue.

#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Event.h"
#include "ServerClient/rx/Observer.h"

#include <atomic>
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
  struct Entry {
    explicit Entry(std::shared_ptr<ObserverBase<T>> o) : observer(std::move(o)) {}
    std::shared_ptr<ObserverBase<T>> observer;
    std::atomic<bool> removed{false};
    std::atomic<bool> replaying{false};
    std::mutex pendingMutex;
    std::deque<Event<T>> pending;
  };
  using List = std::vector<std::shared_ptr<Entry>>;

  SubjectCore() : observers_(emptyList()) {}
  explicit SubjectCore(T initial) : observers_(emptyList()), value_(std::move(initial)) {}

  void onNext(const T& value) {
    std::shared_ptr<const List> snapshot;
    {
      std::lock_guard lock(mutex_);
      if (stopped_) return;
      if (value_) *value_ = value;
      snapshot = observers_;
    }
    for (const auto& entry : *snapshot) {
      if (entry->removed.load(std::memory_order_acquire)) continue;
      if (entry->replaying.load(std::memory_order_acquire) && park(*entry, Event<T>::next(value))) {
        continue;
      }
      entry->observer->onNext(value);
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
      entry->replaying.store(true, std::memory_order_relaxed);
    }
    auto next = std::make_shared<List>(*observers_);
    next->push_back(entry);
    observers_ = std::move(next);
    lock.unlock();

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
      entry->removed.store(true, std::memory_order_release);
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
    std::shared_ptr<const List> old;  // released outside the lock
    std::lock_guard lock(mutex_);
    auto next = std::make_shared<List>();
    next->reserve(observers_->size());
    for (const auto& e : *observers_) {
      if (e != entry) next->push_back(e);
    }
    old = std::exchange(observers_, std::move(next));
  }

  void terminate(Event<T> event) {
    std::shared_ptr<const List> snapshot;
    {
      std::lock_guard lock(mutex_);
      if (stopped_) return;
      stopped_ = true;
      error_ = event.error();
      snapshot = std::exchange(observers_, emptyList());
    }
    for (const auto& entry : *snapshot) {
      if (entry->removed.load(std::memory_order_acquire)) continue;
      if (entry->replaying.load(std::memory_order_acquire) && park(*entry, Event<T>(event)))
        continue;
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
    if (!entry.replaying.load(std::memory_order_relaxed)) return false;
    entry.pending.push_back(std::move(event));
    return true;
  }

  static void drainParked(Entry& entry) {
    for (;;) {
      std::optional<Event<T>> event;
      {
        std::lock_guard lock(entry.pendingMutex);
        if (entry.pending.empty()) {
          entry.replaying.store(false, std::memory_order_release);
          return;
        }
        event.emplace(std::move(entry.pending.front()));
        entry.pending.pop_front();
      }
      if (entry.removed.load(std::memory_order_acquire)) continue;
      if (event->isNext()) {
        entry.observer->onNext(event->value());
      } else {
        deliverTerminal(entry, *event);
      }
    }
  }

  mutable std::mutex mutex_;
  std::shared_ptr<const List> observers_;
  std::optional<T> value_;
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
