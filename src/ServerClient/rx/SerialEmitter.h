#pragma once

#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <utility>

#include "ServerClient/rx/Errors.h"

namespace kel::rx {

/// Runs actions one at a time, in the order they were submitted, for producers on several
/// threads: the thread that finds the emitter idle runs its action at once, and then every action
/// that other threads queued meanwhile; a busy emitter queues the action and returns. No lock is
/// held while an action runs, so an action may submit again (it runs after the current one
/// returns, never nested) and may call anything without risking a lock-order deadlock.
///
/// Subjects expect their onNext calls to be serialised; publishing through one of these makes
/// that hold for sources such as a socket's network thread racing a user's stop(). An action that
/// throws is reported as an unhandled error and the queue goes on.
class SerialEmitter {
 public:
  /// Runs `action` now on the calling thread, followed by whatever other threads queued
  /// meanwhile; or, when another thread (or an action further up this thread's stack) is running
  /// actions, queues it for that thread and returns at once. So run() may return before `action`
  /// ran. Thread-safe.
  template <class F>
  void run(F&& action) {
    {
      std::lock_guard lock(mutex_);
      if (busy_) {
        queue_.emplace_back(std::forward<F>(action));
        return;
      }
      busy_ = true;
    }
    invoke(action);
    std::unique_lock lock(mutex_);
    while (!queue_.empty()) {
      auto next = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      invoke(next);
      lock.lock();
    }
    busy_ = false;
  }

 private:
  template <class F>
  static void invoke(F& action) noexcept {
    try {
      action();
    } catch (...) {
      reportUnhandledError(std::current_exception());
    }
  }

  std::mutex mutex_;  // guards busy_ and queue_
  bool busy_ = false;
  std::deque<std::function<void()>> queue_;
};

}  // namespace kel::rx
