#pragma once

#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Scheduler.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>

#include <exception>
#include <functional>
#include <future>
#include <string>
#include <type_traits>
#include <utility>

namespace kel::rx {

/// The one thread pool of the library. Two threads: the library's work is short and I/O bound
/// (socket frames, timers, request bookkeeping), serial queues keep ordering, and the machines we
/// target have few cores; more threads would mostly add contention. CPU-heavy or blocking work
/// does not belong on it. Created on first use, stopped and joined at exit.
boost::asio::thread_pool& sharedThreadPool();
/// The number of threads of sharedThreadPool().
inline constexpr unsigned kSharedThreadPoolSize = 2;

namespace detail {
/// Starts a steady_timer on `executor` that runs `action` after `due`. Disposing the result
/// releases the action at once and cancels the timer on its executor. Exceptions thrown by the
/// action go to the unhandled-error hook.
Disposable startTimer(const boost::asio::any_io_executor& executor, Duration due,
                      std::function<void()> action);
/// The same on a strand of the shared pool, without type-erasing the executor.
Disposable startTimer(const boost::asio::strand<boost::asio::thread_pool::executor_type>& executor,
                      Duration due, std::function<void()> action);
/// Posts `action` to `executor`; disposing the result before it ran cancels it and releases it.
Disposable postCancellable(const boost::asio::any_io_executor& executor,
                           std::function<void()> action);
}  // namespace detail

/// A named serial queue: an Asio strand on the shared pool. Work runs one item at a time, in the
/// order posted, on whichever pool thread is free. The label names the queue for the
/// application's own logs and debugging; the queue itself does nothing with it.
///
/// Thread-safe. Destroying the queue does not cancel work already posted: it still runs, in
/// order, on the strand.
class DispatchQueue {
 public:
  /// The strand that the queue's work runs on.
  using Executor = boost::asio::strand<boost::asio::thread_pool::executor_type>;

  /// A new queue on the shared pool (which this starts on first use).
  explicit DispatchQueue(std::string label);
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  /// The name given at construction.
  const std::string& label() const noexcept { return label_; }
  /// The strand: Asio work posted or dispatched to it joins the queue's order.
  const Executor& executor() const noexcept { return strand_; }
  /// True while the calling thread runs work of this queue.
  bool isCurrent() const noexcept { return strand_.running_in_this_thread(); }

  /// Runs `work` later on the queue, never inline. Exceptions go to the unhandled-error hook.
  void async(std::function<void()> work);
  /// Runs `work` on the queue after `delay` (a steady_timer on the strand); disposing the result
  /// cancels it and releases `work` at once. Exceptions go to the unhandled-error hook.
  Disposable asyncAfter(Duration delay, std::function<void()> work);

  /// Runs `f` on the queue and returns its result (or rethrows its exception). Called from work
  /// already running on this queue, `f` runs inline, so nested sync() cannot deadlock. Otherwise
  /// the caller blocks until the queue ran `f`: do not call it from other work on the shared pool
  /// (two pool threads blocked that way leave none to run the queue), and never in a cycle of
  /// queues waiting on each other.
  template <class F>
  auto sync(F f) -> std::invoke_result_t<F&> {
    using R = std::invoke_result_t<F&>;
    if (isCurrent()) return f();
    std::promise<R> promise;
    auto future = promise.get_future();
    boost::asio::post(strand_, [&promise, &f] {
      try {
        if constexpr (std::is_void_v<R>) {
          f();
          promise.set_value();
        } else {
          promise.set_value(f());
        }
      } catch (...) {
        promise.set_exception(std::current_exception());
      }
    });
    return future.get();
  }

 private:
  std::string label_;
  Executor strand_;
};

}  // namespace kel::rx
