#include "ServerClient/rx/detail/Barrier.h"

#include <atomic>

#if defined(__linux__)
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace kel::rx::detail {

namespace {

#if defined(__linux__) && !defined(__SANITIZE_THREAD__)
long membarrier(int command) noexcept {
  return syscall(__NR_membarrier, command, 0, 0);
}

bool registerExpedited() noexcept {
  long supported = membarrier(MEMBARRIER_CMD_QUERY);
  if (supported < 0 || (supported & MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) return false;
  return membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
}
#else
bool registerExpedited() noexcept {
  return false;
}
#endif

}  // namespace

bool asymmetricBarrierAvailable() noexcept {
  static const bool available = registerExpedited();
  return available;
}

const bool asymmetricBarrier = asymmetricBarrierAvailable();

void lightBarrierSlow() noexcept {
  std::atomic_thread_fence(std::memory_order_seq_cst);
}

void heavyBarrier() noexcept {
#if defined(__linux__) && !defined(__SANITIZE_THREAD__)
  // Once registered the call cannot fail; the fence below is for kernels without it, where the
  // hot side fences as well.
  if (asymmetricBarrierAvailable() && membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) return;
#endif
  std::atomic_thread_fence(std::memory_order_seq_cst);
}

}  // namespace kel::rx::detail
