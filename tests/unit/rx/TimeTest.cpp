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

TEST_F(VirtualTime, DelaySubscriptionSubscribesAtTheExactInstantAndDisposingCancelsIt) {
  auto source = scheduler->createColdObservable<int>({nextAt(10ms, 1), completedAt<int>(20ms)});
  auto observer = scheduler->createObserver<int>();
  source.observable().delaySubscription(300ms, scheduler).subscribe(observer);
  auto cancelled =
      source.observable().delaySubscription(100ms, scheduler).subscribe([](const int&) {
        ADD_FAILURE() << "subscribed after dispose";
      });
  cancelled.dispose();
  EXPECT_EQ(1u, scheduler->pendingCount());
  scheduler->advanceBy(299ms);
  EXPECT_TRUE(source.subscriptions().empty());
  scheduler->advanceBy(1ms);
  EXPECT_EQ((Subscriptions{{at(300ms), std::nullopt}}), source.subscriptions());
  scheduler->start();
  EXPECT_EQ((IntEvents{nextAt(310ms, 1), completedAt<int>(320ms)}), observer->events());
}

TEST_F(VirtualTime, AmbDisposesTheLoserAndCancelsItsTimer) {
  auto slow = timer(300ms, scheduler).map([](std::int64_t) { return 1; });
  auto fast = scheduler->createColdObservable<int>({nextAt(100ms, 2), completedAt<int>(150ms)});
  auto observer = scheduler->createObserver<int>();
  Observable<int>::amb({slow, fast}).subscribe(observer);
  EXPECT_EQ(3u, scheduler->pendingCount()) << "slow's timer and fast's two messages";
  scheduler->advanceBy(100ms);
  EXPECT_EQ(1u, scheduler->pendingCount()) << "only fast's completion is left";
  scheduler->start();
  EXPECT_EQ((IntEvents{nextAt(100ms, 2), completedAt<int>(150ms)}), observer->events());
}

TEST_F(VirtualTime, RetryWhenResubscribesOnEachTriggerUntilTheTriggersEnd) {
  auto source = scheduler->createColdObservable<int>({errorAt<int>(10ms, testError())});
  auto observer = scheduler->createObserver<int>();
  source.observable()
      .retryWhen([this](Observable<std::exception_ptr> errors) {
        return errors.take(2).flatMap([this](auto) { return timer(100ms, scheduler); });
      })
      .subscribe(observer);
  scheduler->start();
  EXPECT_EQ((Subscriptions{{at(0ms), at(10ms)}, {at(110ms), at(120ms)}, {at(220ms), at(220ms)}}),
            source.subscriptions())
      << "the triggers' completion ends even the attempt it just started";
  EXPECT_EQ((IntEvents{completedAt<int>(220ms)}), observer->events());
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
