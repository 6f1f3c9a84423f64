#include "ServerClient/rx/TestScheduler.h"

#include "ServerClient/rx/Errors.h"

#include <limits>

namespace kel::rx {

using Key = std::pair<TimePoint, std::uint64_t>;  // due time, then scheduling order

struct TestScheduler::Queue {
  mutable std::mutex mutex;
  TimePoint now;
  std::uint64_t sequence = 0;
  std::map<Key, std::shared_ptr<Item>> items;
};

/// A scheduled action. Disposing removes it from the queue and releases the action at once.
struct TestScheduler::Item final : detail::DisposableState {
  Item(std::weak_ptr<Queue> q, Key k, std::function<void()> a)
      : queue(std::move(q)), key(k), action(std::move(a)) {}

  void onDispose() noexcept override {
    std::function<void()> released;  // destroyed outside the lock
    if (auto q = queue.lock()) {
      std::lock_guard lock(q->mutex);
      q->items.erase(key);
      released = std::move(action);
    }
  }

  std::weak_ptr<Queue> queue;
  Key key;
  std::function<void()> action;  // guarded by Queue::mutex
};

TestScheduler::TestScheduler(TimePoint start) : queue_(std::make_shared<Queue>()) {
  queue_->now = start;
}

TestScheduler::~TestScheduler() {
  // Work that will never run still holds sinks (and, through their controls, itself): release it.
  std::map<Key, std::shared_ptr<Item>> items;
  std::vector<std::function<void()>> actions;
  {
    std::lock_guard lock(queue_->mutex);
    items.swap(queue_->items);
    for (auto& [key, item] : items) actions.push_back(std::move(item->action));
  }
}

TimePoint TestScheduler::now() const {
  std::lock_guard lock(queue_->mutex);
  return queue_->now;
}

Disposable TestScheduler::schedule(std::function<void()> action) {
  return scheduleAt(now(), std::move(action));
}

Disposable TestScheduler::scheduleAfter(Duration due, std::function<void()> action) {
  std::unique_lock lock(queue_->mutex);
  TimePoint at = queue_->now + (due.count() > 0 ? due : Duration::zero());
  lock.unlock();
  return scheduleAt(at, std::move(action));
}

Disposable TestScheduler::scheduleAt(TimePoint at, std::function<void()> action) {
  std::lock_guard lock(queue_->mutex);
  if (at < queue_->now) at = queue_->now;
  Key key{at, queue_->sequence++};
  auto item = std::make_shared<Item>(queue_, key, std::move(action));
  queue_->items.emplace(key, item);
  return Disposable(std::move(item));
}

bool TestScheduler::runNext(TimePoint limit) {
  std::function<void()> action;
  {
    std::lock_guard lock(queue_->mutex);
    if (queue_->items.empty()) return false;
    auto it = queue_->items.begin();
    if (it->first.first > limit) return false;
    if (it->first.first > queue_->now) queue_->now = it->first.first;
    action = std::move(it->second->action);
    queue_->items.erase(it);
  }
  if (action) {
    try {
      action();
    } catch (...) {
      reportUnhandledError(std::current_exception());
    }
  }
  return true;
}

void TestScheduler::advanceBy(Duration by) {
  advanceTo(now() + by);
}

void TestScheduler::advanceTo(TimePoint at) {
  while (runNext(at)) {
  }
  std::lock_guard lock(queue_->mutex);
  if (at > queue_->now) queue_->now = at;
}

void TestScheduler::start() {
  while (runNext(TimePoint::max())) {
  }
}

std::size_t TestScheduler::pendingCount() const {
  std::lock_guard lock(queue_->mutex);
  return queue_->items.size();
}

}  // namespace kel::rx
