#include "RxTestSupport.h"

namespace kel::rx::testing {
namespace {

using Ints = std::vector<int>;
using Ticks = std::vector<std::int64_t>;

class VirtualTime : public RxTest {};

TEST_F(VirtualTime, EqualDueTimesRunInSchedulingOrderAndNeverInline) {
  std::vector<int> order;
  scheduler->scheduleAfter(10ms, [&] { order.push_back(1); });
  scheduler->scheduleAfter(5ms, [&] { order.push_back(0); });
  scheduler->scheduleAfter(10ms, [&] { order.push_back(2); });
  scheduler->schedule([&] { order.push_back(-1); });
  EXPECT_TRUE(order.empty());
  scheduler->advanceBy(10ms);
  EXPECT_EQ((Ints{-1, 0, 1, 2}), order);
  EXPECT_EQ(at(10ms), scheduler->now());
}

TEST_F(VirtualTime, ActionsMayScheduleAndDisposeOtherWorkWhileAdvancing) {
  std::vector<int> order;
  Disposable victim = scheduler->scheduleAfter(20ms, [&] { order.push_back(99); });
  scheduler->scheduleAfter(10ms, [&] {
    order.push_back(1);
    victim.dispose();
    scheduler->scheduleAfter(5ms, [&] { order.push_back(2); });
    scheduler->schedule([&] { order.push_back(3); });
  });
  scheduler->advanceBy(30ms);
  EXPECT_EQ((Ints{1, 3, 2}), order);
  EXPECT_EQ(0u, scheduler->pendingCount());
}

TEST_F(VirtualTime, AdvancesTwentySecondsOfMillisecondTicksQuickly) {
  std::int64_t last = -1;
  auto started = std::chrono::steady_clock::now();
  auto d = interval(1ms, scheduler).subscribe([&](const std::int64_t& v) { last = v; });
  scheduler->advanceBy(20s);
  d.dispose();
  EXPECT_EQ(19999, last);
  EXPECT_EQ(0u, scheduler->pendingCount());
  EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
}

TEST_F(VirtualTime, IntervalAndTimerTickAtExactInstants) {
  auto ticks = scheduler->createObserver<std::int64_t>();
  auto once = scheduler->createObserver<std::int64_t>();
  interval(100ms, scheduler).take(3).subscribe(ticks);
  timer(250ms, scheduler).subscribe(once);
  scheduler->advanceBy(1s);
  EXPECT_EQ((std::vector<Recorded<Event<std::int64_t>>>{
                nextAt<std::int64_t>(100ms, 0), nextAt<std::int64_t>(200ms, 1),
                nextAt<std::int64_t>(300ms, 2), completedAt<std::int64_t>(300ms)}),
            ticks->events());
  EXPECT_EQ((std::vector<Recorded<Event<std::int64_t>>>{nextAt<std::int64_t>(250ms, 0),
                                                        completedAt<std::int64_t>(250ms)}),
            once->events());
}

TEST_F(VirtualTime, TimeoutFiresAtTheExactInstantAfterTheLastElement) {
  auto source = scheduler->createColdObservable<int>({nextAt(100ms, 1), nextAt(250ms, 2)});
  auto observer = scheduler->createObserver<int>();
  source.observable().timeout(200ms, scheduler).subscribe(observer);
  scheduler->advanceBy(449ms);
  EXPECT_EQ(2u, observer->events().size());
  scheduler->advanceBy(1ms);
  ASSERT_EQ(3u, observer->events().size());
  EXPECT_EQ(at(450ms), observer->events()[2].time);
  EXPECT_TRUE(isError<TimeoutError>(observer->events()[2].value.error()));
  EXPECT_EQ("Sequence timeout.", std::string(describeError(observer->events()[2].value.error())));
  EXPECT_EQ((std::vector<SubscriptionRecord>{{at(0ms), at(450ms)}}), source.subscriptions());
  EXPECT_EQ(0u, scheduler->pendingCount());
}

TEST_F(VirtualTime, TimeoutWithOtherSwitchesAtTheDeadline) {
  auto source = scheduler->createColdObservable<int>({nextAt(100ms, 1), nextAt(400ms, 2)});
  auto other = scheduler->createColdObservable<int>({nextAt(50ms, 7), completedAt<int>(60ms)});
  auto observer = scheduler->createObserver<int>();
  source.observable().timeout(200ms, other, scheduler).subscribe(observer);
  scheduler->start();
  EXPECT_EQ((std::vector<Recorded<Event<int>>>{nextAt(100ms, 1), nextAt(350ms, 7),
                                               completedAt<int>(360ms)}),
            observer->events());
  EXPECT_EQ((std::vector<SubscriptionRecord>{{at(0ms), at(300ms)}}), source.subscriptions());
  EXPECT_EQ((std::vector<SubscriptionRecord>{{at(300ms), at(360ms)}}), other.subscriptions());
}

TEST_F(VirtualTime, TimeoutIsCancelledByTermination) {
  auto observer = scheduler->createObserver<int>();
  scheduler->createColdObservable<int>({completedAt<int>(50ms)})
      .observable()
      .timeout(100ms, scheduler)
      .subscribe(observer);
  scheduler->advanceBy(1s);
  EXPECT_EQ((std::vector<Recorded<Event<int>>>{completedAt<int>(50ms)}), observer->events());
}

TEST_F(VirtualTime, DelaySubscriptionSubscribesAtTheExactInstant) {
  auto source = scheduler->createColdObservable<int>({nextAt(10ms, 1), completedAt<int>(20ms)});
  auto observer = scheduler->createObserver<int>();
  source.observable().delaySubscription(300ms, scheduler).subscribe(observer);
  scheduler->advanceBy(299ms);
  EXPECT_TRUE(source.subscriptions().empty());
  scheduler->advanceBy(1ms);
  EXPECT_EQ((std::vector<SubscriptionRecord>{{at(300ms), std::nullopt}}), source.subscriptions());
  scheduler->start();
  EXPECT_EQ((std::vector<Recorded<Event<int>>>{nextAt(310ms, 1), completedAt<int>(320ms)}),
            observer->events());
}

TEST_F(VirtualTime, DisposingADelayedSubscriptionCancelsTheTimer) {
  auto source = scheduler->createColdObservable<int>({nextAt(10ms, 1)});
  auto d = source.observable().delaySubscription(300ms, scheduler).subscribe([](const int&) {});
  d.dispose();
  EXPECT_EQ(0u, scheduler->pendingCount());
  scheduler->start();
  EXPECT_TRUE(source.subscriptions().empty());
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
  EXPECT_EQ((std::vector<Recorded<Event<int>>>{nextAt(100ms, 2), completedAt<int>(150ms)}),
            observer->events());
  EXPECT_EQ(at(150ms), scheduler->now()) << "the loser's timer never ran";
}

TEST_F(VirtualTime, RetryResubscribesAtEachFailure) {
  auto source =
      scheduler->createColdObservable<int>({nextAt(10ms, 1), errorAt<int>(20ms, testError())});
  auto observer = scheduler->createObserver<int>();
  source.observable().retry(3).subscribe(observer);
  scheduler->start();
  EXPECT_EQ((std::vector<SubscriptionRecord>{
                {at(0ms), at(20ms)}, {at(20ms), at(40ms)}, {at(40ms), at(60ms)}}),
            source.subscriptions());
  EXPECT_EQ((Ints{1, 1, 1}), observer->values());
  EXPECT_TRUE(observer->events().back().value.isError());
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
  EXPECT_EQ((std::vector<SubscriptionRecord>{
                {at(0ms), at(10ms)}, {at(110ms), at(120ms)}, {at(220ms), at(220ms)}}),
            source.subscriptions())
      << "the triggers' completion ends even the attempt it just started";
  EXPECT_EQ((std::vector<Recorded<Event<int>>>{completedAt<int>(220ms)}), observer->events());
}

TEST_F(VirtualTime, FlatMapLatestDisposesTheInnerTimer) {
  auto outer = scheduler->createHotObservable<int>(
      {nextAt(100ms, 1), nextAt(150ms, 2), completedAt<int>(500ms)});
  auto observer = scheduler->createObserver<int>();
  outer.observable()
      .flatMapLatest([this](int x) { return timer(100ms, scheduler).map([x](auto) { return x; }); })
      .subscribe(observer);
  scheduler->start();
  EXPECT_EQ((std::vector<Recorded<Event<int>>>{nextAt(250ms, 2), completedAt<int>(500ms)}),
            observer->events());
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

TEST_F(VirtualTime, SingleTimeoutAndDelay) {
  std::exception_ptr error;
  int value = 0;
  Single<int>::never()
      .timeout(1s, scheduler)
      .subscribe([](const int&) {}, [&](auto e) { error = e; });
  Single<int>::just(5).delaySubscription(2s, scheduler).subscribe([&](const int& v) { value = v; });
  scheduler->advanceBy(1s);
  EXPECT_TRUE(isError<TimeoutError>(error));
  EXPECT_EQ(0, value);
  scheduler->advanceBy(1s);
  EXPECT_EQ(5, value);
}

}  // namespace
}  // namespace kel::rx::testing
