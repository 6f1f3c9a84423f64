#pragma once

#include <memory>
#include <string_view>

#include "ServerClient/rx/Observable.h"
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
/// platform reports reachability through its own channels.
class InMemoryNetworkManager final : public OvNetworkManager {
 public:
  explicit InMemoryNetworkManager(OvNetworkStatus initial = OvNetworkStatus::reachable)
      : status_(initial) {}

  rx::Observable<OvNetworkStatus> networkStatusStream() const override {
    return status_.asObservable();
  }
  void setStatus(OvNetworkStatus status) const { status_.accept(status); }
  OvNetworkStatus status() const { return status_.value(); }

 private:
  rx::BehaviorRelay<OvNetworkStatus> status_;
};

}  // namespace kel::platform
