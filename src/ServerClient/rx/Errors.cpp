#include "ServerClient/rx/Errors.h"

#include <cstdio>
#include <memory>
#include <mutex>

namespace kel::rx {

namespace {

std::mutex& handlerMutex() {
  static std::mutex mutex;
  return mutex;
}

std::shared_ptr<std::function<void(std::exception_ptr)>>& handlerSlot() {
  static std::shared_ptr<std::function<void(std::exception_ptr)>> slot;
  return slot;
}

}  // namespace

void setUnhandledErrorHandler(std::function<void(std::exception_ptr)> handler) {
  auto next = handler
                  ? std::make_shared<std::function<void(std::exception_ptr)>>(std::move(handler))
                  : nullptr;
  std::lock_guard lock(handlerMutex());
  handlerSlot() = std::move(next);
}

void reportUnhandledError(std::exception_ptr error) noexcept {
  std::shared_ptr<std::function<void(std::exception_ptr)>> handler;
  {
    std::lock_guard lock(handlerMutex());
    handler = handlerSlot();
  }
  try {
    if (handler) {
      (*handler)(error);
      return;
    }
  } catch (...) {
    // A failing error handler has nowhere left to report to; fall back to stderr.
  }
  std::fprintf(stderr, "kel::rx unhandled error: %s\n", describeError(error));
}

const char* describeError(const std::exception_ptr& error) noexcept {
  if (!error) return "(no error)";
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "(non-standard exception)";
  }
}

}  // namespace kel::rx
