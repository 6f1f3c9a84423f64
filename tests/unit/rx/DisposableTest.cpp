#include "RxTestSupport.h"

#include <atomic>
#include <thread>

namespace kel::rx::testing {
namespace {

TEST(Disposable, RunsItsActionExactlyOnceAcrossCopiesAndThreads) {
  std::atomic<int> runs{0};
  auto d = Disposable::create([&] { ++runs; });
  auto copy = d;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([d] { d.dispose(); });
  for (auto& t : threads) t.join();
  copy.dispose();
  EXPECT_EQ(1, runs);
  EXPECT_TRUE(copy.isDisposed());
}

TEST(Disposable, DefaultHandleIsANoOp) {
  Disposable d;
  d.dispose();
  EXPECT_FALSE(d.isDisposed());
}

TEST(Disposable, ReleasesWhatTheActionCapturedOnDispose) {
  auto token = std::make_shared<int>(1);
  std::weak_ptr<int> weak = token;
  auto d = Disposable::create([token = std::move(token)] {});
  d.dispose();
  EXPECT_TRUE(weak.expired());
}

TEST(CompositeDisposable, DisposesMembersAndLateArrivals) {
  CompositeDisposable composite;
  auto a = Disposable::create();
  auto b = Disposable::create();
  auto keyB = composite.insert(b);
  composite.insert(a);
  composite.remove(keyB);
  EXPECT_TRUE(b.isDisposed()) << "remove disposes the removed item";
  EXPECT_EQ(1u, composite.count());
  composite.dispose();
  EXPECT_TRUE(a.isDisposed());
  auto late = Disposable::create();
  composite.insert(late);
  EXPECT_TRUE(late.isDisposed());
}

TEST(SerialDisposable, ReplacingDisposesThePrevious) {
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
}

TEST(DisposeBag, DisposesOnDestructionAndOnMoveAssignment) {
  auto a = Disposable::create();
  auto b = Disposable::create();
  {
    DisposeBag bag;
    a.disposed(bag);
    DisposeBag moved(std::move(bag));
    EXPECT_FALSE(a.isDisposed());
    b.disposed(moved);
    moved = DisposeBag();
    EXPECT_TRUE(a.isDisposed());
    EXPECT_TRUE(b.isDisposed());
  }
  auto c = Disposable::create();
  {
    DisposeBag bag;
    bag.insert(c);
  }
  EXPECT_TRUE(c.isDisposed());
}

}  // namespace
}  // namespace kel::rx::testing
