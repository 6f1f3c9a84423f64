#pragma once

#include <chrono>

#include "ServerClient/rx/Scheduler.h"

namespace kel {

/// How the chat-list service waits for an authenticated socket before it sends.
struct XMPPConnectionConstants {
  XMPPConnectionConstants() = delete;

  /// The longest wait for the socket to become authenticated.
  static constexpr std::chrono::seconds timeout{10};
  /// Where that wait is timed: the serial queue "rx.global_dispatch_queue.serial", made on first
  /// use and shared.
  static const rx::SchedulerPtr& scheduler();
};

}  // namespace kel
