#include "ServerClient/platform/ApplicationLifecycle.h"
#include "ServerClient/platform/NetlinkNetworkManager.h"
#include "ServerClient/platform/OvNetworkManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ServerClient/rx/Disposable.h"

namespace kel::platform {
namespace {

NetworkInterface interface(std::string name, bool up, bool running,
                           std::vector<std::string> addresses, bool loopback = false) {
  NetworkInterface result;
  result.name = std::move(name);
  result.up = up;
  result.running = running;
  result.loopback = loopback;
  result.addresses = std::move(addresses);
  return result;
}

TEST(Reachability, NeedsAnInterfaceThatIsUpRunningNotLoopbackAndHoldsAGlobalAddress) {
  using enum OvNetworkStatus;
  const auto lo = interface("lo", true, true, {"127.0.0.1", "::1"}, true);
  EXPECT_EQ(notReachable, reachabilityOf({}));
  EXPECT_EQ(notReachable, reachabilityOf({lo}));
  EXPECT_EQ(reachable, reachabilityOf({lo, interface("eth0", true, true, {"192.0.2.10"})}));
  EXPECT_EQ(reachable,
            reachabilityOf({interface("wlan0", true, true, {"fe80::1", "2001:db8::5"})}));
  // No carrier, or switched off.
  EXPECT_EQ(notReachable, reachabilityOf({interface("eth0", true, false, {"192.0.2.10"})}));
  EXPECT_EQ(notReachable, reachabilityOf({interface("eth0", false, true, {"192.0.2.10"})}));
  // Addresses that reach no further than the link, or nothing at all.
  EXPECT_EQ(notReachable,
            reachabilityOf({interface("eth0", true, true, {"169.254.7.1", "fe80::1", "0.0.0.0"})}));
  EXPECT_EQ(notReachable,
            reachabilityOf({interface("eth0", true, true, {"::", "not an address"})}));
  EXPECT_EQ(notReachable, reachabilityOf({interface("eth0", true, true, {})}));
  // A loopback interface never counts, whatever address it holds.
  EXPECT_EQ(notReachable, reachabilityOf({interface("lo", true, true, {"192.0.2.1"}, true)}));
}

TEST(InMemoryNetworkManager, StatusesSetFromManyThreadsReachSubscribersOneAtATime) {
  InMemoryNetworkManager manager(OvNetworkStatus::unknown);
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  std::atomic<int> received{0};
  auto subscription = manager.networkStatusStream().subscribe([&](const OvNetworkStatus&) {
    if (inside.fetch_add(1) != 0) overlapped = true;
    ++received;
    inside.fetch_sub(1);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) {
        manager.setStatus(i % 2 == t % 2 ? OvNetworkStatus::reachable
                                         : OvNetworkStatus::notReachable);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  subscription.dispose();
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(1 + 4 * 500, received.load());  // the status at subscription, then every one set
}

TEST(ApplicationLifecycle, PostsFromAnyThreadAreDeliveredOneAtATimeAndInOrder) {
  ApplicationLifecycle lifecycle;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  std::vector<char> seen;  // written by one delivery at a time
  const auto record = [&](char what) {
    if (inside.fetch_add(1) != 0) overlapped = true;
    seen.push_back(what);
    inside.fetch_sub(1);
  };
  rx::DisposeBag bag;
  bag.insert(lifecycle.willEnterForeground().subscribe([&](const rx::Unit&) { record('f'); }));
  bag.insert(lifecycle.didEnterBackground().subscribe([&](const rx::Unit&) {
    record('b');
    // A post made while delivering comes after the current one, never inside it.
    if (seen.size() == 1) lifecycle.postWillEnterForeground();
    record('B');
  }));

  lifecycle.postDidEnterBackground();
  EXPECT_EQ((std::vector<char>{'b', 'B', 'f'}), seen);

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 250; ++i) {
        if (t % 2 == 0) {
          lifecycle.postWillEnterForeground();
        } else {
          lifecycle.postDidEnterBackground();
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(3u + 500u + 2 * 500u, seen.size());
  EXPECT_NE(nullptr, ApplicationLifecycle::shared());
  EXPECT_EQ(ApplicationLifecycle::shared(), ApplicationLifecycle::shared());
}

}  // namespace
}  // namespace kel::platform
