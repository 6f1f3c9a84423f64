#include "ServerClient/rx/SerialEmitter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

namespace kel::rx {
namespace {

TEST(SerialEmitter, AThrowingActionIsReportedWithoutWedgingTheQueue) {
  SerialEmitter emitter;
  std::vector<std::exception_ptr> reported;
  setUnhandledErrorHandler([&](std::exception_ptr e) { reported.push_back(e); });
  int ran = 0;
  emitter.run([&] {
    emitter.run([&] { ++ran; });
    throw std::runtime_error("boom");
  });
  emitter.run([&] { ++ran; });
  setUnhandledErrorHandler(nullptr);
  EXPECT_EQ(2, ran);
  EXPECT_EQ(1u, reported.size());
}

TEST(SerialEmitter, ProducersOnSeveralThreadsNeverOverlapAndLoseNothing) {
  SerialEmitter emitter;
  std::atomic<int> inside{0};
  int total = 0;  // unsynchronised on purpose: the emitter must serialise the increments
  bool overlapped = false;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        emitter.run([&] {
          if (inside.fetch_add(1) != 0) overlapped = true;
          ++total;
          inside.fetch_sub(1);
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(4 * 2000, total);
}

}  // namespace
}  // namespace kel::rx
