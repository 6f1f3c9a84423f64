#pragma once

// Subscribes to a stream and keeps what it delivered, for tests that drive the stream's source
// by hand (a fake socket client, virtual time).

#include <exception>
#include <memory>
#include <mutex>
#include <vector>

#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Single.h"

namespace kel::testing {

template <class T>
class StreamRecorder {
 public:
  explicit StreamRecorder(const rx::Observable<T>& stream) : state_(std::make_shared<State>()) {
    subscription_ = stream.subscribe(
        [state = state_](const T& value) {
          std::lock_guard lock(state->mutex);
          state->values.push_back(value);
        },
        [state = state_](std::exception_ptr error) {
          std::lock_guard lock(state->mutex);
          state->error = std::move(error);
        },
        [state = state_] {
          std::lock_guard lock(state->mutex);
          state->completed = true;
        });
  }
  explicit StreamRecorder(const rx::Single<T>& single) : StreamRecorder(single.asObservable()) {}
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

 private:
  struct State {
    std::mutex mutex;
    std::vector<T> values;
    std::exception_ptr error;
    bool completed = false;
  };
  std::shared_ptr<State> state_;
  rx::Disposable subscription_;
};

template <class T>
StreamRecorder(const rx::Observable<T>&) -> StreamRecorder<T>;
template <class T>
StreamRecorder(const rx::Single<T>&) -> StreamRecorder<T>;

}  // namespace kel::testing
