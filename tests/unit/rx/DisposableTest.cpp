#include "RxTestSupport.h"

#include <atomic>
#include <thread>

namespace kel::rx::testing {
namespace {

TEST(Disposable, RunsItsActionExactlyOnceAcrossCopiesAndThreadsAndReleasesIt) {
  std::atomic<int> runs{0};
  auto token = std::make_shared<int>(1);
  std::weak_ptr<int> weak = token;
  auto d = Disposable::create([&runs, token = std::move(token)] { ++runs; });
  auto copy = d;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([d] { d.dispose(); });
  for (auto& t : threads) t.join();
  copy.dispose();
  EXPECT_EQ(1, runs);
  EXPECT_TRUE(copy.isDisposed());
  EXPECT_TRUE(weak.expired());
  Disposable().dispose();  // an empty handle is a no-op
}

TEST(Disposable, ContainersDisposeTheirMembersAndWhateverArrivesAfterThem) {
  auto a = Disposable::create();
  auto b = Disposable::create();
  CompositeDisposable composite;
  composite.insert(a);
  composite.dispose();
  EXPECT_TRUE(a.isDisposed());
  composite.insert(b);
  EXPECT_TRUE(b.isDisposed());

  auto first = Disposable::create();
  auto second = Disposable::create();
  SerialDisposable serial;
  serial.set(first);
  serial.set(second);
  EXPECT_TRUE(first.isDisposed());
  EXPECT_FALSE(second.isDisposed());

  auto c = Disposable::create();
  {
    DisposeBag bag;
    c.disposed(bag);
    DisposeBag moved(std::move(bag));
    EXPECT_FALSE(c.isDisposed());
  }
  EXPECT_TRUE(c.isDisposed());
}

}  // namespace
}  // namespace kel::rx::testing
