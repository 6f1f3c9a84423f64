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
  CompositeDisposable composite;
  auto a = Disposable::create();
  auto b = Disposable::create();
  auto keyB = composite.insert(b);
  composite.insert(a);
  composite.remove(keyB);
  EXPECT_TRUE(b.isDisposed()) << "remove disposes the removed item";
  composite.dispose();
  EXPECT_TRUE(a.isDisposed());
  auto late = Disposable::create();
  composite.insert(late);
  EXPECT_TRUE(late.isDisposed());

  SerialDisposable serial;
  auto first = Disposable::create();
  auto second = Disposable::create();
  serial.set(first);
  serial.set(second);
  EXPECT_TRUE(first.isDisposed());
  EXPECT_FALSE(second.isDisposed());
  serial.dispose();
  EXPECT_TRUE(second.isDisposed());
  auto third = Disposable::create();
  serial.set(third);
  EXPECT_TRUE(third.isDisposed());

  auto c = Disposable::create();
  auto d = Disposable::create();
  {
    DisposeBag bag;
    c.disposed(bag);
    DisposeBag moved(std::move(bag));
    EXPECT_FALSE(c.isDisposed());
    moved = DisposeBag();
    EXPECT_TRUE(c.isDisposed());
    moved.insert(d);
  }
  EXPECT_TRUE(d.isDisposed());
}

}  // namespace
}  // namespace kel::rx::testing
