#pragma once

// Records what a stream delivers on whatever thread it delivers, and lets a test wait for it:
//
//   auto states = StreamRecorder<SocketState>::subscribe(client->socketConnectionEventChannel());
//   ASSERT_TRUE(states->waitFor([](auto& s) { return s == SocketState::authenticated(); }));

#include <chrono>
#include <cstddef>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Observable.h"

namespace kel::test {

inline constexpr std::chrono::seconds kStreamWait{10};

template <class T>
class StreamRecorder : public std::enable_shared_from_this<StreamRecorder<T>> {
 public:
  static std::shared_ptr<StreamRecorder> subscribe(const rx::Observable<T>& stream) {
    auto recorder = std::make_shared<StreamRecorder>();
    std::weak_ptr<StreamRecorder> weak = recorder;
    auto subscription = stream.subscribe(
        [weak](const T& value) {
          if (auto self = weak.lock()) self->update([&] { self->values_.push_back(value); });
        },
        [weak](std::exception_ptr error) {
          if (auto self = weak.lock()) self->update([&] { self->error_ = error; });
        },
        [weak] {
          if (auto self = weak.lock()) self->update([&] { self->completed_ = true; });
        });
    std::lock_guard lock(recorder->mutex_);
    recorder->subscription_ = std::move(subscription);
    return recorder;
  }

  ~StreamRecorder() { subscription_.dispose(); }

  /// Waits until `count` values satisfy `predicate`.
  bool waitFor(const std::function<bool(const T&)>& predicate, std::size_t count = 1,
               std::chrono::milliseconds timeout = kStreamWait) const {
    return waitUntil(
        [&] {
          std::size_t matching = 0;
          for (const auto& value : values_) {
            if (predicate(value)) ++matching;
          }
          return matching >= count;
        },
        timeout);
  }
  /// Waits for the error or the completion.
  bool waitForEnd(std::chrono::milliseconds timeout = kStreamWait) const {
    return waitUntil([&] { return completed_ || error_; }, timeout);
  }

  std::vector<T> values() const {
    std::lock_guard lock(mutex_);
    return values_;
  }
  std::exception_ptr error() const {
    std::lock_guard lock(mutex_);
    return error_;
  }
  bool completed() const {
    std::lock_guard lock(mutex_);
    return completed_;
  }
  void dispose() { subscription_.dispose(); }

 private:
  void update(const std::function<void()>& change) {
    {
      std::lock_guard lock(mutex_);
      change();
    }
    changed_.notify_all();
  }
  bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, condition);
  }

  mutable std::mutex mutex_;  // guards the members below
  mutable std::condition_variable changed_;
  std::vector<T> values_;
  std::exception_ptr error_;
  bool completed_ = false;
  rx::Disposable subscription_;
};

}  // namespace kel::test
