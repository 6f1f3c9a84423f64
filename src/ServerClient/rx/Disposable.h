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
///
/// All members are thread-safe. Disposal does its work (releasing scheduled actions, disposing
/// upstream subscriptions, running dispose actions) on the thread that calls dispose() first,
/// before that call returns; later calls return at once.
class Disposable {
 public:
  /// A handle that owns nothing.
  Disposable() noexcept = default;
  /// A handle to `state`; how the library's operators and schedulers make their handles.
  explicit Disposable(std::shared_ptr<detail::DisposableState> state) noexcept
      : state_(std::move(state)) {}

  /// A disposable that runs `onDispose` once, on the first call to dispose(). Exceptions thrown by
  /// it go to the unhandled-error hook.
  static Disposable create(std::function<void()> onDispose = {});

  /// Cancels what the handle stands for; idempotent.
  void dispose() const noexcept {
    if (state_) state_->dispose();
  }
  /// True once dispose() was called on any copy (or the owner disposed itself, as a subscription
  /// does after its terminal event); always false for an empty handle.
  bool isDisposed() const noexcept { return state_ && state_->isDisposed(); }
  /// Adds this handle to `bag`, which disposes it when the bag goes away.
  void disposed(DisposeBag& bag) const;

  /// The shared state; null for an empty handle.
  const std::shared_ptr<detail::DisposableState>& state() const noexcept { return state_; }
  /// False for an empty handle.
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
/// A copyable handle (copies share one group); thread-safe.
class CompositeDisposable {
 public:
  /// Identifies an inserted item for remove(); never 0 for an item that was kept.
  using Key = detail::CompositeState::Key;
  /// An empty group.
  CompositeDisposable() : state_(std::make_shared<detail::CompositeState>()) {}

  /// Adds `d`. Returns 0, and disposes `d` at once, when the group is already disposed.
  Key insert(Disposable d) const { return state_->insert(std::move(d)); }
  /// Removes the item and disposes it; an unknown key does nothing.
  void remove(Key key) const { state_->remove(key); }
  /// How many items the group holds (none once disposed).
  std::size_t count() const { return state_->count(); }
  /// Disposes every item, on the calling thread, and every item inserted later.
  void dispose() const noexcept { state_->dispose(); }
  /// True once dispose() was called.
  bool isDisposed() const noexcept { return state_->isDisposed(); }
  /// The group as a plain Disposable handle: disposing that disposes the group.
  Disposable asDisposable() const { return Disposable(state_); }
  /// Same as asDisposable().
  operator Disposable() const { return asDisposable(); }  // NOLINT(google-explicit-constructor)

 private:
  std::shared_ptr<detail::CompositeState> state_;
};

/// Holds one disposable at a time: setting a new one disposes the previous one. After disposal,
/// anything set is disposed at once. A copyable handle (copies share one slot); thread-safe.
class SerialDisposable {
 public:
  /// An empty slot.
  SerialDisposable() : state_(std::make_shared<detail::SerialState>()) {}

  /// Holds `d` and disposes the previous one (on the calling thread, after the swap); disposes
  /// `d` itself at once when the slot is already disposed.
  void set(Disposable d) const { state_->set(std::move(d)); }
  /// The disposable held now; an empty handle once disposed.
  Disposable current() const { return state_->current(); }
  /// Disposes the one held now and every one set later.
  void dispose() const noexcept { state_->dispose(); }
  /// True once dispose() was called.
  bool isDisposed() const noexcept { return state_->isDisposed(); }
  /// The slot as a plain Disposable handle: disposing that disposes the slot.
  Disposable asDisposable() const { return Disposable(state_); }
  /// Same as asDisposable().
  operator Disposable() const { return asDisposable(); }  // NOLINT(google-explicit-constructor)

 private:
  std::shared_ptr<detail::SerialState> state_;
};

/// Receives its disposable once, possibly after it was disposed (then disposes it at once). Used
/// for subscriptions whose upstream handle only exists after subscribe() returns. A copyable
/// handle; thread-safe.
class SingleAssignmentDisposable {
 public:
  /// An empty slot.
  SingleAssignmentDisposable() : state_(std::make_shared<detail::SingleAssignmentState>()) {}

  /// Holds `d`, or disposes it at once when the slot is already disposed. Call it once: a second
  /// call replaces the first disposable without disposing it.
  void set(Disposable d) const { state_->set(std::move(d)); }
  /// Disposes the disposable held, or the one set later.
  void dispose() const noexcept { state_->dispose(); }
  /// True once dispose() was called.
  bool isDisposed() const noexcept { return state_->isDisposed(); }
  /// The slot as a plain Disposable handle: disposing that disposes the slot.
  Disposable asDisposable() const { return Disposable(state_); }
  /// Same as asDisposable().
  operator Disposable() const { return asDisposable(); }  // NOLINT(google-explicit-constructor)

 private:
  std::shared_ptr<detail::SingleAssignmentState> state_;
};

/// Disposes everything inserted when it is destroyed (or move-assigned over). Thread-safe;
/// inserting into a bag that was moved from starts a new, empty bag. The usual owner of an
/// object's subscriptions: a member declared last, so that it goes first.
class DisposeBag {
 public:
  /// An empty bag.
  DisposeBag();
  /// Disposes everything inserted, on the destroying thread.
  ~DisposeBag();
  DisposeBag(const DisposeBag&) = delete;
  DisposeBag& operator=(const DisposeBag&) = delete;
  /// Takes over `other`'s items; `other` is left empty.
  DisposeBag(DisposeBag&& other) noexcept;
  /// Takes over `other`'s items and disposes the ones this bag held; `other` is left empty.
  DisposeBag& operator=(DisposeBag&& other) noexcept;

  /// Keeps `d` until the bag is disposed. Handles already disposed are dropped from time to
  /// time, so a long-lived bag does not grow without bound. Inserting after dispose() is fine:
  /// the bag starts anew and disposes `d` with its next disposal.
  void insert(Disposable d);
  /// Disposes everything inserted so far; the bag stays usable.
  void dispose() noexcept;

 private:
  struct State;
  std::unique_ptr<State> state_;
  std::mutex mutex_;  // guards state_ itself against a concurrent insert during a move
};

}  // namespace kel::rx
