#include "ServerClient/platform/ApplicationLifecycle.h"
#include "ServerClient/platform/NetlinkNetworkManager.h"
#include "ServerClient/platform/OvNetworkManager.h"

#include <gtest/gtest.h>

#include "ServerClient/rx/Disposable.h"

namespace kel::platform {
namespace {

NetworkInterface interface(std::string name, bool up, bool running,
                           std::vector<std::string> addresses, bool loopback = false) {
  return {std::move(name), up, running, loopback, std::move(addresses)};
}

TEST(Reachability, NeedsAnInterfaceThatIsUpRunningNotLoopbackAndHoldsAGlobalAddress) {
  const auto lo = interface("lo", true, true, {"127.0.0.1", "::1"}, true);
  const struct {
    std::vector<NetworkInterface> interfaces;
    bool reachable;
  } cases[] = {
      {{}, false},
      {{lo}, false},
      {{lo, interface("eth0", true, true, {"192.0.2.10"})}, true},
      {{interface("wlan0", true, true, {"fe80::1", "2001:db8::5"})}, true},
      {{interface("eth0", true, false, {"192.0.2.10"})}, false},  // no carrier
      {{interface("eth0", false, true, {"192.0.2.10"})}, false},  // switched off
      {{interface("eth0", true, true, {"169.254.7.1", "fe80::1", "0.0.0.0"})}, false},
      {{interface("eth0", true, true, {"::", "not an address"})}, false},
      {{interface("lo", true, true, {"192.0.2.1"}, true)}, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.reachable ? OvNetworkStatus::reachable : OvNetworkStatus::notReachable,
              reachabilityOf(c.interfaces))
        << (c.interfaces.empty() ? "none" : c.interfaces.back().name);
  }
}

// Both serialise posts through a SerialEmitter (whose thread-safety the socket event handler's race
// test checks): a post made while one is being delivered comes after it, never inside it.
TEST(PlatformEvents, APostMadeDuringADeliveryComesAfterIt) {
  ApplicationLifecycle lifecycle;
  std::string seen;
  rx::DisposeBag bag;
  bag.insert(lifecycle.willEnterForeground().subscribe([&](const rx::Unit&) { seen += 'f'; }));
  bag.insert(lifecycle.didEnterBackground().subscribe([&](const rx::Unit&) {
    seen += 'b';
    lifecycle.postWillEnterForeground();
    seen += 'B';
  }));
  lifecycle.postDidEnterBackground();
  EXPECT_EQ("bBf", seen);

  InMemoryNetworkManager manager(OvNetworkStatus::unknown);
  seen.clear();
  bag.insert(manager.networkStatusStream().subscribe([&](const OvNetworkStatus& status) {
    seen += status == OvNetworkStatus::reachable ? 'r' : 'n';
    if (status == OvNetworkStatus::notReachable) manager.setStatus(OvNetworkStatus::reachable);
    seen += '.';
  }));
  manager.setStatus(OvNetworkStatus::notReachable);
  EXPECT_EQ("n.n.r.", seen);
}

}  // namespace
}  // namespace kel::platform
