#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace kel::rx {

class DisposeBag;

namespace detail {

/// Shared state behind every disposable handle. The flag is set exactly once; the subclass hook
/// runs once, on the thread that won the race, and must release what it holds so that no
/// reference cycle outlives the subscription.
class DisposableState {
 public:
  DisposableState() = default;
  DisposableState(const DisposableState&) = delete;
  DisposableState& operator=(const DisposableState&) = delete;
  virtual ~DisposableState() = default;

  bool isDisposed() const noexcept { return disposed_.load(std::memory_order_acquire); }
  void dispose() noexcept {
    if (!disposed_.exchange(true, std::memory_order_acq_rel)) onDispose();
  }

 protected:
  virtual void onDispose() noexcept {}

 private:
  std::atomic<bool> disposed_{false};
};

}  // namespace detail

/// A handle to something that can be cancelled. Copies share the same state; disposing any copy
/// disposes all. A default-constructed handle owns nothing: disposing it does nothing and it never
/// reports itself disposed. Dropping a handle does not dispose it.
class Disposable {
 public:
  Disposable() noexcept = default;
  explicit Disposable(std::shared_ptr<detail::DisposableState> state) noexcept
      : state_(std::move(state)) {}

  /// A disposable that runs `onDispose` once, on the first call to dispose(). Exceptions thrown by
  /// it go to the unhandled-error hook.
  static Disposable create(std::function<void()> onDispose = {});

  void dispose() const noexcept {
    if (state_) state_->dispose();
  }
  bool isDisposed() const noexcept { return state_ && state_->isDisposed(); }
  /// Adds this handle to `bag`, which disposes it when the bag goes away.
  void disposed(DisposeBag& bag) const;

  const std::shared_ptr<detail::DisposableState>& state() const noexcept { return state_; }
  explicit operator bool() const noexcept { return static_cast<bool>(state_); }

 private:
  std::shared_ptr<detail::DisposableState> state_;
};

namespace detail {

class CompositeState final : public DisposableState {
 public:
  using Key = std::uint64_t;
  /// Returns 0 (and disposes `d` at once) when the composite is already disposed.
  Key insert(Disposable d);
  void remove(Key key);
  std::size_t count() const;

 protected:
  void onDispose() noexcept override;

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<Key, Disposable>> items_;
  Key next_ = 1;
};

class SerialState final : public DisposableState {
 public:
  void set(Disposable d);
  Disposable current() const;

 protected:
  void onDispose() noexcept override;

 private:
  mutable std::mutex mutex_;
  Disposable current_;
};

class SingleAssignmentState final : public DisposableState {
 public:
  /// May be called once; when already disposed, `d` is disposed at once.
  void set(Disposable d);

 protected:
  void onDispose() noexcept override;

 private:
  std::mutex mutex_;
  Disposable current_;
};

}  // namespace detail

/// A group of disposables disposed together. Items added after disposal are disposed at once.
class CompositeDisposable {
 public:
  using Key = detail::CompositeState::Key;
  CompositeDisposable() : state_(std::make_shared<detail::CompositeState>()) {}

  Key insert(Disposable d) const { return state_->insert(std::move(d)); }
  /// Removes the item and disposes it.
  void remove(Key key) const { state_->remove(key); }
  std::size_t count() const { return state_->count(); }
  void dispose() const noexcept { state_->dispose(); }
  bool isDisposed() const noexcept { return state_->isDisposed(); }
  Disposable asDisposable() const { return Disposable(state_); }
  operator Disposable() const { return asDisposable(); }  // NOLINT(google-explicit-constructor)

 private:
  std::shared_ptr<detail::CompositeState> state_;
};

/// Holds one disposable at a time: setting a new one disposes the previous one. After disposal,
/// anything set is disposed at once.
class SerialDisposable {
 public:
  SerialDisposable() : state_(std::make_shared<detail::SerialState>()) {}

  void set(Disposable d) const { state_->set(std::move(d)); }
  Disposable current() const { return state_->current(); }
  void dispose() const noexcept { state_->dispose(); }
  bool isDisposed() const noexcept { return state_->isDisposed(); }
  Disposable asDisposable() const { return Disposable(state_); }
  operator Disposable() const { return asDisposable(); }  // NOLINT(google-explicit-constructor)

 private:
  std::shared_ptr<detail::SerialState> state_;
};

/// Receives its disposable once, possibly after it was disposed (then disposes it at once). Used
/// for subscriptions whose upstream handle only exists after subscribe() returns.
class SingleAssignmentDisposable {
 public:
  SingleAssignmentDisposable() : state_(std::make_shared<detail::SingleAssignmentState>()) {}

  void set(Disposable d) const { state_->set(std::move(d)); }
  void dispose() const noexcept { state_->dispose(); }
  bool isDisposed() const noexcept { return state_->isDisposed(); }
  Disposable asDisposable() const { return Disposable(state_); }
  operator Disposable() const { return asDisposable(); }  // NOLINT(google-explicit-constructor)

 private:
  std::shared_ptr<detail::SingleAssignmentState> state_;
};

/// Disposes everything inserted when it is destroyed (or move-assigned over). Thread-safe;
/// inserting into a bag that was moved from starts a new, empty bag.
class DisposeBag {
 public:
  DisposeBag();
  ~DisposeBag();
  DisposeBag(const DisposeBag&) = delete;
  DisposeBag& operator=(const DisposeBag&) = delete;
  DisposeBag(DisposeBag&& other) noexcept;
  DisposeBag& operator=(DisposeBag&& other) noexcept;

  void insert(Disposable d);
  /// Disposes everything inserted so far; the bag stays usable.
  void dispose() noexcept;

 private:
  struct State;
  std::unique_ptr<State> state_;
  std::mutex mutex_;  // guards state_ itself against a concurrent insert during a move
};

}  // namespace kel::rx
