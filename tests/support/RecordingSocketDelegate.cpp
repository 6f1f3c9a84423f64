#include "support/RecordingSocketDelegate.h"

#include <utility>

namespace kel::test {

using platform::SocketCloseCode;

namespace {

RecordingSocketDelegate::Event makeEvent(RecordingSocketDelegate::Kind kind,
                                         SocketCloseCode code = SocketCloseCode::invalid,
                                         std::string text = {}, std::exception_ptr error = {}) {
  RecordingSocketDelegate::Event event;
  event.kind = kind;
  event.code = code;
  event.text = std::move(text);
  event.error = std::move(error);
  return event;
}

}  // namespace

void RecordingSocketDelegate::socketDidConnect() {
  record(makeEvent(Kind::connected));
}

void RecordingSocketDelegate::socketDidDisconnect(SocketCloseCode closeCode) {
  record(makeEvent(Kind::disconnected, closeCode));
}

void RecordingSocketDelegate::socketDidReceiveError(std::exception_ptr error) {
  std::string text = "(not a std::exception)";
  try {
    if (error) std::rethrow_exception(error);
    text = "(null)";
  } catch (const std::exception& e) {
    text = e.what();
  } catch (...) {
  }
  record(makeEvent(Kind::error, SocketCloseCode::invalid, std::move(text), error));
}

void RecordingSocketDelegate::socketDidReceiveMessage(std::string text) {
  record(makeEvent(Kind::message, SocketCloseCode::invalid, std::move(text)));
}

void RecordingSocketDelegate::socketDidReceiveData(std::string bytes) {
  record(makeEvent(Kind::data, SocketCloseCode::invalid, std::move(bytes)));
}

void RecordingSocketDelegate::record(Event event) {
  event.thread = std::this_thread::get_id();
  std::function<void(const Event&)> hook;
  {
    std::lock_guard lock(mutex_);
    if (inCall_) violations_ += std::string("overlapping call: ") + name(event.kind) + "\n";
    switch (event.kind) {
      case Kind::connected:
        if (open_) violations_ += "socketDidConnect while open\n";
        open_ = true;
        break;
      case Kind::disconnected:
        open_ = false;
        break;
      case Kind::message:
      case Kind::data:
        if (!open_) violations_ += std::string(name(event.kind)) + " while not open\n";
        break;
      case Kind::error:
        break;
    }
    inCall_ = true;
    ++counts_[static_cast<int>(event.kind)];
    events_.push_back(event);
    hook = hook_;
  }
  changed_.notify_all();
  if (hook) hook(event);
  std::lock_guard lock(mutex_);
  inCall_ = false;
}

void RecordingSocketDelegate::setHook(std::function<void(const Event&)> hook) {
  std::lock_guard lock(mutex_);
  hook_ = std::move(hook);
}

std::vector<RecordingSocketDelegate::Event> RecordingSocketDelegate::events() const {
  std::lock_guard lock(mutex_);
  return events_;
}

std::size_t RecordingSocketDelegate::count(Kind kind) const {
  std::lock_guard lock(mutex_);
  return counts_[static_cast<int>(kind)];
}

std::vector<std::string> RecordingSocketDelegate::messages() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> result;
  for (const auto& event : events_) {
    if (event.kind == Kind::message) result.push_back(event.text);
  }
  return result;
}

std::vector<std::string> RecordingSocketDelegate::errors() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> result;
  for (const auto& event : events_) {
    if (event.kind == Kind::error) result.push_back(event.text);
  }
  return result;
}

std::vector<SocketCloseCode> RecordingSocketDelegate::disconnects() const {
  std::lock_guard lock(mutex_);
  std::vector<SocketCloseCode> result;
  for (const auto& event : events_) {
    if (event.kind == Kind::disconnected) result.push_back(event.code);
  }
  return result;
}

bool RecordingSocketDelegate::waitFor(Kind kind, std::size_t count,
                                      std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return counts_[static_cast<int>(kind)] >= count; });
}

bool RecordingSocketDelegate::waitForAny(std::initializer_list<Kind> kinds, std::size_t count,
                                         std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    std::size_t made = 0;
    for (const auto kind : kinds) made += counts_[static_cast<int>(kind)];
    return made >= count;
  });
}

std::optional<SocketCloseCode> RecordingSocketDelegate::waitForDisconnect(
    std::size_t count, std::chrono::milliseconds timeout) const {
  if (!waitFor(Kind::disconnected, count, timeout)) return std::nullopt;
  return disconnects().at(count - 1);
}

std::string RecordingSocketDelegate::contractViolations() const {
  std::lock_guard lock(mutex_);
  return violations_;
}

const char* name(RecordingSocketDelegate::Kind kind) noexcept {
  switch (kind) {
    case RecordingSocketDelegate::Kind::connected:
      return "socketDidConnect";
    case RecordingSocketDelegate::Kind::disconnected:
      return "socketDidDisconnect";
    case RecordingSocketDelegate::Kind::error:
      return "socketDidReceiveError";
    case RecordingSocketDelegate::Kind::message:
      return "socketDidReceiveMessage";
    case RecordingSocketDelegate::Kind::data:
      return "socketDidReceiveData";
  }
  return "unknown";
}

}  // namespace kel::test
