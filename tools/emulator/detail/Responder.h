#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <shared_mutex>

#include "emulator/ResourceRouter.h"

namespace kel::emulator::detail {

/// Whether the emulator's network can still take work. Responders may outlive the emulator (a
/// handler's thread can hold one), so they check this, under the shared lock, before touching a
/// connection; stopping takes the lock exclusively before the io_context goes away.
struct Lifetime {
  std::shared_mutex mutex;
  bool alive = true;  // guarded by mutex
};

/// Where a responder's answer goes: the connection that received the request.
class ReplySink {
 public:
  virtual ~ReplySink() = default;
  /// Any thread; called with the lifetime's shared lock held, so it only queues work.
  virtual void deliver(std::int64_t requestId, Reply reply, std::chrono::milliseconds delay) = 0;
};

struct ResponderState {
  std::int64_t requestId = 0;
  SocketId socket = 0;
  std::weak_ptr<ReplySink> sink;
  /// Set only for a sink that nothing else owns (Responder::capturing).
  std::shared_ptr<ReplySink> ownedSink;
  std::shared_ptr<Lifetime> lifetime;
  /// Fault injection: hold the answer back this long, or never send it.
  std::chrono::milliseconds delay{0};
  bool withhold = false;
  std::atomic<bool> answered{false};
};

}  // namespace kel::emulator::detail
