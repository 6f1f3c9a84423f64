#include "ServerClient/Utils/WithUnretained.h"

#include <gtest/gtest.h>

#include "ServerClient/rx/Subjects.h"

namespace kel {
namespace {

TEST(WithUnretained, MapsWhileTheOwnerLivesAndFailsWithoutCallingTheSelectorOnceItIsGone) {
  auto owner = std::make_shared<int>(100);
  std::weak_ptr<int> weak = owner;
  rx::PublishSubject<int> trigger;
  int selectorCalls = 0;
  std::vector<int> values;
  std::exception_ptr error;
  auto chain =
      withUnretained(trigger.asObservable(), owner, [&](const std::shared_ptr<int>& o, int v) {
        ++selectorCalls;
        return *o + v;
      });
  chain.subscribe([&](int v) { values.push_back(v); }, [&](std::exception_ptr e) { error = e; });
  trigger.onNext(1);
  owner.reset();
  EXPECT_TRUE(weak.expired()) << "the chain must not keep its owner alive";
  trigger.onNext(2);
  EXPECT_EQ(std::vector<int>{101}, values);
  EXPECT_EQ(1, selectorCalls);
  EXPECT_THROW(std::rethrow_exception(error), UnretainedError);
}

}  // namespace
}  // namespace kel
