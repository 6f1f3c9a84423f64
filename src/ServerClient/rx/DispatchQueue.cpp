#include "ServerClient/rx/DispatchQueue.h"

#include "ServerClient/rx/Errors.h"

#include <boost/asio/steady_timer.hpp>

#include <memory>
#include <mutex>

namespace kel::rx {

boost::asio::thread_pool& sharedThreadPool() {
  static boost::asio::thread_pool pool(kSharedThreadPoolSize);
  return pool;
}

namespace detail {

namespace {

void runGuarded(std::function<void()>& action) {
  try {
    action();
  } catch (...) {
    reportUnhandledError(std::current_exception());
  }
}

/// A posted action that can be cancelled before it runs. Cancelling releases the action at once
/// rather than when the executor gets round to discarding it.
class PostedAction final : public DisposableState {
 public:
  explicit PostedAction(std::function<void()> action) : action_(std::move(action)) {}

  void run() {
    auto action = take();
    if (action) runGuarded(action);
  }
  std::function<void()> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(action_, nullptr);
  }

 protected:
  void onDispose() noexcept override { take(); }

 private:
  std::mutex mutex_;
  std::function<void()> action_;
};

/// The completion handler: runs the action once, and releases it if the executor destroys the
/// handler without running it (at shutdown), which cuts any cycle through the action.
template <class State>
class Invoker {
 public:
  explicit Invoker(std::shared_ptr<State> state) : state_(std::move(state)) {}
  Invoker(Invoker&&) noexcept = default;
  Invoker& operator=(Invoker&&) noexcept = default;
  Invoker(const Invoker&) = delete;
  Invoker& operator=(const Invoker&) = delete;
  ~Invoker() {
    if (state_) state_->take();
  }

  void operator()() { std::exchange(state_, nullptr)->run(); }
  void operator()(const boost::system::error_code& ec) {
    auto state = std::exchange(state_, nullptr);
    if (ec) {
      state->take();
      return;
    }
    state->run();
  }

 private:
  std::shared_ptr<State> state_;
};

template <class Executor>
class TimerAction final : public DisposableState,
                          public std::enable_shared_from_this<TimerAction<Executor>> {
 public:
  TimerAction(const Executor& executor, std::function<void()> action)
      : action_(std::move(action)), timer_(executor) {}

  void start(Duration due) {
    timer_.expires_after(due);
    timer_.async_wait(Invoker<TimerAction>(this->shared_from_this()));
  }
  void run() {
    auto action = take();
    if (action) runGuarded(action);
  }
  std::function<void()> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(action_, nullptr);
  }

 protected:
  void onDispose() noexcept override {
    take();
    // The timer object belongs to its executor: cancel it there, not concurrently from here.
    try {
      boost::asio::post(timer_.get_executor(),
                        [self = this->shared_from_this()] { self->timer_.cancel(); });
    } catch (...) {
      // Posting fails only when the executor is shutting down, which cancels the timer anyway.
    }
  }

 private:
  std::mutex mutex_;
  std::function<void()> action_;
  boost::asio::basic_waitable_timer<std::chrono::steady_clock,
                                    boost::asio::wait_traits<std::chrono::steady_clock>, Executor>
      timer_;
};

template <class Executor>
Disposable startTimerOn(const Executor& executor, Duration due, std::function<void()> action) {
  auto state = std::make_shared<TimerAction<Executor>>(executor, std::move(action));
  state->start(due.count() > 0 ? due : Duration::zero());
  return Disposable(std::move(state));
}

}  // namespace

Disposable startTimer(const boost::asio::any_io_executor& executor, Duration due,
                      std::function<void()> action) {
  return startTimerOn(executor, due, std::move(action));
}

Disposable startTimer(const boost::asio::strand<boost::asio::thread_pool::executor_type>& executor,
                      Duration due, std::function<void()> action) {
  return startTimerOn(executor, due, std::move(action));
}

Disposable postCancellable(const boost::asio::any_io_executor& executor,
                           std::function<void()> action) {
  auto state = std::make_shared<PostedAction>(std::move(action));
  boost::asio::post(executor, Invoker<PostedAction>(state));
  return Disposable(std::move(state));
}

}  // namespace detail

DispatchQueue::DispatchQueue(std::string label)
    : label_(std::move(label)), strand_(boost::asio::make_strand(sharedThreadPool())) {}

void DispatchQueue::async(std::function<void()> work) {
  boost::asio::post(strand_, [work = std::move(work)]() mutable {
    try {
      work();
    } catch (...) {
      reportUnhandledError(std::current_exception());
    }
  });
}

Disposable DispatchQueue::asyncAfter(Duration delay, std::function<void()> work) {
  return detail::startTimer(strand_, delay, std::move(work));
}

}  // namespace kel::rx
