#include "RxTestSupport.h"

#include <optional>
#include <string>

namespace kel::rx::testing {
namespace {

using Ints = std::vector<int>;
using IntEvents = std::vector<Recorded<Event<int>>>;
using Subscriptions = std::vector<SubscriptionRecord>;

TEST(Operators, ElementwiseOperatorsTransformFilterAndComplete) {
  Recorder<std::string> chain(
      Observable<int>::from({1, 2, 2, 3, 4, 5, 6})
          .filter([](int x) { return x != 3; })
          .distinctUntilChanged()
          .compactMap([](int x) { return x % 2 ? std::optional<int>(x * 10) : std::nullopt; })
          .startWith(0)
          .map([](int x) { return std::to_string(x); }));
  EXPECT_EQ(R"("0" "10" "50" |)", chain.trace);

  auto source = Observable<int>::from({1, 2, 3, 4, 5});
  Recorder<int> skipTake(source.skip(1).take(2));
  Recorder<int> takeWhile(source.takeWhile([](int x) { return x < 3; }));
  Recorder<int> singles(source.take(2).flatMap([](int x) { return Single<int>::just(x * 3); }));
  EXPECT_EQ("2 3 |", skipTake.trace);
  EXPECT_EQ("1 2 |", takeWhile.trace);
  EXPECT_EQ("3 6 |", singles.trace);

  // take lets go of its upstream as soon as it has enough.
  PublishSubject<int> subject;
  Recorder<int> take(subject.asObservable().take(1));
  subject.onNext(7);
  EXPECT_FALSE(subject.hasObservers());
  EXPECT_EQ("7 |", take.trace);
}

TEST(Operators, ExceptionsFromUserFunctionsAndHandlersBecomeOneErrorAndUnsubscribe) {
  Recorder<int> map, filter, flat, doOn;
  PublishSubject<int> subject;
  map.subscribe(subject.asObservable().map([](int) -> int { throw std::runtime_error("bad"); }));
  filter.subscribe(subject.asObservable().filter([](int) -> bool { throw 1; }));
  flat.subscribe(subject.asObservable().flatMap([](int) -> Observable<int> { throw 1; }));
  doOn.subscribe(subject.asObservable().doOnNext([](const int&) { throw 1; }));
  int handlerErrors = 0;
  subject.asObservable().subscribe([](const int&) { throw std::runtime_error("handler"); },
                                   [&](std::exception_ptr) { ++handlerErrors; });
  subject.onNext(1);
  subject.onNext(2);
  for (auto* r : {&map, &filter, &flat, &doOn}) EXPECT_EQ("X", r->trace);
  EXPECT_EQ(1, handlerErrors);
  EXPECT_FALSE(subject.hasObservers());
}

// The producer misbehaves inside create() itself, before its disposable is known.
TEST(Operators, CreateEnforcesTheContractAndNothingArrivesAfterADispose) {
  Observer<int> producer;
  bool misbehave = true;
  int disposed = 0;
  auto source = Observable<int>::create([&](Observer<int> o) {
    producer = o;
    if (misbehave) {
      o.onNext(1);
      o.onCompleted();
      o.onNext(2);
      o.onError(testError());
      o.onCompleted();
    }
    return Disposable::create([&] { ++disposed; });
  });
  Recorder<int> ended(source.map([](int x) { return x; }));
  EXPECT_EQ("1 |", ended.trace);
  EXPECT_EQ(1, disposed) << "the producer's disposable runs on termination";

  misbehave = false;
  Recorder<int> r;
  auto d = r.subscribe(source.filter([](int) { return true; }).map([](int x) { return x + 1; }));
  producer.onNext(1);
  d.dispose();
  d.dispose();
  producer.onNext(2);
  producer.onCompleted();
  EXPECT_EQ("2", r.trace);
  EXPECT_EQ(2, disposed);
}

TEST(Operators, MergeCompletesAfterAllSourcesAndFlatMapErrorDisposesEverything) {
  PublishSubject<int> a, b;
  Recorder<int> merged(Observable<int>::merge({a.asObservable(), b.asObservable()}));
  a.onNext(1);
  b.onNext(2);
  a.onCompleted();
  b.onNext(3);
  EXPECT_EQ("1 2 3", merged.trace);
  b.onCompleted();
  EXPECT_EQ("1 2 3 |", merged.trace);

  PublishSubject<int> outer, inner1, inner2;
  Recorder<int> r(outer.asObservable().flatMap(
      [&](int x) { return x == 1 ? inner1.asObservable() : inner2.asObservable(); }));
  outer.onNext(1);
  outer.onNext(2);
  inner1.onNext(10);
  inner2.onNext(20);
  inner2.onError(testError());
  EXPECT_EQ("10 20 X", r.trace);
  EXPECT_FALSE(outer.hasObservers());
  EXPECT_FALSE(inner1.hasObservers());
}

TEST(Operators, FlatMapLatestDisposesThePreviousInnerAndWaitsForTheCurrent) {
  PublishSubject<int> outer;
  std::vector<PublishSubject<int>> inners(2);
  Recorder<int> r(outer.asObservable().flatMapLatest(
      [&](int i) { return inners[static_cast<std::size_t>(i)].asObservable(); }));
  outer.onNext(0);
  inners[0].onNext(1);
  outer.onNext(1);
  EXPECT_FALSE(inners[0].hasObservers());
  inners[0].onNext(2);  // too late
  inners[1].onNext(3);
  outer.onCompleted();
  EXPECT_EQ("1 3", r.trace);
  inners[1].onCompleted();
  EXPECT_EQ("1 3 |", r.trace);
}

TEST(Operators, WithLatestFromDropsElementsBeforeTheFirstLatest) {
  PublishSubject<int> source;
  PublishSubject<std::string> other;
  Recorder<std::string> r(source.asObservable().withLatestFrom(
      other.asObservable(), [](int i, const std::string& s) { return s + std::to_string(i); }));
  source.onNext(1);
  other.onNext("a");
  source.onNext(2);
  other.onNext("b");
  other.onCompleted();  // other's completion is not ours
  source.onNext(3);
  source.onCompleted();
  EXPECT_EQ(R"("a2" "b3" |)", r.trace);
}

TEST(Operators, TakeUntilCompletesOnTheOthersFirstElementOnly) {
  PublishSubject<int> source;
  PublishSubject<Unit> stop, silent;
  Recorder<int> r(source.asObservable().takeUntil(stop.asObservable()));
  Recorder<int> untouched(source.asObservable().takeUntil(silent.asObservable()));
  source.onNext(1);
  silent.onCompleted();
  stop.onNext(Unit{});
  source.onNext(2);
  EXPECT_EQ("1 |", r.trace);
  EXPECT_EQ("1 2", untouched.trace);
  EXPECT_FALSE(stop.hasObservers());
}

TEST(Operators, CatchErrorAndRetry) {
  auto failing = Observable<int>::from({1}).concat(Observable<int>::error(testError()));
  Recorder<int> caught(failing.catchError([](std::exception_ptr) {
    return Observable<int>::from({8, 9});
  }));
  EXPECT_EQ("1 8 9 |", caught.trace);

  int subscriptions = 0;
  auto counted = Observable<int>::deferred([&] {
    ++subscriptions;
    return Observable<int>::just(subscriptions).concat(Observable<int>::error(testError()));
  });
  auto retried = counted.retry(3);
  EXPECT_EQ(0, subscriptions) << "nothing runs before a subscription";
  Recorder<int> r(retried);
  EXPECT_EQ("1 2 3 X", r.trace);

  subscriptions = 0;
  Recorder<int> forever(counted.retry().take(5));
  EXPECT_EQ(5, subscriptions) << "synchronous failures are retried in a loop, not by recursion";
  EXPECT_EQ("1 2 3 4 5 |", forever.trace);
}

TEST(Conversions, SinglesWantExactlyOneElementAndDeliverOnlyTheFirstOutcome) {
  std::exception_ptr none, many;
  Observable<int>::empty().asSingle().subscribe([](const int&) {}, [&](auto e) { none = e; });
  Observable<int>::from({1, 2}).asSingle().subscribe([](const int&) {}, [&](auto e) { many = e; });
  EXPECT_TRUE(isError<NoElementsError>(none));
  EXPECT_TRUE(isError<MoreThanOneElementError>(many));

  Recorder<int> r(Single<int>::create([](SingleObserver<int> o) {
                    o.onSuccess(1);
                    o.onSuccess(2);
                    o.onError(testError());
                    return Disposable();
                  }).map([](int x) {
                      return x + 1;
                    }).asObservable());
  EXPECT_EQ("2 |", r.trace);
  std::string recovered;
  Single<int>::error(testError())
      .catchError([](std::exception_ptr) { return Single<int>::just(9); })
      .flatMap([](int x) { return Single<std::string>::just(std::to_string(x)); })
      .subscribe([&](const std::string& s) { recovered = s; });
  EXPECT_EQ("9", recovered);
}

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

}  // namespace
}  // namespace kel::rx::testing
