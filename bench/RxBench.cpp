// The reactive core's cost per element: every socket frame crosses a subject and a few operators.

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <functional>

#include "Ratios.h"
#include "ServerClient/rx/Rx.h"

namespace {

constexpr int kElements = 1024;

auto triple = [](std::int64_t v) { return v * 3; };
auto odd = [](std::int64_t v) { return (v & 1) != 0; };
auto plusOne = [](std::int64_t v) { return v + 1; };

void RxMapFilterChain(benchmark::State& state) {
  kel::rx::PublishSubject<std::int64_t> subject;
  std::int64_t sum = 0;
  auto subscription = subject.asObservable().map(triple).filter(odd).map(plusOne).subscribe(
      [&sum](const std::int64_t& v) { sum += v; });
  for (auto _ : state) {
    for (std::int64_t i = 0; i < kElements; ++i) subject.onNext(i);
    benchmark::DoNotOptimize(sum);
  }
  subscription.dispose();
  state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(RxMapFilterChain);

// Baseline: the same functions in a plain loop, behind one indirect call as a subscriber is.
void BaselineMapFilterLoop(benchmark::State& state) {
  std::int64_t sum = 0;
  std::function<void(std::int64_t)> sink = [&sum](std::int64_t v) { sum += v; };
  for (auto _ : state) {
    for (std::int64_t i = 0; i < kElements; ++i) {
      auto v = triple(i);
      if (odd(v)) sink(plusOne(v));
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(BaselineMapFilterLoop);
KEL_BENCH_COMPARE(RxMapFilterChain, BaselineMapFilterLoop);

void RxSubjectFanOut8(benchmark::State& state) {
  kel::rx::PublishSubject<std::int64_t> subject;
  std::array<std::int64_t, 8> sums{};
  kel::rx::DisposeBag bag;
  for (auto& s : sums)
    subject.asObservable().subscribe([&s](const std::int64_t& v) { s += v; }).disposed(bag);
  for (auto _ : state) {
    for (std::int64_t i = 0; i < kElements; ++i) subject.onNext(i);
    benchmark::DoNotOptimize(sums);
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(RxSubjectFanOut8);

// Baseline: calling eight callbacks in a loop.
void BaselineFanOut8Loop(benchmark::State& state) {
  std::array<std::int64_t, 8> sums{};
  std::array<std::function<void(std::int64_t)>, 8> callbacks;
  for (std::size_t k = 0; k < 8; ++k) callbacks[k] = [&sums, k](std::int64_t v) { sums[k] += v; };
  for (auto _ : state) {
    for (std::int64_t i = 0; i < kElements; ++i) {
      for (auto& callback : callbacks) callback(i);
    }
    benchmark::DoNotOptimize(sums);
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(BaselineFanOut8Loop);
KEL_BENCH_COMPARE(RxSubjectFanOut8, BaselineFanOut8Loop);

}  // namespace
