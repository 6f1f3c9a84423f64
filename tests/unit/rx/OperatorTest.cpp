#include "RxTestSupport.h"

#include <optional>
#include <string>

namespace kel::rx::testing {
namespace {

using Ints = std::vector<int>;

TEST(Operators, ElementwiseChainTransformsFiltersAndCompletes) {
  Recorder<std::string> r;
  r.subscribe(
      Observable<int>::from({1, 2, 2, 3, 4, 5, 6})
          .filter([](int x) { return x != 3; })
          .distinctUntilChanged()
          .compactMap([](int x) { return x % 2 ? std::optional<int>(x * 10) : std::nullopt; })
          .startWith(0)
          .map([](int x) { return std::to_string(x); }));
  EXPECT_EQ((std::vector<std::string>{"0", "10", "50"}), r.values);
  EXPECT_EQ(1, r.completed);
}

TEST(Operators, TakeSkipTakeWhileAndScan) {
  Recorder<int> take, takeWhile, scan;
  auto source = Observable<int>::from({1, 2, 3, 4, 5});
  take.subscribe(source.skip(1).take(2));
  takeWhile.subscribe(source.takeWhile([](int x) { return x < 3; }));
  scan.subscribe(source.scan(0, [](int acc, int x) { return acc + x; }));
  EXPECT_EQ((Ints{2, 3}), take.values);
  EXPECT_EQ((Ints{1, 2}), takeWhile.values);
  EXPECT_EQ((Ints{1, 3, 6, 10, 15}), scan.values);
  EXPECT_EQ(1, take.completed);
  EXPECT_EQ(1, takeWhile.completed);
}

TEST(Operators, TakeDisposesUpstreamAsSoonAsItIsDone) {
  PublishSubject<int> subject;
  Recorder<int> r;
  r.subscribe(subject.asObservable().take(1));
  subject.onNext(7);
  EXPECT_FALSE(subject.hasObservers());
  EXPECT_EQ((Ints{7}), r.values);
  EXPECT_EQ(1, r.completed);
}

TEST(Operators, ExceptionsFromUserFunctionsBecomeErrors) {
  auto thrower = [](int) -> int { throw std::runtime_error("bad"); };
  Recorder<int> map, filter, flat, doOn;
  PublishSubject<int> subject;
  map.subscribe(subject.asObservable().map(thrower));
  filter.subscribe(subject.asObservable().filter([](int) -> bool { throw 1; }));
  flat.subscribe(subject.asObservable().flatMap([](int) -> Observable<int> { throw 1; }));
  doOn.subscribe(subject.asObservable().doOnNext([](const int&) { throw 1; }));
  subject.onNext(1);
  subject.onNext(2);
  for (auto* r : {&map, &filter, &flat, &doOn}) {
    EXPECT_TRUE(r->values.empty());
    EXPECT_EQ(1, r->errors);
  }
  EXPECT_FALSE(subject.hasObservers()) << "the failing subscriptions let go of the subject";
}

TEST(Operators, ThrowingOnNextHandlerDisposesAndReportsToOnError) {
  PublishSubject<int> subject;
  int errors = 0;
  subject.asObservable().subscribe([](const int&) { throw std::runtime_error("handler"); },
                                   [&](std::exception_ptr) { ++errors; });
  subject.onNext(1);
  subject.onNext(2);
  EXPECT_EQ(1, errors);
  EXPECT_FALSE(subject.hasObservers());
}

TEST(Operators, CreateEnforcesTheContractOnAMisbehavingProducer) {
  int disposed = 0;
  auto source = Observable<int>::create([&](Observer<int> o) {
    o.onNext(1);
    o.onCompleted();
    o.onNext(2);
    o.onError(testError());
    o.onCompleted();
    return Disposable::create([&] { ++disposed; });
  });
  Recorder<int> r;
  r.subscribe(source.map([](int x) { return x; }));
  EXPECT_EQ((Ints{1}), r.values);
  EXPECT_EQ(1, r.completed);
  EXPECT_EQ(0, r.errors);
  EXPECT_EQ(1, disposed) << "the producer's disposable runs on termination";
}

TEST(Operators, NothingIsDeliveredAfterDispose) {
  Observer<int> producer;
  int disposed = 0;
  auto source = Observable<int>::create([&](Observer<int> o) {
    producer = o;
    return Disposable::create([&] { ++disposed; });
  });
  Recorder<int> r;
  auto d = r.subscribe(source.filter([](int) { return true; }).map([](int x) { return x + 1; }));
  producer.onNext(1);
  d.dispose();
  d.dispose();
  producer.onNext(2);
  producer.onCompleted();
  EXPECT_EQ((Ints{2}), r.values);
  EXPECT_EQ(0, r.terminals());
  EXPECT_EQ(1, disposed);
}

TEST(Operators, ColdObservablesRunPerSubscriptionAndOnlyWhenSubscribed) {
  int subscriptions = 0;
  auto source = Observable<int>::deferred([&] {
    ++subscriptions;
    return Observable<int>::just(subscriptions);
  });
  auto mapped = source.map([](int x) { return x * 2; });
  EXPECT_EQ(0, subscriptions);
  Recorder<int> a, b;
  a.subscribe(mapped);
  b.subscribe(mapped);
  EXPECT_EQ((Ints{2}), a.values);
  EXPECT_EQ((Ints{4}), b.values);
}

TEST(Operators, MergeInterleavesAndCompletesAfterAllSources) {
  PublishSubject<int> a, b;
  Recorder<int> r;
  r.subscribe(Observable<int>::merge({a.asObservable(), b.asObservable()}));
  a.onNext(1);
  b.onNext(2);
  a.onCompleted();
  b.onNext(3);
  EXPECT_EQ(0, r.completed);
  b.onCompleted();
  EXPECT_EQ((Ints{1, 2, 3}), r.values);
  EXPECT_EQ(1, r.completed);
}

TEST(Operators, FlatMapErrorFromAnInnerDisposesEverything) {
  PublishSubject<int> outer;
  PublishSubject<int> inner1, inner2;
  Recorder<int> r;
  r.subscribe(outer.asObservable().flatMap(
      [&](int x) { return x == 1 ? inner1.asObservable() : inner2.asObservable(); }));
  outer.onNext(1);
  outer.onNext(2);
  inner1.onNext(10);
  inner2.onNext(20);
  inner2.onError(testError());
  EXPECT_EQ((Ints{10, 20}), r.values);
  EXPECT_EQ(1, r.errors);
  EXPECT_FALSE(outer.hasObservers());
  EXPECT_FALSE(inner1.hasObservers());
}

TEST(Operators, FlatMapAcceptsSingles) {
  Recorder<int> r;
  r.subscribe(
      Observable<int>::from({1, 2}).flatMap([](int x) { return Single<int>::just(x * 3); }));
  EXPECT_EQ((Ints{3, 6}), r.values);
  EXPECT_EQ(1, r.completed);
}

TEST(Operators, FlatMapLatestDisposesThePreviousInnerStream) {
  PublishSubject<int> outer;
  std::vector<PublishSubject<int>> inners(2);
  Recorder<int> r;
  r.subscribe(outer.asObservable().flatMapLatest(
      [&](int i) { return inners[static_cast<std::size_t>(i)].asObservable(); }));
  outer.onNext(0);
  inners[0].onNext(1);
  outer.onNext(1);
  EXPECT_FALSE(inners[0].hasObservers());
  inners[0].onNext(2);  // too late
  inners[1].onNext(3);
  outer.onCompleted();
  EXPECT_EQ(0, r.completed) << "waits for the current inner";
  inners[1].onCompleted();
  EXPECT_EQ((Ints{1, 3}), r.values);
  EXPECT_EQ(1, r.completed);
}

TEST(Operators, WithLatestFromDropsElementsBeforeTheFirstLatest) {
  PublishSubject<int> source;
  PublishSubject<std::string> other;
  Recorder<std::string> r;
  r.subscribe(source.asObservable().withLatestFrom(
      other.asObservable(), [](int i, const std::string& s) { return s + std::to_string(i); }));
  source.onNext(1);
  other.onNext("a");
  source.onNext(2);
  other.onNext("b");
  other.onCompleted();  // other's completion is not ours
  source.onNext(3);
  source.onCompleted();
  EXPECT_EQ((std::vector<std::string>{"a2", "b3"}), r.values);
  EXPECT_EQ(1, r.completed);
}

TEST(Operators, WithLatestFromPairsAndForwardsOthersError) {
  PublishSubject<int> source, other;
  Recorder<std::pair<int, int>> r;
  r.subscribe(source.asObservable().withLatestFrom(other.asObservable()));
  other.onNext(5);
  source.onNext(1);
  other.onError(testError());
  source.onNext(2);
  EXPECT_EQ((std::vector<std::pair<int, int>>{{1, 5}}), r.values);
  EXPECT_EQ(1, r.errors);
  EXPECT_FALSE(source.hasObservers());
}

TEST(Operators, TakeUntilCompletesOnTheOthersFirstElementOnly) {
  PublishSubject<int> source;
  PublishSubject<Unit> stop, silent;
  Recorder<int> r, untouched;
  r.subscribe(source.asObservable().takeUntil(stop.asObservable()));
  untouched.subscribe(source.asObservable().takeUntil(silent.asObservable()));
  source.onNext(1);
  silent.onCompleted();
  stop.onNext(Unit{});
  source.onNext(2);
  EXPECT_EQ((Ints{1}), r.values);
  EXPECT_EQ(1, r.completed);
  EXPECT_EQ((Ints{1, 2}), untouched.values);
  EXPECT_EQ(0, untouched.terminals());
  EXPECT_FALSE(stop.hasObservers());
}

TEST(Operators, CatchErrorSwitchesToTheHandlersSequence) {
  Recorder<int> r, justReturn;
  auto failing = Observable<int>::from({1}).concat(Observable<int>::error(testError()));
  r.subscribe(failing.catchError([](std::exception_ptr) { return Observable<int>::from({8, 9}); }));
  justReturn.subscribe(failing.catchErrorJustReturn(-1));
  EXPECT_EQ((Ints{1, 8, 9}), r.values);
  EXPECT_EQ(1, r.completed);
  EXPECT_EQ((Ints{1, -1}), justReturn.values);
}

TEST(Operators, RetryResubscribesTheRightNumberOfTimes) {
  int subscriptions = 0;
  auto failing = Observable<int>::deferred([&] {
    ++subscriptions;
    return Observable<int>::just(subscriptions).concat(Observable<int>::error(testError()));
  });
  Recorder<int> r;
  r.subscribe(failing.retry(3));
  EXPECT_EQ(3, subscriptions);
  EXPECT_EQ((Ints{1, 2, 3}), r.values);
  EXPECT_EQ(1, r.errors);

  subscriptions = 0;
  Recorder<int> forever;
  auto d = forever.subscribe(failing.retry().take(5));
  EXPECT_EQ(5, subscriptions) << "synchronous failures are retried in a loop, not by recursion";
  EXPECT_EQ(1, forever.completed);
}

TEST(Operators, MaterializeTurnsTerminalEventsIntoElements) {
  Recorder<Event<int>> r;
  auto error = testError();
  r.subscribe(Observable<int>::just(1).concat(Observable<int>::error(error)).materialize());
  ASSERT_EQ(2u, r.values.size());
  EXPECT_EQ(Event<int>::next(1), r.values[0]);
  EXPECT_EQ(error, r.values[1].error());
  EXPECT_EQ(1, r.completed);
}

TEST(Operators, DoCallbacksRunInOrderAndDisposeRunsOnce) {
  std::vector<std::string> log;
  auto source = Observable<int>::just(1)
                    .doOnSubscribe([&] { log.push_back("subscribe"); })
                    .doOnNext([&](const int&) { log.push_back("next"); })
                    .doOnCompleted([&] { log.push_back("completed"); })
                    .doOnDispose([&] { log.push_back("dispose"); });
  auto d = source.subscribe([](const int&) {});
  d.dispose();
  EXPECT_EQ((std::vector<std::string>{"subscribe", "next", "completed", "dispose"}), log);
}

TEST(Operators, AmbPicksTheFirstAndDisposesTheOthers) {
  PublishSubject<int> a, b;
  Recorder<int> r;
  r.subscribe(a.asObservable().amb(b.asObservable()));
  b.onNext(2);
  a.onNext(1);
  b.onCompleted();
  EXPECT_FALSE(a.hasObservers());
  EXPECT_EQ((Ints{2}), r.values);
  EXPECT_EQ(1, r.completed);
}

TEST(Operators, ShareRunsOneUpstreamSubscriptionForAllSubscribers) {
  int subscriptions = 0;
  PublishSubject<int> subject;
  auto shared = Observable<int>::deferred([&] {
                  ++subscriptions;
                  return subject.asObservable();
                }).share();
  Recorder<int> a, b;
  auto da = a.subscribe(shared);
  auto db = b.subscribe(shared);
  subject.onNext(1);
  EXPECT_EQ(1, subscriptions);
  da.dispose();
  EXPECT_TRUE(subject.hasObservers());
  db.dispose();
  EXPECT_FALSE(subject.hasObservers()) << "the last subscriber disconnects";
  b.subscribe(shared);
  EXPECT_EQ(2, subscriptions);
  EXPECT_EQ((Ints{1}), a.values);
}

TEST(Conversions, AsSingleFirstAndIgnoreElements) {
  std::exception_ptr none, many;
  int value = 0;
  Observable<int>::empty().asSingle().subscribe([](const int&) {}, [&](auto e) { none = e; });
  Observable<int>::from({1, 2}).asSingle().subscribe([](const int&) {}, [&](auto e) { many = e; });
  Observable<int>::just(4).asSingle().subscribe([&](const int& v) { value = v; });
  EXPECT_TRUE(isError<NoElementsError>(none));
  EXPECT_TRUE(isError<MoreThanOneElementError>(many));
  EXPECT_EQ(4, value);

  std::optional<std::optional<int>> first, firstOfEmpty;
  Observable<int>::from({5, 6}).first().subscribe([&](const auto& v) { first = v; });
  Observable<int>::empty().first().subscribe([&](const auto& v) { firstOfEmpty = v; });
  EXPECT_EQ(std::optional<int>(5), *first);
  EXPECT_EQ(std::nullopt, *firstOfEmpty);

  bool completed = false;
  Observable<int>::from({1, 2}).ignoreElements().subscribe([&] { completed = true; });
  EXPECT_TRUE(completed);
}

TEST(Conversions, SingleAndCompletableCompose) {
  std::string result;
  Single<int>::just(2)
      .map([](int x) { return x + 1; })
      .flatMap([](int x) { return Single<std::string>::just(std::to_string(x)); })
      .subscribe([&](const std::string& s) { result = s; });
  EXPECT_EQ("3", result);

  std::vector<int> log;
  auto step = [&](int i) {
    return Completable::create([&log, i](CompletableObserver o) {
      log.push_back(i);
      o.onCompleted();
      return Disposable();
    });
  };
  Recorder<int> r;
  r.subscribe(step(1).andThen(step(2)).andThen(Observable<int>::just(3)));
  EXPECT_EQ((Ints{1, 2}), log);
  EXPECT_EQ((Ints{3}), r.values);

  int recovered = 0;
  Single<int>::error(testError())
      .catchError([](std::exception_ptr) { return Single<int>::just(9); })
      .subscribe([&](const int& v) { recovered = v; });
  EXPECT_EQ(9, recovered);

  std::exception_ptr failed;
  Completable::error(testError()).andThen(step(5)).subscribe([] {}, [&](auto e) { failed = e; });
  EXPECT_TRUE(failed);
  EXPECT_EQ((Ints{1, 2}), log) << "andThen does not start after an error";
}

TEST(Conversions, SingleCreateDeliversOnlyTheFirstOutcome) {
  Recorder<int> r;
  r.subscribe(Single<int>::create([](SingleObserver<int> o) {
                o.onSuccess(1);
                o.onSuccess(2);
                o.onError(testError());
                return Disposable();
              }).asObservable());
  EXPECT_EQ((Ints{1}), r.values);
  EXPECT_EQ(1, r.completed);
  EXPECT_EQ(0, r.errors);
}

}  // namespace
}  // namespace kel::rx::testing
