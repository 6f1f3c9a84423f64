#include "ServerClient/Utils/RepeatBehavior.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "ServerClient/rx/TestScheduler.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using rx::TestScheduler;

void ignore(int) {}
void ignoreError(std::exception_ptr) {}

std::exception_ptr failure(const char* what = "down") {
  return std::make_exception_ptr(std::runtime_error(what));
}

class RepeatBehaviorTest : public ::testing::Test {
 protected:
  /// A source that fails at once on every subscription, recording when it was subscribed.
  rx::Observable<int> alwaysFailing() {
    return rx::Observable<int>::create([this](rx::Observer<int> observer) {
      subscriptions_.push_back(scheduler_->now() - rx::TimePoint{});
      observer.onError(failure());
      return rx::Disposable();
    });
  }
  std::vector<rx::Duration> subscriptionTimes() const { return subscriptions_; }

  std::shared_ptr<TestScheduler> scheduler_ = std::make_shared<TestScheduler>();
  std::vector<rx::Duration> subscriptions_;
};

TEST_F(RepeatBehaviorTest, ConditionsPerKind) {
  EXPECT_EQ((RepeatBehavior::Conditions{3, 0}), RepeatBehavior::immediate(3).conditions(2));
  EXPECT_EQ((RepeatBehavior::Conditions{30, 2.0}), RepeatBehavior::delayed(30, 2.0).conditions(7));
  auto exponential = RepeatBehavior::exponentialDelayed(4, 1.0, 1.0);
  EXPECT_EQ(1.0, exponential.conditions(1).delay);
  EXPECT_EQ(2.0, exponential.conditions(2).delay);
  EXPECT_EQ(4.0, exponential.conditions(3).delay);
  EXPECT_EQ(0.5 * 1.5 * 1.5, RepeatBehavior::exponentialDelayed(9, 0.5, 0.5).conditions(3).delay);
  auto custom = RepeatBehavior::customTimerDelayed(5, [](std::uint64_t n) { return n * 10.0; });
  EXPECT_EQ((RepeatBehavior::Conditions{5, 30.0}), custom.conditions(3));
}

TEST_F(RepeatBehaviorTest, DelayedMakesAtMostMaxCountSubscriptionsTwoSecondsApart) {
  auto observer = scheduler_->createObserver<int>();
  retry(alwaysFailing(), 1, RepeatBehavior::delayed(30, 2.0), scheduler_).subscribe(observer);
  scheduler_->start();

  auto times = subscriptionTimes();
  ASSERT_EQ(30u, times.size());
  for (std::size_t i = 0; i < times.size(); ++i) EXPECT_EQ(2s * i, times[i]) << i;
  ASSERT_EQ(1u, observer->events().size());
  EXPECT_TRUE(observer->events()[0].value.isError());
  EXPECT_EQ(TestScheduler::at(58s), observer->events()[0].time) << "the 30th failure, unchanged";
}

TEST_F(RepeatBehaviorTest, ExponentialWaitsOneTwoFourSeconds) {
  auto observer = scheduler_->createObserver<int>();
  retry(alwaysFailing(), 1, RepeatBehavior::exponentialDelayed(4, 1.0, 1.0), scheduler_)
      .subscribe(observer);
  scheduler_->start();
  EXPECT_EQ((std::vector<rx::Duration>{0s, 1s, 3s, 7s}), subscriptionTimes());
}

TEST_F(RepeatBehaviorTest, FractionsOfASecondAreDropped) {
  retry(alwaysFailing(), 1, RepeatBehavior::delayed(3, 1.5), scheduler_)
      .subscribe(ignore, ignoreError);
  scheduler_->start();
  EXPECT_EQ((std::vector<rx::Duration>{0s, 1s, 2s}), subscriptionTimes());

  // Half a second is no whole second: the retry still goes through the scheduler, at once.
  subscriptions_.clear();
  retry(alwaysFailing(), 1, RepeatBehavior::delayed(2, 0.5), scheduler_)
      .subscribe(ignore, ignoreError);
  EXPECT_EQ(1u, subscriptionTimes().size());
  scheduler_->advanceBy(0s);
  EXPECT_EQ(2u, subscriptionTimes().size());
}

TEST_F(RepeatBehaviorTest, ThePredicateAndTheCountCanRefuse) {
  std::vector<std::string> asked;
  auto refuseAll = [&](std::exception_ptr e) {
    try {
      std::rethrow_exception(e);
    } catch (const std::exception& error) {
      asked.emplace_back(error.what());
    }
    return false;
  };
  auto observer = scheduler_->createObserver<int>();
  retry(alwaysFailing(), 1, RepeatBehavior::immediate(10), scheduler_, refuseAll)
      .subscribe(observer);
  scheduler_->start();
  EXPECT_EQ(1u, subscriptionTimes().size());
  EXPECT_EQ(std::vector<std::string>{"down"}, asked);
  EXPECT_TRUE(observer->events().back().value.isError());

  // An attempt number already at maxCount passes the first error on.
  subscriptions_.clear();
  retry(alwaysFailing(), 5, RepeatBehavior::immediate(5), scheduler_)
      .subscribe(ignore, ignoreError);
  EXPECT_EQ(1u, subscriptionTimes().size());
  subscriptions_.clear();
  retry(alwaysFailing(), 1, RepeatBehavior::immediate(0), scheduler_)
      .subscribe(ignore, ignoreError);
  EXPECT_EQ(1u, subscriptionTimes().size());
}

TEST_F(RepeatBehaviorTest, UnusableDelaysPassTheErrorOn) {
  auto nan = RepeatBehavior::customTimerDelayed(5, [](std::uint64_t) { return std::nan(""); });
  auto observer = scheduler_->createObserver<int>();
  retry(alwaysFailing(), 1, nan, scheduler_).subscribe(observer);
  scheduler_->start();
  EXPECT_EQ(1u, subscriptionTimes().size());
  EXPECT_TRUE(observer->events().back().value.isError());

  EXPECT_EQ(kMaxRepeatDelay, detail::repeatDelay(1e300));
  EXPECT_EQ(std::nullopt, detail::repeatDelay(HUGE_VAL));
}

TEST_F(RepeatBehaviorTest, ElementsPassAndASuccessfulAttemptEndsTheRetries) {
  int attempts = 0;
  auto flaky = rx::Observable<int>::create([&](rx::Observer<int> observer) {
    observer.onNext(++attempts);
    if (attempts < 3) {
      observer.onError(failure());
    } else {
      observer.onCompleted();
    }
    return rx::Disposable();
  });
  auto observer = scheduler_->createObserver<int>();
  retry(flaky, 1, RepeatBehavior::delayed(30, 2.0), scheduler_).subscribe(observer);
  scheduler_->start();
  EXPECT_EQ((std::vector<int>{1, 2, 3}), observer->values());
  EXPECT_TRUE(observer->events().back().value.isCompleted());
  EXPECT_EQ(TestScheduler::at(4s), observer->events().back().time);

  // Each subscription counts its own attempts.
  attempts = 0;
  auto again = scheduler_->createObserver<int>();
  auto retried = retry(flaky, 1, RepeatBehavior::immediate(2), scheduler_);
  retried.subscribe(again);
  EXPECT_TRUE(again->events().back().value.isError()) << "attempts 1 and 2 failed";
  retried.subscribe(again);
  EXPECT_TRUE(again->events().back().value.isCompleted()) << "a fresh count of 2, and 3 succeeds";
}

TEST_F(RepeatBehaviorTest, ManyImmediateRetriesOfASynchronousFailureKeepTheStackFlat) {
  int attempts = 0;
  auto failing = rx::Observable<int>::create([&](rx::Observer<int> observer) {
    ++attempts;
    observer.onError(failure());
    return rx::Disposable();
  });
  bool failed = false;
  retry(failing, 1, RepeatBehavior::immediate(100000), scheduler_)
      .subscribe([](int) {}, [&](std::exception_ptr) { failed = true; });
  EXPECT_EQ(100000, attempts);
  EXPECT_TRUE(failed);
}

TEST_F(RepeatBehaviorTest, DisposingCancelsThePendingWait) {
  auto subscription = retry(alwaysFailing(), 1, RepeatBehavior::delayed(30, 2.0), scheduler_)
                          .subscribe(ignore, ignoreError);
  scheduler_->advanceBy(3s);
  EXPECT_EQ(2u, subscriptionTimes().size());
  subscription.dispose();
  scheduler_->start();
  EXPECT_EQ(2u, subscriptionTimes().size());
  EXPECT_EQ(0u, scheduler_->pendingCount());
}

}  // namespace
}  // namespace kel
