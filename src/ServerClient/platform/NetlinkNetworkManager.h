#pragma once

/// @file
/// Network reachability on Linux, from the kernel's routing netlink socket.
///
/// The network counts as reachable while some interface other than loopback is up, running
/// (has a carrier) and holds a global address: IPv4 outside 127.0.0.0/8 and 169.254.0.0/16, or
/// IPv6 outside ::1, fe80::/10 and the unspecified address, multicast excluded. That is what the
/// socket layer needs to know: whether trying the server again can succeed, not whether it will.
///
/// The manager listens to link and IPv4/IPv6 address notifications (RTMGRP_LINK,
/// RTMGRP_IPV4_IFADDR, RTMGRP_IPV6_IFADDR) on its own thread. The notifications only say that
/// something changed; the manager then reads the whole interface list again (getifaddrs), so a
/// burst of notifications or an overflowed socket buffer still ends in the right status. When the
/// netlink socket cannot be opened (a sandbox without netlink), the status is read once and then
/// no longer follows changes; this is logged.
///
/// networkStatusStream() gives the current status at subscription, then each change, on the
/// manager's thread (the current status on the subscribing thread). The status starts as the one
/// read at construction, so it is never `unknown` once made.

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ServerClient/platform/OvNetworkManager.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Subjects.h"

namespace kel::platform {

/// One network interface as far as reachability is concerned.
struct NetworkInterface {
  std::string name;       ///< The interface's name ("eth0", "wlan0").
  bool up = false;        ///< administratively up (IFF_UP)
  bool running = false;   ///< has a carrier (IFF_RUNNING)
  bool loopback = false;  ///< IFF_LOOPBACK
  /// Its addresses in text form ("192.0.2.1", "2001:db8::1", "fe80::1").
  std::vector<std::string> addresses;

  /// Every member equal.
  bool operator==(const NetworkInterface&) const = default;
};

/// The rule above, applied to a list of interfaces.
OvNetworkStatus reachabilityOf(const std::vector<NetworkInterface>& interfaces);

/// The system's interfaces now (getifaddrs); empty when they cannot be read.
std::vector<NetworkInterface> currentNetworkInterfaces();

/// Network reachability on Linux from the kernel's routing netlink socket, followed on a thread
/// of its own ("kel-netlink"); see NetlinkNetworkManager.h for the rule and the threads. Without
/// netlink it keeps the status read at construction, and logs why.
class NetlinkNetworkManager final : public OvNetworkManager {
 public:
  /// Decides the status from the interfaces.
  using Rule = std::function<OvNetworkStatus(const std::vector<NetworkInterface>&)>;

  /// The process-wide manager, made on first use.
  static const std::shared_ptr<NetlinkNetworkManager>& shared();

  /// Reads the current status and starts following changes, deciding with `rule`.
  explicit NetlinkNetworkManager(Rule rule = reachabilityOf);
  /// Stops following changes. May run on any thread, including inside a subscriber.
  ~NetlinkNetworkManager() override;

  NetlinkNetworkManager(const NetlinkNetworkManager&) = delete;
  NetlinkNetworkManager& operator=(const NetlinkNetworkManager&) = delete;

  /// The current status inside subscribe(), on the subscribing thread, then each change on the
  /// manager's thread; never terminates. A change is emitted only when the status differs from
  /// the last one.
  rx::Observable<OvNetworkStatus> networkStatusStream() const override;
  /// The current status. Thread-safe.
  OvNetworkStatus status() const;
  /// False when changes cannot be followed because no netlink socket could be opened. A netlink
  /// failure later on (logged) also ends the following, but leaves this true.
  bool isFollowingChanges() const noexcept { return watcher_ != nullptr; }

 private:
  struct Watcher;

  rx::BehaviorRelay<OvNetworkStatus> status_;
  std::shared_ptr<Watcher> watcher_;  // shared with the thread; none without netlink
  std::thread thread_;
};

}  // namespace kel::platform
