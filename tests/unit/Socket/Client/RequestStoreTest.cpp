#include "ServerClient/Socket/Client/RequestStore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace kel {
namespace {

using Observer = RequestStore<int>::Observer;

TEST(RequestStoreTest, ARegistrationNumberOnlyRemovesItsOwnRegistration) {
  RequestStore<int> store;
  int earlierCompleted = 0;
  int laterCompleted = 0;
  auto earlier =
      store.registerRequest(1, Observer([](const Resource&) {}, {}, [&] { ++earlierCompleted; }));
  auto later =
      store.registerRequest(1, Observer([](const Resource&) {}, {}, [&] { ++laterCompleted; }));
  EXPECT_NE(earlier, later);
  EXPECT_FALSE(store.contains(1, earlier));
  EXPECT_EQ(std::nullopt, store.removeRequest(1, earlier)) << "replaced, so not the earlier's";
  EXPECT_TRUE(store.contains(1, later));

  auto taken = store.removeRequest(1, later);
  ASSERT_TRUE(taken);
  taken->onCompleted();
  EXPECT_EQ(1, laterCompleted);
  EXPECT_EQ(0, earlierCompleted);
  EXPECT_FALSE(store.contains(1));
}

TEST(RequestStoreTest, CompletingObserversMayUseTheStoreAgain) {
  RequestStore<int> store;
  std::vector<int> completed;
  for (int key : {1, 2, 3}) {
    store.registerRequest(key, Observer([](const Resource&) {}, {},
                                        [&, key] {
                                          completed.push_back(key);
                                          // A completion that registers anew or asks the store must
                                          // not find it held.
                                          EXPECT_FALSE(store.contains(key));
                                          if (key == 2) store.registerRequest(20, Observer());
                                        }));
  }
  store.completeObservers();
  std::sort(completed.begin(), completed.end());
  EXPECT_EQ((std::vector{1, 2, 3}), completed);
  EXPECT_EQ(std::vector<int>{20}, store.all()) << "registered during the sweep, so still pending";
  EXPECT_EQ("RequestStore", store.label());
}

}  // namespace
}  // namespace kel
