#include "ServerClient/Utils/WithUnretained.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "ServerClient/rx/Subjects.h"

namespace kel {
namespace {

struct Owner {
  int base = 100;
};

template <class T>
struct Outcome {
  std::optional<T> value;
  std::exception_ptr error;
};

TEST(WithUnretained, MapsWhileTheOwnerLivesAndFailsWithoutCallingTheSelectorOnceItIsGone) {
  auto owner = std::make_shared<Owner>();
  rx::PublishSubject<int> trigger;
  auto source = trigger.asObservable().take(1).asSingle();
  int selectorCalls = 0;
  auto chain = withUnretained(source, owner, [&](const std::shared_ptr<Owner>& o, int v) {
    ++selectorCalls;
    return o->base + v;
  });

  Outcome<int> alive;
  chain.subscribe([&](int v) { alive.value = v; }, [&](std::exception_ptr e) { alive.error = e; });
  Outcome<int> second;
  chain.subscribe([&](int v) { second.value = v; },
                  [&](std::exception_ptr e) { second.error = e; });

  // The chain itself must not keep the owner alive.
  std::weak_ptr<Owner> weak = owner;
  trigger.onNext(1);
  EXPECT_EQ(101, alive.value);
  EXPECT_EQ(2, selectorCalls);

  Outcome<int> late;
  auto pending = rx::PublishSubject<int>();
  withUnretained(pending.asObservable().take(1).asSingle(), owner,
                 [&](const std::shared_ptr<Owner>&, int v) {
                   ++selectorCalls;
                   return v;
                 })
      .subscribe([&](int v) { late.value = v; }, [&](std::exception_ptr e) { late.error = e; });
  owner.reset();
  EXPECT_TRUE(weak.expired());
  pending.onNext(5);
  EXPECT_EQ(2, selectorCalls);
  ASSERT_TRUE(late.error);
  EXPECT_THROW(std::rethrow_exception(late.error), UnretainedError);
}

TEST(WithUnretained, SelectorAndSourceFailuresAreTheStreamsFailure) {
  auto owner = std::make_shared<Owner>();
  std::exception_ptr selectorError;
  withUnretained(rx::Single<int>::just(1), owner, [](const std::shared_ptr<Owner>&, int) -> int {
    throw std::logic_error("bad");
  }).subscribe([](int) {}, [&](std::exception_ptr e) { selectorError = e; });
  EXPECT_THROW(std::rethrow_exception(selectorError), std::logic_error);

  auto sourceFailure = std::make_exception_ptr(std::runtime_error("down"));
  std::exception_ptr passed;
  withUnretained(rx::Single<int>::error(sourceFailure), owner)
      .subscribe([](const auto&) {}, [&](std::exception_ptr e) { passed = e; });
  EXPECT_EQ(sourceFailure, passed);

  std::pair<std::shared_ptr<Owner>, int> pair;
  withUnretained(rx::Single<int>::just(7), owner).subscribe([&](const auto& p) { pair = p; });
  EXPECT_EQ(owner, pair.first);
  EXPECT_EQ(7, pair.second);
}

}  // namespace
}  // namespace kel
