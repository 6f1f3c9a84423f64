#pragma once

// The program's main thread: a RunLoop installed as the library's main scheduler, run only while
// the program waits for something, and always with a deadline.

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>

#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Schedulers.h"
#include "ServerClient/rx/Single.h"

namespace kel::cli {

/// What waiting for a Single gave: its value, its error, or neither when time ran out.
template <class T>
struct Outcome {
  std::optional<T> value;
  std::exception_ptr error;

  bool timedOut() const noexcept { return !value && !error; }
};

class MainLoop {
 public:
  /// Installs the loop's executor as rx::MainScheduler; the destructor puts the default back.
  MainLoop();
  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  /// Runs main-thread work until `condition` holds (checked between handlers and at least every
  /// few milliseconds); false when `timeout` passes first.
  bool runUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);
  /// Runs main-thread work for `duration`, e.g. to let late deliveries drain before exit.
  void runFor(std::chrono::milliseconds duration);

  /// Subscribes and runs the loop until `single` answers, `timeout` passes or `giveUp` holds
  /// (checked as the condition of runUntil); a late answer is dropped by disposing of the
  /// subscription.
  template <class T>
  Outcome<T> await(const rx::Single<T>& single, std::chrono::milliseconds timeout,
                   const std::function<bool()>& giveUp = {}) {
    auto outcome = std::make_shared<Outcome<T>>();
    auto subscription =
        single.observeOn(rx::MainScheduler::instance())
            .subscribe([outcome](const T& value) { outcome->value = value; },
                       [outcome](std::exception_ptr error) { outcome->error = std::move(error); });
    runUntil([&] { return !outcome->timedOut() || (giveUp && giveUp()); }, timeout);
    subscription.dispose();
    return std::move(*outcome);
  }

  /// The first element of `observable`, as await does.
  template <class T>
  Outcome<T> awaitFirst(const rx::Observable<T>& observable, std::chrono::milliseconds timeout) {
    return await(observable.take(1).asSingle(), timeout);
  }

 private:
  rx::RunLoop loop_;
};

}  // namespace kel::cli
