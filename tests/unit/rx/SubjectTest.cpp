#include "RxTestSupport.h"

namespace kel::rx::testing {
namespace {

using Ints = std::vector<int>;

TEST(PublishSubject, MulticastsAndLateSubscribersGetOnlyTheTerminalEvent) {
  PublishSubject<int> subject;
  Recorder<int> a, b, late;
  a.subscribe(subject.asObservable());
  subject.onNext(1);
  b.subscribe(subject.asObservable());
  subject.onNext(2);
  subject.onError(testError());
  subject.onNext(3);
  late.subscribe(subject.asObservable());
  EXPECT_EQ((Ints{1, 2}), a.values);
  EXPECT_EQ((Ints{2}), b.values);
  EXPECT_TRUE(late.values.empty());
  EXPECT_EQ(1, a.errors);
  EXPECT_EQ(1, late.errors);
  EXPECT_FALSE(subject.hasObservers());
}

TEST(PublishSubject, FanOutDoesNotCopyTheElementPerObserver) {
  struct Counted {
    explicit Counted(int* c) : copies(c) {}
    Counted(const Counted& o) : copies(o.copies) { ++*copies; }
    Counted& operator=(const Counted&) = default;
    int* copies;
  };
  int copies = 0;
  PublishSubject<Counted> subject;
  std::vector<Disposable> subscriptions;
  for (int i = 0; i < 8; ++i)
    subscriptions.push_back(subject.asObservable().subscribe([](const Counted&) {}));
  subject.onNext(Counted(&copies));
  EXPECT_EQ(0, copies);
}

TEST(PublishSubject, ObserverDisposingAnotherDuringFanOutStopsDeliveryToIt) {
  PublishSubject<int> subject;
  Disposable second;
  Recorder<int> r;
  subject.asObservable().subscribe([&](const int&) { second.dispose(); });
  second = r.subscribe(subject.asObservable());
  subject.onNext(1);
  EXPECT_TRUE(r.values.empty());
}

TEST(PublishSubject, AsObserverFeedsTheSubject) {
  PublishSubject<int> subject;
  Recorder<int> r;
  r.subscribe(subject.asObservable());
  Observable<int>::from({1, 2}).subscribe(subject.asObserver());
  EXPECT_EQ((Ints{1, 2}), r.values);
  EXPECT_EQ(1, r.completed);
}

TEST(BehaviorSubject, ReplaysTheLatestValueToEachNewSubscriber) {
  BehaviorSubject<int> subject(0);
  Recorder<int> a, b;
  a.subscribe(subject.asObservable());
  subject.onNext(1);
  subject.onNext(2);
  b.subscribe(subject.asObservable());
  subject.onNext(3);
  EXPECT_EQ((Ints{0, 1, 2, 3}), a.values);
  EXPECT_EQ((Ints{2, 3}), b.values);
  EXPECT_EQ(3, subject.value());
}

TEST(BehaviorSubject, ReentrantEmissionDuringReplayArrivesAfterTheReplay) {
  BehaviorSubject<int> subject(0);
  std::vector<int> seen;
  subject.asObservable().subscribe([&](const int& v) {
    seen.push_back(v);
    if (v == 0) subject.onNext(1);
  });
  EXPECT_EQ((Ints{0, 1}), seen);
}

TEST(BehaviorSubject, AfterAnErrorValueThrowsAndSubscribersGetTheError) {
  BehaviorSubject<int> subject(1);
  subject.onError(testError("failed"));
  EXPECT_THROW(subject.value(), std::runtime_error);
  Recorder<int> late;
  late.subscribe(subject.asObservable());
  EXPECT_TRUE(late.values.empty());
  EXPECT_EQ(1, late.errors);
}

TEST(BehaviorRelay, NeverTerminatesAndKeepsTheLatestValue) {
  Recorder<Event<int>> r;
  {
    BehaviorRelay<int> relay(1);
    r.subscribe(relay.asObservable().materialize());
    for (int i = 2; i <= 5; ++i) relay.accept(i);
    EXPECT_EQ(5, relay.value());
    EXPECT_TRUE(relay.hasObservers());
  }
  ASSERT_EQ(5u, r.values.size());
  for (const auto& e : r.values) EXPECT_TRUE(e.isNext());
  EXPECT_EQ(0, r.terminals()) << "not even when the relay goes away";
}

}  // namespace
}  // namespace kel::rx::testing
