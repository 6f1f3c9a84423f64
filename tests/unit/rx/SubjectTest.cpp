#include "RxTestSupport.h"

namespace kel::rx::testing {
namespace {

using Ints = std::vector<int>;

TEST(PublishSubject, MulticastsAndLateSubscribersGetOnlyTheTerminalEvent) {
  PublishSubject<int> subject;
  Recorder<int> a(subject.asObservable());
  subject.onNext(1);
  Recorder<int> b(subject.asObservable());
  Observable<int>::from({2})
      .concat(Observable<int>::error(testError()))
      .subscribe(subject.asObserver());
  subject.onNext(3);
  Recorder<int> late(subject.asObservable());
  EXPECT_EQ("1 2 X", a.trace);
  EXPECT_EQ("2 X", b.trace);
  EXPECT_EQ("X", late.trace);
  EXPECT_FALSE(subject.hasObservers());
}

TEST(PublishSubject, ObserverDisposingAnotherDuringFanOutStopsDeliveryToIt) {
  PublishSubject<int> subject;
  Disposable second;
  Recorder<int> r;
  subject.asObservable().subscribe([&](const int&) { second.dispose(); });
  second = r.subscribe(subject.asObservable());
  subject.onNext(1);
  EXPECT_EQ("", r.trace);
}

// Releasing an observer runs whatever its callbacks captured; here that disposes another
// subscription of the same subject, which must not find the subject still locked.
TEST(PublishSubject, ReleasingAnObserverMayDisposeAnotherSubscriptionOfTheSameSubject) {
  PublishSubject<int> subject;
  Recorder<int> r;
  auto other = std::make_shared<Disposable>(r.subscribe(subject.asObservable()));
  struct DisposesOnRelease {
    explicit DisposesOnRelease(std::shared_ptr<Disposable> t) : target(std::move(t)) {}
    ~DisposesOnRelease() { target->dispose(); }
    std::shared_ptr<Disposable> target;
  };
  auto guard = std::make_shared<DisposesOnRelease>(other);
  auto self = std::make_shared<Disposable>();
  *self = subject.asObservable().subscribe([self, guard](const int&) { self->dispose(); });
  guard.reset();
  subject.onNext(1);  // the first subscriber leaves mid fan-out and is released after it
  subject.onNext(2);
  EXPECT_EQ("1", r.trace);
  EXPECT_FALSE(subject.hasObservers());
}

TEST(BehaviorSubject, ReplaysTheLatestValueFirstAndTheErrorOnceFailed) {
  BehaviorSubject<int> subject(0);
  Recorder<int> a(subject.asObservable());
  subject.onNext(1);
  subject.onNext(2);
  Recorder<int> b(subject.asObservable());
  subject.onNext(3);
  EXPECT_EQ("0 1 2 3", a.trace);
  EXPECT_EQ("2 3", b.trace);
  EXPECT_EQ(3, subject.value());

  // An emission made during the replay arrives after it.
  std::vector<int> seen;
  subject.asObservable().subscribe([&](const int& v) {
    seen.push_back(v);
    if (v == 3) subject.onNext(4);
  });
  EXPECT_EQ((Ints{3, 4}), seen);

  subject.onError(testError("failed"));
  EXPECT_THROW(subject.value(), std::runtime_error);
  EXPECT_EQ("X", Recorder<int>(subject.asObservable()).trace);
}

TEST(BehaviorRelay, NeverTerminatesAndKeepsTheLatestValue) {
  Recorder<int> r;
  {
    BehaviorRelay<int> relay(1);
    r.subscribe(relay.asObservable());
    for (int i = 2; i <= 5; ++i) relay.accept(i);
    EXPECT_EQ(5, relay.value());
  }
  EXPECT_EQ("1 2 3 4 5", r.trace) << "no end, not even when the relay goes away";
}

}  // namespace
}  // namespace kel::rx::testing
