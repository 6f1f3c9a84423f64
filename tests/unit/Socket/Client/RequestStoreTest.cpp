#include "ServerClient/Socket/Client/RequestStore.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace kel {
namespace {

using Observer = RequestStore<int>::Observer;

// stop() completes every request while callers may send or cancel from their completion.
TEST(RequestStoreTest, CompletingObserversMayUseTheStoreAgain) {
  RequestStore<int> store;
  std::vector<int> completed;
  for (int key : {1, 2, 3}) {
    store.registerRequest(key, Observer([](const Resource&) {}, {},
                                        [&, key] {
                                          completed.push_back(key);
                                          EXPECT_FALSE(store.contains(key));
                                          if (key == 2) store.registerRequest(20, Observer());
                                        }));
  }
  store.completeObservers();
  std::sort(completed.begin(), completed.end());
  EXPECT_EQ((std::vector{1, 2, 3}), completed);
  EXPECT_EQ(std::vector<int>{20}, store.all()) << "registered during the sweep, so still pending";
}

}  // namespace
}  // namespace kel
