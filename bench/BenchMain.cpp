// Runs every benchmark, then prints each library path's time as a ratio of the plain baseline
// that was measured in the same run, so the figures stay comparable across machines.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Ratios.h"

namespace kel::bench {

namespace {

std::vector<std::pair<std::string, std::string>>& pairs() {
  static std::vector<std::pair<std::string, std::string>> all;
  return all;
}

class RatioReporter final : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        nanosPerIteration_[run.run_name.function_name] =
            run.GetAdjustedRealTime() * benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
            benchmark::GetTimeUnitMultiplier(run.time_unit);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\n%-40s %12s %12s %8s\n", "library vs baseline", "library ns", "baseline ns",
                "ratio");
    for (const auto& [library, baseline] : pairs()) {
      auto l = nanosPerIteration_.find(library);
      auto b = nanosPerIteration_.find(baseline);
      if (l == nanosPerIteration_.end() || b == nanosPerIteration_.end()) continue;
      std::printf("%-40s %12.1f %12.1f %8.2f\n", library.c_str(), l->second, b->second,
                  l->second / b->second);
    }
  }

 private:
  std::map<std::string, double> nanosPerIteration_;
};

}  // namespace

void compare(std::string library, std::string baseline) {
  pairs().emplace_back(std::move(library), std::move(baseline));
}

}  // namespace kel::bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  kel::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
