#pragma once
// Internal building blocks shared by the operators. Ownership rule that keeps subscriptions free
// of reference cycles: a sink (the observer side of an operator) owns its downstream observer and
// its control disposable; a control disposable owns upstream controls only, never a sink. So the
// observer chain points downstream, the control chain points upstream, and when a producer lets go
// of its observer the whole chain is freed.

#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Event.h"
#include "ServerClient/rx/Observer.h"

#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

namespace kel::rx::detail {

template <class T>
class Source {
 public:
  Source() = default;
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;
  virtual ~Source() = default;
  virtual Disposable subscribe(Observer<T> observer) const = 0;
};

/// Base of the single-upstream operators. Notifications from upstream are serialised by the
/// Rx contract, so the fields below need no lock; only the control's flag is read across threads.
template <class Out>
class SinkBase {
 protected:
  explicit SinkBase(Observer<Out> down)
      : down_(std::move(down)), ctl_(std::make_shared<SingleAssignmentState>()) {}

  bool live() const noexcept { return !stopped_ && !ctl_->isDisposed(); }

  void forwardError(std::exception_ptr error) {
    if (stopped_) return;
    stopped_ = true;
    auto down = std::exchange(down_, Observer<Out>());
    if (!ctl_->isDisposed()) down.onError(std::move(error));
    ctl_->dispose();
  }
  void forwardCompleted() {
    if (stopped_) return;
    stopped_ = true;
    auto down = std::exchange(down_, Observer<Out>());
    if (!ctl_->isDisposed()) down.onCompleted();
    ctl_->dispose();
  }

 public:
  const std::shared_ptr<SingleAssignmentState>& control() const noexcept { return ctl_; }

 protected:
  Observer<Out> down_;
  std::shared_ptr<SingleAssignmentState> ctl_;
  bool stopped_ = false;
};

/// The usual operator sink: an observer of `In` forwarding `Out`.
template <class In, class Out>
class Sink : public ObserverBase<In>, public SinkBase<Out> {
 public:
  bool isStopped() const noexcept override {
    return this->stopped_ || this->ctl_->isDisposed() || this->down_.isStopped();
  }

 protected:
  using SinkBase<Out>::SinkBase;
};

/// Subscribes `sink` (a SinkBase that is also an observer of `In`) to `upstream` and returns the
/// sink's control as the subscription.
template <class Sink, class Upstream>
Disposable runSink(const std::shared_ptr<Sink>& sink, const Upstream& upstream) {
  auto ctl = sink->control();
  ctl->set(upstream.subscribe(sink));
  return Disposable(ctl);
}

/// Serialises notifications coming from several threads without holding a lock while calling
/// downstream: whoever finds the emitter idle delivers, everyone else queues and returns; the
/// delivering thread drains the queue before going idle. The caller passes the operator's own
/// (locked) mutex so that state decisions and their place in the output order are taken together.
/// Every emit call returns with the lock released. After delivering the terminal event the emitter
/// disposes the operator's control.
template <class T>
class Emitter {
 public:
  Emitter(Observer<T> down, DisposableState* control) : down_(std::move(down)), control_(control) {}

  bool done() const noexcept { return done_; }

  void next(std::unique_lock<std::mutex>& lock, const T& value) {
    if (done_) return lock.unlock();
    if (emitting_) {
      queue_.push_back(Event<T>::next(value));
      return lock.unlock();
    }
    emitting_ = true;
    lock.unlock();
    if (!control_->isDisposed()) down_.onNext(value);
    lock.lock();
    drain(lock);
  }
  void error(std::unique_lock<std::mutex>& lock, std::exception_ptr error) {
    terminal(lock, Event<T>::error(std::move(error)));
  }
  void completed(std::unique_lock<std::mutex>& lock) { terminal(lock, Event<T>::completed()); }

 private:
  void terminal(std::unique_lock<std::mutex>& lock, Event<T>&& event) {
    if (done_) return lock.unlock();
    done_ = true;
    if (control_->isDisposed()) return lock.unlock();
    queue_.push_back(std::move(event));
    if (emitting_) return lock.unlock();
    emitting_ = true;
    drain(lock);
  }
  // Called and returns with `lock` held on entry; leaves it unlocked.
  void drain(std::unique_lock<std::mutex>& lock) {
    while (!queue_.empty()) {
      Event<T> event = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      deliver(event);
      lock.lock();
    }
    emitting_ = false;
    lock.unlock();
  }
  void deliver(const Event<T>& event) {
    // Only the emitting thread touches down_, so releasing it after the terminal event is safe.
    if (event.isNext()) {
      if (!control_->isDisposed()) down_.onNext(event.value());
      return;
    }
    // The operator disposes its control (and so its inputs) only here, after the terminal event
    // went out: disposing earlier would make a concurrent drain drop what was queued before it.
    auto down = std::exchange(down_, Observer<T>());
    if (!control_->isDisposed()) down.on(event);
    control_->dispose();
  }

  Observer<T> down_;
  DisposableState* control_;
  std::deque<Event<T>> queue_;
  bool emitting_ = false;
  bool done_ = false;
};

/// Calls `f(args...)`; an exception becomes the returned exception_ptr.
template <class F, class... Args>
std::exception_ptr invokeCatching(F&& f, Args&&... args) noexcept {
  try {
    std::invoke(std::forward<F>(f), std::forward<Args>(args)...);
    return {};
  } catch (...) {
    return std::current_exception();
  }
}

}  // namespace kel::rx::detail
