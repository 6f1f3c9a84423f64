#include "ServerClient/rx/Schedulers.h"

#include "ServerClient/rx/Errors.h"

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>

#include <chrono>

namespace kel::rx {

namespace {

TimePoint steadyNow() {
  return std::chrono::steady_clock::now();
}

/// A foreign queue takes a copyable std::function: the closure shares the action with the
/// returned disposable, which empties it on cancellation.
class SharedAction {
 public:
  explicit SharedAction(std::function<void()> action) : action_(std::move(action)) {}
  std::function<void()> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(action_, nullptr);
  }

 private:
  std::mutex mutex_;
  std::function<void()> action_;
};

Disposable postVia(const MainScheduler::PostFunction& post, std::function<void()> action) {
  auto shared = std::make_shared<SharedAction>(std::move(action));
  post([shared] {
    if (auto f = shared->take()) {
      try {
        f();
      } catch (...) {
        reportUnhandledError(std::current_exception());
      }
    }
  });
  return Disposable::create([shared] { shared->take(); });
}

}  // namespace

// --- SerialDispatchQueueScheduler
// -----------------------------------------------------------------

SerialDispatchQueueScheduler::SerialDispatchQueueScheduler(std::string internalName)
    : queue_(std::make_shared<DispatchQueue>(internalName)), name_(std::move(internalName)) {}

SerialDispatchQueueScheduler::SerialDispatchQueueScheduler(std::shared_ptr<DispatchQueue> queue,
                                                           std::string internalName)
    : queue_(std::move(queue)), name_(std::move(internalName)) {}

TimePoint SerialDispatchQueueScheduler::now() const {
  return steadyNow();
}

Disposable SerialDispatchQueueScheduler::schedule(std::function<void()> action) {
  return detail::postCancellable(queue_->executor(), std::move(action));
}

Disposable SerialDispatchQueueScheduler::scheduleAfter(Duration due, std::function<void()> action) {
  return detail::startTimer(queue_->executor(), due, std::move(action));
}

// --- ConcurrentDispatchQueueScheduler
// -------------------------------------------------------------

TimePoint ConcurrentDispatchQueueScheduler::now() const {
  return steadyNow();
}

Disposable ConcurrentDispatchQueueScheduler::schedule(std::function<void()> action) {
  return detail::postCancellable(sharedThreadPool().get_executor(), std::move(action));
}

Disposable ConcurrentDispatchQueueScheduler::scheduleAfter(Duration due,
                                                           std::function<void()> action) {
  // Each timer gets its own strand so that cancelling it never races with its completion.
  return detail::startTimer(boost::asio::make_strand(sharedThreadPool()), due, std::move(action));
}

const std::shared_ptr<ConcurrentDispatchQueueScheduler>&
ConcurrentDispatchQueueScheduler::instance() {
  static const auto scheduler = std::make_shared<ConcurrentDispatchQueueScheduler>();
  return scheduler;
}

// --- RunLoop
// --------------------------------------------------------------------------------------

RunLoop::RunLoop() : work_(io_.get_executor()) {}

void RunLoop::prepare() {
  if (io_.stopped()) io_.restart();
}

void RunLoop::run() {
  prepare();
  io_.run();
}

std::size_t RunLoop::runFor(Duration duration) {
  prepare();
  return io_.run_for(duration);
}

std::size_t RunLoop::runUntilIdle() {
  prepare();
  std::size_t total = 0;
  for (std::size_t n = io_.poll(); n > 0; n = io_.poll()) total += n;
  return total;
}

void RunLoop::stop() {
  io_.stop();
}

// --- MainScheduler
// --------------------------------------------------------------------------------

struct MainScheduler::Backend {
  // Exactly one of the two is set.
  boost::asio::any_io_executor executor;
  PostFunction post;
};

MainScheduler::MainScheduler() {
  reset();
}

const std::shared_ptr<MainScheduler>& MainScheduler::instance() {
  static const auto scheduler = std::make_shared<MainScheduler>();
  return scheduler;
}

void MainScheduler::install(boost::asio::any_io_executor executor) {
  auto backend = std::make_shared<Backend>();
  backend->executor = std::move(executor);
  std::lock_guard lock(mutex_);
  backend_ = std::move(backend);
}

void MainScheduler::install(PostFunction post) {
  auto backend = std::make_shared<Backend>();
  backend->post = std::move(post);
  std::lock_guard lock(mutex_);
  backend_ = std::move(backend);
}

void MainScheduler::reset() {
  static DispatchQueue defaultQueue("kel.rx.main");
  install(boost::asio::any_io_executor(defaultQueue.executor()));
}

std::shared_ptr<const MainScheduler::Backend> MainScheduler::backend() const {
  std::lock_guard lock(mutex_);
  return backend_;
}

TimePoint MainScheduler::now() const {
  return steadyNow();
}

Disposable MainScheduler::schedule(std::function<void()> action) {
  auto backend = this->backend();
  if (backend->executor) return detail::postCancellable(backend->executor, std::move(action));
  return postVia(backend->post, std::move(action));
}

Disposable MainScheduler::scheduleAfter(Duration due, std::function<void()> action) {
  auto backend = this->backend();
  if (backend->executor) return detail::startTimer(backend->executor, due, std::move(action));
  // Time on the shared pool, then hop onto the application's queue.
  CompositeDisposable ctl;
  SerialDisposable hop;
  ctl.insert(hop);
  ctl.insert(detail::startTimer(boost::asio::make_strand(sharedThreadPool()), due,
                                [backend, hop, action = std::move(action)]() mutable {
                                  hop.set(postVia(backend->post, std::move(action)));
                                }));
  return ctl;
}

}  // namespace kel::rx
