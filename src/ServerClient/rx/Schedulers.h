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

/// Runs work one item at a time, in order, on a DispatchQueue.
class SerialDispatchQueueScheduler final : public Scheduler {
 public:
  /// Creates its own queue labelled `internalName`.
  explicit SerialDispatchQueueScheduler(std::string internalName);
  /// Runs on an existing queue; `internalName` names this scheduler in logs.
  SerialDispatchQueueScheduler(std::shared_ptr<DispatchQueue> queue, std::string internalName);

  TimePoint now() const override;
  Disposable schedule(std::function<void()> action) override;
  Disposable scheduleAfter(Duration due, std::function<void()> action) override;

  const std::shared_ptr<DispatchQueue>& queue() const noexcept { return queue_; }
  const std::string& name() const noexcept { return name_; }

 private:
  std::shared_ptr<DispatchQueue> queue_;
  std::string name_;
};

/// Runs work on the shared pool with no ordering between items.
class ConcurrentDispatchQueueScheduler final : public Scheduler {
 public:
  ConcurrentDispatchQueueScheduler() = default;

  TimePoint now() const override;
  Disposable schedule(std::function<void()> action) override;
  Disposable scheduleAfter(Duration due, std::function<void()> action) override;

  static const std::shared_ptr<ConcurrentDispatchQueueScheduler>& instance();
};

/// An io_context that its owner runs on a thread of its own choosing: the command-line client's
/// main loop, or a test's thread.
class RunLoop {
 public:
  using Executor = boost::asio::io_context::executor_type;

  RunLoop();
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  /// Runs work until stop(); waits while idle.
  void run();
  /// Runs work for at most `duration`; returns the number of handlers run.
  std::size_t runFor(Duration duration);
  /// Runs everything ready now and everything that becomes ready as a result, without waiting
  /// for timers; returns the number of handlers run.
  std::size_t runUntilIdle();
  /// Makes run() return as soon as possible. Thread-safe.
  void stop();
  bool isCurrent() const noexcept { return work_.get_executor().running_in_this_thread(); }

  Executor executor() noexcept { return io_.get_executor(); }
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
/// scheduled afterwards only.
class MainScheduler final : public Scheduler {
 public:
  using PostFunction = std::function<void(std::function<void()>)>;

  static const std::shared_ptr<MainScheduler>& instance();

  void install(boost::asio::any_io_executor executor);
  void install(PostFunction post);
  /// Back to the default serial queue.
  void reset();

  TimePoint now() const override;
  Disposable schedule(std::function<void()> action) override;
  Disposable scheduleAfter(Duration due, std::function<void()> action) override;

  MainScheduler();

 private:
  struct Backend;
  std::shared_ptr<const Backend> backend() const;

  mutable std::mutex mutex_;
  std::shared_ptr<const Backend> backend_;
};

}  // namespace kel::rx
