#pragma once

#include "ServerClient/rx/DispatchQueue.h"
#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Scheduler.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace kel::rx {

/// Runs work one item at a time, in order, on a DispatchQueue: actions, timers and any other
/// work of that queue never overlap, though they may run on either thread of the shared pool.
/// The scheduler for state that one queue owns.
class SerialDispatchQueueScheduler final : public Scheduler {
 public:
  /// Creates its own queue labelled `internalName`.
  explicit SerialDispatchQueueScheduler(std::string internalName);
  /// Runs on an existing queue; `internalName` names this scheduler (see name()).
  SerialDispatchQueueScheduler(std::shared_ptr<DispatchQueue> queue, std::string internalName);

  /// steady_clock's time.
  TimePoint now() const override;
  /// Posts `action` to the queue; disposing the result before it ran cancels and releases it.
  Disposable schedule(std::function<void()> action) override;
  /// Runs `action` on the queue once `due` has passed (a timer on the queue's strand).
  Disposable scheduleAfter(Duration due, std::function<void()> action) override;

  /// The queue the work runs on.
  const std::shared_ptr<DispatchQueue>& queue() const noexcept { return queue_; }
  /// The name given at construction, for the application's logs.
  const std::string& name() const noexcept { return name_; }

 private:
  std::shared_ptr<DispatchQueue> queue_;
  std::string name_;
};

/// Runs work on the shared pool with no ordering between items: two actions may run at the
/// same time on the pool's two threads.
class ConcurrentDispatchQueueScheduler final : public Scheduler {
 public:
  /// A scheduler on the shared pool; instance() is the usual one.
  ConcurrentDispatchQueueScheduler() = default;

  /// steady_clock's time.
  TimePoint now() const override;
  /// Posts `action` to the pool; disposing the result before it ran cancels and releases it.
  Disposable schedule(std::function<void()> action) override;
  /// Runs `action` on the pool once `due` has passed.
  Disposable scheduleAfter(Duration due, std::function<void()> action) override;

  /// The process-wide instance.
  static const std::shared_ptr<ConcurrentDispatchQueueScheduler>& instance();
};

/// An io_context that its owner runs on a thread of its own choosing: the command-line client's
/// main loop, or a test's thread. Install its executor() in MainScheduler to make that thread
/// "the main thread". Work posted from any thread runs only while some thread is inside run(),
/// runFor() or runUntilIdle(). It keeps itself busy (a work guard), so run() waits for work
/// rather than returning when idle.
class RunLoop {
 public:
  /// The io_context's executor.
  using Executor = boost::asio::io_context::executor_type;

  /// A loop that nobody runs yet.
  RunLoop();
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  /// Runs work on the calling thread until stop(); waits while idle. A loop that was stopped
  /// runs again.
  void run();
  /// Runs work for at most `duration`; returns the number of handlers run.
  std::size_t runFor(Duration duration);
  /// Runs everything ready now and everything that becomes ready as a result, without waiting
  /// for timers; returns the number of handlers run.
  std::size_t runUntilIdle();
  /// Makes run() return as soon as possible. Thread-safe.
  void stop();
  /// True while the calling thread runs this loop's work.
  bool isCurrent() const noexcept { return work_.get_executor().running_in_this_thread(); }

  /// Where to post work for the loop; an Asio executor, also for MainScheduler::install().
  Executor executor() noexcept { return io_.get_executor(); }
  /// The io_context itself, for Asio objects (timers, sockets) that want one.
  boost::asio::io_context& context() noexcept { return io_; }

 private:
  void prepare();

  boost::asio::io_context io_;
  boost::asio::executor_work_guard<Executor> work_;
};

/// "The main thread" is whatever the application says it is. It installs either an Asio executor
/// (a RunLoop's, or a strand of its UI loop) or a post function that hands work to its UI queue.
/// Until something is installed, work runs on a serial queue labelled "kel.rx.main" on the shared
/// pool: ordered and one at a time, but on no particular thread. Installing affects work
/// scheduled afterwards only. All members are thread-safe.
class MainScheduler final : public Scheduler {
 public:
  /// Hands a function to the application's queue, which runs it later on its thread, once.
  using PostFunction = std::function<void(std::function<void()>)>;

  /// The process-wide instance that the library schedules "main thread" work on.
  static const std::shared_ptr<MainScheduler>& instance();

  /// From now on, work runs on `executor`: actions are posted to it, timers run on it.
  void install(boost::asio::any_io_executor executor);
  /// From now on, actions go through `post`. Timers wait on the shared pool and then post their
  /// action. Cancelling does not withdraw what was already posted: it empties it, and the
  /// application's queue later runs it as a no-op.
  void install(PostFunction post);
  /// Back to the default serial queue.
  void reset();

  /// steady_clock's time.
  TimePoint now() const override;
  /// Runs `action` on the installed main thread; disposing the result before it ran cancels it.
  Disposable schedule(std::function<void()> action) override;
  /// Runs `action` on the installed main thread once `due` has passed; disposing the result
  /// cancels the timer, or the posted action once the timer fired.
  Disposable scheduleAfter(Duration due, std::function<void()> action) override;

  /// A scheduler on the default serial queue; the library uses instance().
  MainScheduler();

 private:
  struct Backend;
  std::shared_ptr<const Backend> backend() const;

  mutable std::mutex mutex_;
  std::shared_ptr<const Backend> backend_;
};

}  // namespace kel::rx
