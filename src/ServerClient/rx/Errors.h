#pragma once

#include <exception>
#include <functional>
#include <stdexcept>

namespace kel::rx {

/// Emitted by Observable::timeout() (and the Single and Completable variants) when no
/// notification arrived in time.
class TimeoutError : public std::runtime_error {
 public:
  TimeoutError() : std::runtime_error("Sequence timeout.") {}
};

/// Emitted by asSingle() when the source completed without an element.
class NoElementsError : public std::runtime_error {
 public:
  NoElementsError() : std::runtime_error("Sequence doesn't contain any elements.") {}
};

/// Emitted by asSingle() when the source produced a second element.
class MoreThanOneElementError : public std::runtime_error {
 public:
  MoreThanOneElementError() : std::runtime_error("Sequence contains more than one element.") {}
};

/// Errors with nowhere to go: a subscription without an error handler, an exception thrown by a
/// scheduled action, a dispose action, a subscriber's onError or onCompleted callback, or a
/// SerialEmitter action. The default handler writes the message to stderr. Installing an empty
/// function restores the default. Thread-safe; affects errors reported afterwards.
void setUnhandledErrorHandler(std::function<void(std::exception_ptr)> handler);
/// Hands `error` to the installed handler, on the calling thread (the thread where the error
/// happened). Never throws: should the handler throw, the message goes to stderr instead.
void reportUnhandledError(std::exception_ptr error) noexcept;

/// The message of an exception_ptr's exception, or a placeholder for non-standard exceptions.
const char* describeError(const std::exception_ptr& error) noexcept;

}  // namespace kel::rx
