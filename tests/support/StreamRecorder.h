#pragma once

// Subscribes to a stream and keeps what it delivered, on whatever thread it delivers: tests that
// drive the source by hand read it at once, tests against real threads wait for it.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Single.h"

namespace kel::testing {

inline constexpr std::chrono::seconds kStreamWait{10};

template <class T>
class StreamRecorder {
 public:
  /// With a `clock`, at() tells when the last element or the failure came.
  explicit StreamRecorder(const rx::Observable<T>& stream, rx::SchedulerPtr clock = nullptr)
      : state_(std::make_shared<State>()) {
    const auto now = [clock] { return clock ? std::optional(clock->now()) : std::nullopt; };
    subscription_ = stream.subscribe(
        [state = state_, now](const T& value) {
          state->update([&] {
            state->values.push_back(value);
            state->at = now();
          });
        },
        [state = state_, now](std::exception_ptr error) {
          state->update([&] {
            state->error = std::move(error);
            state->at = now();
          });
        },
        [state = state_] { state->update([&] { state->completed = true; }); });
  }
  explicit StreamRecorder(const rx::Single<T>& single, rx::SchedulerPtr clock = nullptr)
      : StreamRecorder(single.asObservable(), std::move(clock)) {}
  ~StreamRecorder() { subscription_.dispose(); }

  StreamRecorder(const StreamRecorder&) = delete;
  StreamRecorder& operator=(const StreamRecorder&) = delete;

  std::vector<T> values() const {
    std::lock_guard lock(state_->mutex);
    return state_->values;
  }
  /// A reference, so that errorAs can look into it; set at most once, by the stream's failure.
  const std::exception_ptr& error() const {
    std::lock_guard lock(state_->mutex);
    return state_->error;
  }
  bool completed() const {
    std::lock_guard lock(state_->mutex);
    return state_->completed;
  }
  bool terminated() const { return completed() || error(); }
  std::optional<rx::TimePoint> at() const {
    std::lock_guard lock(state_->mutex);
    return state_->at;
  }

  /// Waits until `count` values satisfy `predicate`.
  bool waitFor(const std::function<bool(const T&)>& predicate, std::size_t count = 1,
               std::chrono::milliseconds timeout = kStreamWait) const {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, timeout, [&] {
      std::size_t matching = 0;
      for (const auto& value : state_->values) {
        if (predicate(value)) ++matching;
      }
      return matching >= count;
    });
  }
  /// Waits for the failure or the completion.
  bool waitForEnd(std::chrono::milliseconds timeout = kStreamWait) const {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, timeout,
                                    [&] { return state_->completed || state_->error; });
  }

  void dispose() { subscription_.dispose(); }

 private:
  struct State {
    template <class F>
    void update(F&& change) {
      {
        std::lock_guard lock(mutex);
        change();
      }
      changed.notify_all();
    }

    std::mutex mutex;  // guards the members below
    std::condition_variable changed;
    std::vector<T> values;
    std::exception_ptr error;
    bool completed = false;
    std::optional<rx::TimePoint> at;
  };
  std::shared_ptr<State> state_;
  rx::Disposable subscription_;
};

template <class T>
StreamRecorder(const rx::Observable<T>&) -> StreamRecorder<T>;
template <class T>
StreamRecorder(const rx::Single<T>&) -> StreamRecorder<T>;

/// The value of `single` once it comes; throws its error, or std::runtime_error after kStreamWait.
template <class T>
T await(const rx::Single<T>& single) {
  StreamRecorder<T> recorder(single);
  if (!recorder.waitForEnd()) throw std::runtime_error("no answer in time");
  if (recorder.error()) std::rethrow_exception(recorder.error());
  return recorder.values().at(0);
}
inline void await(const rx::Completable& completable) {
  await(completable.andThen(rx::Single<rx::Unit>::just(rx::Unit{})));
}

}  // namespace kel::testing
