#pragma once

#include <memory>
#include <string_view>

#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/SerialEmitter.h"
#include "ServerClient/rx/Subjects.h"

namespace kel::platform {

/// Whether the network can be used, as far as the device can tell.
enum class OvNetworkStatus {
  unknown,       ///< not yet determined
  notReachable,  ///< no usable network
  reachable,     ///< some network is usable: the socket layer's "network available"
};

/// For log lines: the case's name ("reachable").
std::string_view name(OvNetworkStatus status) noexcept;

/// Network reachability as a stream: the socket layer retries its connection when the network
/// becomes reachable. NetlinkNetworkManager is the Linux one, InMemoryNetworkManager the one the
/// owner drives.
class OvNetworkManager {
 public:
  virtual ~OvNetworkManager() = default;

  /// The current status first, then every change, on a thread of the implementation's choosing.
  virtual rx::Observable<OvNetworkStatus> networkStatusStream() const = 0;
};

/// A network manager whose status the owner sets: for tests, and for applications whose
/// platform reports reachability through its own channels. setStatus() may be called from any
/// thread; the values reach subscribers one at a time in the order of the calls (a call made
/// while another is being delivered is delivered right after it, by the delivering thread).
class InMemoryNetworkManager final : public OvNetworkManager {
 public:
  /// A manager whose status starts as `initial`.
  explicit InMemoryNetworkManager(OvNetworkStatus initial = OvNetworkStatus::reachable)
      : status_(initial) {}

  /// The current status at subscription (inside subscribe(), on the subscribing thread), then
  /// every setStatus() on the thread that delivers it (see the class); never terminates. Every
  /// setStatus() is emitted, also one that repeats the status.
  rx::Observable<OvNetworkStatus> networkStatusStream() const override {
    return status_.asObservable();
  }
  /// Makes `status` current and emits it; thread-safe, may return before delivery (see the
  /// class).
  void setStatus(OvNetworkStatus status) const {
    emitter_.run([this, status] { status_.accept(status); });
  }
  /// The current status. Thread-safe.
  OvNetworkStatus status() const { return status_.value(); }

 private:
  // Relays expect their emissions serialised; the owner may set the status from any thread.
  mutable rx::SerialEmitter emitter_;
  rx::BehaviorRelay<OvNetworkStatus> status_;
};

}  // namespace kel::platform
