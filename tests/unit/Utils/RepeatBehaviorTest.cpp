#include "ServerClient/Utils/RepeatBehavior.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

#include "ServerClient/rx/TestScheduler.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using Times = std::vector<rx::Duration>;

class RepeatBehaviorTest : public ::testing::Test {
 protected:
  /// A source that fails at once on every subscription, recording when it was subscribed.
  rx::Observable<int> alwaysFailing() {
    return rx::Observable<int>::create([this](rx::Observer<int> observer) {
      subscriptions_.push_back(scheduler_->now() - rx::TimePoint{});
      observer.onError(std::make_exception_ptr(std::runtime_error("down")));
      return rx::Disposable();
    });
  }

  std::shared_ptr<rx::TestScheduler> scheduler_ = std::make_shared<rx::TestScheduler>();
  Times subscriptions_;
};

TEST_F(RepeatBehaviorTest, SubscribesMaxCountTimesInAllWaitingWholeSecondsThenFails) {
  const auto nan = [](std::uint64_t) { return std::nan(""); };
  const struct {
    const char* name;
    std::uint64_t firstAttempt;
    RepeatBehavior behavior;
    Times expected;
  } cases[] = {
      // The delayed form, thirty attempts two seconds apart, is KelServerTest's restore.
      {"immediate", 1, RepeatBehavior::immediate(3), {0s, 0s, 0s}},
      {"exponential", 1, RepeatBehavior::exponentialDelayed(4, 1.0, 1.0), {0s, 1s, 3s, 7s}},
      // 2, 3 and 4.5 seconds, fractions dropped.
      {"exponential 0.5", 1, RepeatBehavior::exponentialDelayed(4, 2.0, 0.5), {0s, 2s, 5s, 9s}},
      {"under a second", 1, RepeatBehavior::delayed(2, 0.5), {0s, 0s}},
      {"custom",
       1,
       RepeatBehavior::customTimerDelayed(3, [](std::uint64_t n) { return n * 10.0; }),
       {0s, 10s, 30s}},
      {"count already reached", 5, RepeatBehavior::immediate(5), {0s}},
      {"no attempts", 1, RepeatBehavior::immediate(0), {0s}},
      {"unusable delay", 1, RepeatBehavior::customTimerDelayed(5, nan), {0s}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    subscriptions_.clear();
    auto observer = scheduler_->createObserver<int>();
    const auto started = scheduler_->now() - rx::TimePoint{};
    retry(alwaysFailing(), c.firstAttempt, c.behavior, scheduler_).subscribe(observer);
    scheduler_->start();
    for (auto& time : subscriptions_) time -= started;
    EXPECT_EQ(c.expected, subscriptions_);
    ASSERT_EQ(1u, observer->events().size());
    EXPECT_TRUE(observer->events()[0].value.isError());
    EXPECT_EQ(scheduler_->now(), observer->events()[0].time) << "the last failure, at once";
  }
  EXPECT_EQ(kMaxRepeatDelay, detail::repeatDelay(1e300));
  EXPECT_EQ(std::nullopt, detail::repeatDelay(HUGE_VAL));
}

TEST_F(RepeatBehaviorTest, ASuccessfulAttemptEndsTheRetriesAndEachSubscriptionCountsAfresh) {
  int attempts = 0;
  auto flaky = rx::Observable<int>::create([&](rx::Observer<int> observer) {
    observer.onNext(++attempts);
    if (attempts < 3) {
      observer.onError(std::make_exception_ptr(std::runtime_error("down")));
    } else {
      observer.onCompleted();
    }
    return rx::Disposable();
  });
  auto again = scheduler_->createObserver<int>();
  auto retried = retry(flaky, 1, RepeatBehavior::immediate(2), scheduler_);
  retried.subscribe(again);
  EXPECT_TRUE(again->events().back().value.isError()) << "attempts 1 and 2 failed";
  retried.subscribe(again);
  EXPECT_TRUE(again->events().back().value.isCompleted()) << "a fresh count of 2, and 3 succeeds";
}

TEST_F(RepeatBehaviorTest, ManyImmediateRetriesOfASynchronousFailureKeepTheStackFlat) {
  bool failed = false;
  retry(alwaysFailing(), 1, RepeatBehavior::immediate(100000), scheduler_)
      .subscribe([](int) {}, [&](std::exception_ptr) { failed = true; });
  EXPECT_EQ(100000u, subscriptions_.size());
  EXPECT_TRUE(failed);
}

TEST_F(RepeatBehaviorTest, DisposingCancelsThePendingWait) {
  auto subscription = retry(alwaysFailing(), 1, RepeatBehavior::delayed(30, 2.0), scheduler_)
                          .subscribe([](int) {}, [](std::exception_ptr) {});
  scheduler_->advanceBy(3s);
  EXPECT_EQ(2u, subscriptions_.size());
  subscription.dispose();
  EXPECT_EQ(0u, scheduler_->pendingCount());
  scheduler_->start();
  EXPECT_EQ(2u, subscriptions_.size());
}

}  // namespace
}  // namespace kel
