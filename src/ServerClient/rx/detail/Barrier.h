#pragma once
// Internal: a store-load barrier split unevenly between a hot side and a rare side.
//
// Subjects publish each element by reading their observer list without a lock. To know when an
// old list may be freed, the emitting thread raises a flag and then reads the list, while a
// subscriber swaps the list and then reads the flag; each side needs a full barrier between its
// store and its load, or both can miss the other's store. A full barrier costs about as much as
// a locked instruction, several times the price of delivering an element, so the hot side only
// stops the compiler from reordering (lightBarrier) and the rare side makes every running thread
// of the process execute a full barrier on its behalf (heavyBarrier, the kernel's membarrier).
// Where the kernel lacks it, and under ThreadSanitizer (which cannot see it), both sides fall
// back to an ordinary sequentially consistent fence.

#include <atomic>

namespace kel::rx::detail {

/// True when heavyBarrier() is the process-wide kernel barrier, so lightBarrier() may be a
/// compiler-only fence. Decided once, on first use.
bool asymmetricBarrierAvailable() noexcept;

/// asymmetricBarrierAvailable(), worked out during static initialisation. Read before that (by
/// another static initialiser) it is false, which only costs a full fence.
extern const bool asymmetricBarrier;

/// The hot side: a compiler fence when the asymmetric barrier is available, a full fence
/// otherwise.
void lightBarrierSlow() noexcept;
inline void lightBarrier() noexcept {
#if defined(__SANITIZE_THREAD__)
  lightBarrierSlow();
#else
  if (asymmetricBarrier) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
  } else {
    lightBarrierSlow();
  }
#endif
}

/// The rare side: every thread of the process passes a full barrier before this returns.
void heavyBarrier() noexcept;

}  // namespace kel::rx::detail
