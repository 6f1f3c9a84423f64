#include "support/RecordingSocketDelegate.h"

namespace kel::test {

using platform::SocketCloseCode;

void RecordingSocketDelegate::socketDidReceiveError(std::exception_ptr error) {
  std::string text = "(not a std::exception)";
  try {
    if (error) std::rethrow_exception(error);
    text = "(null)";
  } catch (const std::exception& e) {
    text = e.what();
  } catch (...) {
  }
  record({Kind::error, SocketCloseCode::invalid, std::move(text), error});
}

void RecordingSocketDelegate::record(Event event) {
  event.thread = std::this_thread::get_id();
  std::function<void(const Event&)> hook;
  {
    std::lock_guard lock(mutex_);
    if (inCall_) violations_ += std::string("overlapping call: ") + name(event.kind) + "\n";
    if (event.kind == Kind::connected && open_) violations_ += "socketDidConnect while open\n";
    if ((event.kind == Kind::message || event.kind == Kind::data) && !open_) {
      violations_ += std::string(name(event.kind)) + " while not open\n";
    }
    if (event.kind == Kind::connected || event.kind == Kind::disconnected) {
      open_ = event.kind == Kind::connected;
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

std::vector<std::string> RecordingSocketDelegate::texts(Kind kind) const {
  std::vector<std::string> result;
  for (const auto& event : events()) {
    if (event.kind == kind) result.push_back(event.text);
  }
  return result;
}

std::vector<SocketCloseCode> RecordingSocketDelegate::disconnects() const {
  std::vector<SocketCloseCode> result;
  for (const auto& event : events()) {
    if (event.kind == Kind::disconnected) result.push_back(event.code);
  }
  return result;
}

bool RecordingSocketDelegate::waitFor(Kind kind, std::size_t count,
                                      std::chrono::milliseconds timeout) const {
  return waitForAny({kind}, count, timeout);
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
  static constexpr const char* kNames[] = {"socketDidConnect", "socketDidDisconnect",
                                           "socketDidReceiveError", "socketDidReceiveMessage",
                                           "socketDidReceiveData"};
  return kNames[static_cast<int>(kind)];
}

}  // namespace kel::test
