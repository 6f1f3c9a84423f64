#pragma once

#include "ServerClient/rx/Rx.h"
#include "ServerClient/rx/TestScheduler.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ostream>
#include <stdexcept>
#include <string>

namespace kel::rx {

// Readable failure messages for recorded events.
template <class T>
void PrintTo(const Event<T>& e, std::ostream* os) {
  if (e.isNext()) {
    *os << "next(" << ::testing::PrintToString(e.value()) << ")";
  } else if (e.isError()) {
    *os << "error(" << describeError(e.error()) << ")";
  } else {
    *os << "completed";
  }
}
template <class E>
void PrintTo(const Recorded<E>& r, std::ostream* os) {
  *os << "@" << std::chrono::duration_cast<std::chrono::milliseconds>(r.time - TimePoint{}).count()
      << "ms ";
  PrintTo(r.value, os);
}

}  // namespace kel::rx

namespace kel::rx::testing {

using namespace std::chrono_literals;

inline std::exception_ptr testError(const char* what = "boom") {
  return std::make_exception_ptr(std::runtime_error(what));
}

/// The error's dynamic type is E.
template <class E>
bool isError(const std::exception_ptr& e) {
  try {
    std::rethrow_exception(e);
  } catch (const E&) {
    return true;
  } catch (...) {
    return false;
  }
}

/// Records a subscription's notifications without virtual time, in arrival order and
/// space-separated: each value, "|" for a completion, "X" for an error ("1 2 |").
template <class T>
struct Recorder {
  Recorder() = default;
  explicit Recorder(const Observable<T>& o) { subscribe(o); }
  Recorder(const Recorder&) = delete;  // the subscription refers to this one

  std::string trace;

  Disposable subscribe(const Observable<T>& o) {
    return o.subscribe([this](const T& v) { note(::testing::PrintToString(v)); },
                       [this](std::exception_ptr) { note("X"); }, [this] { note("|"); });
  }
  void note(const std::string& event) { trace += (trace.empty() ? "" : " ") + event; }
};

class RxTest : public ::testing::Test {
 protected:
  std::shared_ptr<TestScheduler> scheduler = std::make_shared<TestScheduler>();

  static TimePoint at(Duration d) { return TestScheduler::at(d); }
};

}  // namespace kel::rx::testing
