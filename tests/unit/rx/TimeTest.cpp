#include "RxTestSupport.h"

namespace kel::rx::testing {
namespace {

using Ints = std::vector<int>;
using IntEvents = std::vector<Recorded<Event<int>>>;
using Subscriptions = std::vector<SubscriptionRecord>;

class VirtualTime : public RxTest {};

TEST_F(VirtualTime, WorkRunsInDueOrderNeverInlineAndMayScheduleOrDisposeOtherWork) {
  std::vector<int> order;
  Disposable victim = scheduler->scheduleAfter(20ms, [&] { order.push_back(99); });
  scheduler->scheduleAfter(10ms, [&] {
    order.push_back(1);
    victim.dispose();
    scheduler->scheduleAfter(5ms, [&] { order.push_back(3); });
    scheduler->schedule([&] { order.push_back(2); });
  });
  scheduler->scheduleAfter(5ms, [&] { order.push_back(0); });
  scheduler->scheduleAfter(10ms, [&] { order.push_back(11); });  // same instant, scheduled later
  scheduler->schedule([&] { order.push_back(-1); });
  EXPECT_TRUE(order.empty());
  scheduler->advanceBy(30ms);
  EXPECT_EQ((Ints{-1, 0, 1, 11, 2, 3}), order);
  EXPECT_EQ(at(30ms), scheduler->now());
  EXPECT_EQ(0u, scheduler->pendingCount());
}

TEST_F(VirtualTime, TimeoutFiresAtTheExactInstantAfterTheLastElementUnlessTheSourceEnded) {
  auto source = scheduler->createColdObservable<int>({nextAt(100ms, 1), nextAt(250ms, 2)});
  auto observer = scheduler->createObserver<int>();
  source.observable().timeout(200ms, scheduler).subscribe(observer);
  auto ended = scheduler->createObserver<int>();
  scheduler->createColdObservable<int>({completedAt<int>(50ms)})
      .observable()
      .timeout(100ms, scheduler)
      .subscribe(ended);
  scheduler->advanceBy(449ms);
  EXPECT_EQ(2u, observer->events().size());
  EXPECT_EQ((IntEvents{completedAt<int>(50ms)}), ended->events());
  scheduler->advanceBy(1ms);
  ASSERT_EQ(3u, observer->events().size());
  EXPECT_EQ(at(450ms), observer->events()[2].time);
  EXPECT_TRUE(isError<TimeoutError>(observer->events()[2].value.error()));
  EXPECT_EQ("Sequence timeout.", std::string(describeError(observer->events()[2].value.error())));
  EXPECT_EQ((Subscriptions{{at(0ms), at(450ms)}}), source.subscriptions());
  EXPECT_EQ(0u, scheduler->pendingCount()) << "no timer is left behind, the ended one's included";
}

TEST_F(VirtualTime, TimeoutWithOtherSwitchesAtTheDeadline) {
  auto source = scheduler->createColdObservable<int>({nextAt(100ms, 1), nextAt(400ms, 2)});
  auto other = scheduler->createColdObservable<int>({nextAt(50ms, 7), completedAt<int>(60ms)});
  auto observer = scheduler->createObserver<int>();
  source.observable().timeout(200ms, other, scheduler).subscribe(observer);
  scheduler->start();
  EXPECT_EQ((IntEvents{nextAt(100ms, 1), nextAt(350ms, 7), completedAt<int>(360ms)}),
            observer->events());
  EXPECT_EQ((Subscriptions{{at(0ms), at(300ms)}}), source.subscriptions());
  EXPECT_EQ((Subscriptions{{at(300ms), at(360ms)}}), other.subscriptions());
}

TEST_F(VirtualTime, ObserveOnAndSubscribeOnDeferToTheScheduler) {
  auto observer = scheduler->createObserver<int>();
  bool subscribed = false;
  Observable<int>::from({1, 2, 3})
      .doOnSubscribe([&] { subscribed = true; })
      .subscribeOn(scheduler)
      .observeOn(scheduler)
      .subscribe(observer);
  EXPECT_FALSE(subscribed);
  EXPECT_TRUE(observer->events().empty());
  scheduler->advanceBy(0ms);
  EXPECT_TRUE(subscribed);
  EXPECT_EQ((Ints{1, 2, 3}), observer->values());
  EXPECT_TRUE(observer->events().back().value.isCompleted());
}

}  // namespace
}  // namespace kel::rx::testing
