#pragma once

#include <memory>
#include <string_view>

#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/SerialEmitter.h"
#include "ServerClient/rx/Subjects.h"

namespace kel::platform {

enum class OvNetworkStatus {
  unknown,       ///< not yet determined
  notReachable,  ///< no usable network
  reachable,     ///< some network is usable: the socket layer's "network available"
};

std::string_view name(OvNetworkStatus status) noexcept;

/// Network reachability as a stream.
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
  explicit InMemoryNetworkManager(OvNetworkStatus initial = OvNetworkStatus::reachable)
      : status_(initial) {}

  rx::Observable<OvNetworkStatus> networkStatusStream() const override {
    return status_.asObservable();
  }
  void setStatus(OvNetworkStatus status) const {
    emitter_.run([this, status] { status_.accept(status); });
  }
  OvNetworkStatus status() const { return status_.value(); }

 private:
  // Relays expect their emissions serialised; the owner may set the status from any thread.
  mutable rx::SerialEmitter emitter_;
  rx::BehaviorRelay<OvNetworkStatus> status_;
};

}  // namespace kel::platform
