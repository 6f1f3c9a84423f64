#include "ServerClient/rx/Disposable.h"

#include "ServerClient/rx/Errors.h"

#include <algorithm>

namespace kel::rx {

namespace {

class AnonymousDisposable final : public detail::DisposableState {
 public:
  explicit AnonymousDisposable(std::function<void()> action) : action_(std::move(action)) {}

 protected:
  void onDispose() noexcept override {
    // Runs once (guarded by the base's flag), so no lock: move the action out so that whatever it
    // captured is released right after it ran.
    auto action = std::move(action_);
    action_ = nullptr;
    if (!action) return;
    try {
      action();
    } catch (...) {
      reportUnhandledError(std::current_exception());
    }
  }

 private:
  std::function<void()> action_;
};

}  // namespace

Disposable Disposable::create(std::function<void()> onDispose) {
  return Disposable(std::make_shared<AnonymousDisposable>(std::move(onDispose)));
}

void Disposable::disposed(DisposeBag& bag) const {
  bag.insert(*this);
}

namespace detail {

CompositeState::Key CompositeState::insert(Disposable d) {
  {
    std::lock_guard lock(mutex_);
    if (!isDisposed()) {
      Key key = next_++;
      items_.emplace_back(key, std::move(d));
      return key;
    }
  }
  d.dispose();
  return 0;
}

void CompositeState::remove(Key key) {
  Disposable removed;
  {
    std::lock_guard lock(mutex_);
    auto it = std::find_if(items_.begin(), items_.end(),
                           [key](const auto& item) { return item.first == key; });
    if (it == items_.end()) return;
    removed = std::move(it->second);
    *it = std::move(items_.back());
    items_.pop_back();
  }
  removed.dispose();
}

std::size_t CompositeState::count() const {
  std::lock_guard lock(mutex_);
  return items_.size();
}

void CompositeState::onDispose() noexcept {
  std::vector<std::pair<Key, Disposable>> items;
  {
    std::lock_guard lock(mutex_);
    items.swap(items_);
  }
  for (auto& item : items) item.second.dispose();
}

void SerialState::set(Disposable d) {
  Disposable previous;
  {
    std::lock_guard lock(mutex_);
    if (!isDisposed()) {
      previous = std::exchange(current_, std::move(d));
      d = Disposable();
    }
  }
  previous.dispose();
  d.dispose();  // only non-empty when we were already disposed
}

Disposable SerialState::current() const {
  std::lock_guard lock(mutex_);
  return current_;
}

void SerialState::onDispose() noexcept {
  Disposable current;
  {
    std::lock_guard lock(mutex_);
    current = std::move(current_);
    current_ = Disposable();
  }
  current.dispose();
}

void SingleAssignmentState::set(Disposable d) {
  {
    std::lock_guard lock(mutex_);
    if (!isDisposed()) {
      current_ = std::move(d);
      return;
    }
  }
  d.dispose();
}

void SingleAssignmentState::onDispose() noexcept {
  Disposable current;
  {
    std::lock_guard lock(mutex_);
    current = std::move(current_);
    current_ = Disposable();
  }
  current.dispose();
}

}  // namespace detail

struct DisposeBag::State {
  std::vector<Disposable> items;
};

DisposeBag::DisposeBag() = default;

DisposeBag::~DisposeBag() {
  dispose();
}

DisposeBag::DisposeBag(DisposeBag&& other) noexcept {
  std::lock_guard lock(other.mutex_);
  state_ = std::move(other.state_);
}

DisposeBag& DisposeBag::operator=(DisposeBag&& other) noexcept {
  if (this == &other) return *this;
  std::unique_ptr<State> incoming;
  {
    std::lock_guard lock(other.mutex_);
    incoming = std::move(other.state_);
  }
  std::unique_ptr<State> old;
  {
    std::lock_guard lock(mutex_);
    old = std::exchange(state_, std::move(incoming));
  }
  if (old) {
    for (auto& d : old->items) d.dispose();
  }
  return *this;
}

void DisposeBag::insert(Disposable d) {
  std::lock_guard lock(mutex_);
  if (!state_) state_ = std::make_unique<State>();
  // Drop handles that were disposed already so a long-lived bag doesn't grow without bound.
  if (state_->items.size() >= 32 && state_->items.size() == state_->items.capacity()) {
    std::erase_if(state_->items, [](const Disposable& item) { return item.isDisposed(); });
  }
  state_->items.push_back(std::move(d));
}

void DisposeBag::dispose() noexcept {
  std::unique_ptr<State> old;
  {
    std::lock_guard lock(mutex_);
    old = std::move(state_);
  }
  if (old) {
    for (auto& d : old->items) d.dispose();
  }
}

}  // namespace kel::rx
