// Runs every benchmark, then prints each library path's cost as a ratio of the plain baseline
// that was measured in the same run, so the figures stay comparable across machines, beside the
// ratio it should stay under. --ratios_json=PATH also writes that table as JSON.

#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Ratios.h"

namespace kel::bench {

namespace {

/// The ratio each library path should stay at or under. One table for every benchmark file, so
/// that the targets are read and changed in one place.
const std::map<std::string, double>& targets() {
  static const std::map<std::string, double> all = {
      {"RxSubjectFanOut8", 1.5},
      {"RxMapFilterChain", 3.0},
      {"RequestToMessage", 1.3},
      {"PresenceBurstThroughHandlers", 1.5},
      {"IdleFacadeHeap", 1.5},
      {"IdleFacadeExtraWakeups", 0.0},
      {"MetricsRecordingPerRequest", 0.02},
      {"RoundTripWithMetrics", 1.10},
      {"RoundTripP50", 1.10},
      {"RoundTripP99", 1.3},
      {"SocketClientRoundTripBusyCores", 1.5},
      // Time for the same 10,000 requests: at least 0.9 of raw pipelining's throughput.
      {"SocketClientThroughput", 1 / 0.9},
      {"BytesPerPendingRequest", 1024},
  };
  return all;
}

struct Row {
  std::string library;
  std::string baseline;
  std::vector<double> libraryValues;
  std::vector<double> baselineValues;
};

std::mutex& recordMutex() {
  static std::mutex mutex;
  return mutex;
}

// Pairs declared with compare(), in declaration order.
std::vector<std::pair<std::string, std::string>>& pairs() {
  static std::vector<std::pair<std::string, std::string>> all;
  return all;
}

struct CounterRow {
  std::string row;
  std::string library;
  std::string baseline;
  std::string counter;
};

// Rows declared with compareCounter(), in declaration order.
std::vector<CounterRow>& counterRows() {
  static std::vector<CounterRow> all;
  return all;
}

// Rows added with record(), keyed by library name; guarded by recordMutex().
std::vector<Row>& recorded() {
  static std::vector<Row> all;
  return all;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

class RatioReporter final : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(std::optional<std::string> jsonPath) : jsonPath_(std::move(jsonPath)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.error_occurred) continue;
      const double nanos = run.GetAdjustedRealTime() *
                           benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                           benchmark::GetTimeUnitMultiplier(run.time_unit);
      const auto& name = run.run_name.function_name;
      if (run.run_type == Run::RT_Iteration) {
        repetitions_[name].push_back(nanos);
        for (const auto& [counter, value] : run.counters) {
          counters_[name][counter].push_back(value.value);
        }
      } else if (run.aggregate_name == "median") {
        medians_[name] = nanos;
        for (const auto& [counter, value] : run.counters) {
          counterMedians_[name][counter] = value.value;
        }
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    nlohmann::json rows = nlohmann::json::array();
    std::printf("\n%-30s %-24s %14s %14s %8s %7s\n", "library", "baseline", "library", "baseline",
                "ratio", "target");
    auto print = [&rows](const std::string& library, const std::string& baseline, double l,
                         double b, const char* unit) {
      auto target = targets().find(library);
      const bool absolute = b == 0;
      const double ratio = absolute ? l : l / b;
      char targetText[16] = "-";
      if (target != targets().end()) {
        std::snprintf(targetText, sizeof targetText, "%.2f", target->second);
      }
      const bool met = target == targets().end() || ratio <= target->second;
      std::printf("%-30s %-24s %11.1f %-2s %11.1f %-2s %8.2f %7s%s\n", library.c_str(),
                  baseline.c_str(), l, unit, b, unit, ratio, targetText, met ? "" : "  (over)");
      nlohmann::json row = {
          {"library", library}, {"baseline", baseline}, {"libraryValue", l}, {"baselineValue", b},
          {"unit", unit},       {"ratio", ratio},       {"target", nullptr}, {"met", met}};
      if (target != targets().end()) row["target"] = target->second;
      rows.push_back(std::move(row));
    };
    for (const auto& [library, baseline] : pairs()) {
      auto l = nanos(library);
      auto b = nanos(baseline);
      if (l && b) print(library, baseline, *l, *b, "ns");
    }
    for (const auto& row : counterRows()) {
      auto l = counter(row.library, row.counter);
      auto b = counter(row.baseline, row.counter);
      if (l && b) print(row.row, row.baseline + " " + row.counter, *l, *b, "");
    }
    {
      std::lock_guard lock(recordMutex());
      for (const auto& row : recorded()) {
        print(row.library, row.baseline, median(row.libraryValues), median(row.baselineValues), "");
      }
    }
    if (jsonPath_) {
      std::ofstream out(*jsonPath_);
      out << rows.dump(2) << '\n';
      if (!out) std::fprintf(stderr, "could not write %s\n", jsonPath_->c_str());
    }
  }

 private:
  // The median over repetitions, whichever way the runs were reported.
  std::optional<double> nanos(const std::string& name) const {
    if (auto it = medians_.find(name); it != medians_.end()) return it->second;
    if (auto it = repetitions_.find(name); it != repetitions_.end() && !it->second.empty()) {
      return median(it->second);
    }
    return std::nullopt;
  }

  // The median over repetitions, whichever way the runs were reported.
  std::optional<double> counter(const std::string& name, const std::string& counter) const {
    if (auto benchmark = counterMedians_.find(name); benchmark != counterMedians_.end()) {
      if (auto value = benchmark->second.find(counter); value != benchmark->second.end()) {
        return value->second;
      }
    }
    auto benchmark = counters_.find(name);
    if (benchmark == counters_.end()) return std::nullopt;
    auto values = benchmark->second.find(counter);
    if (values == benchmark->second.end() || values->second.empty()) return std::nullopt;
    return median(values->second);
  }

  std::optional<std::string> jsonPath_;
  std::map<std::string, std::vector<double>> repetitions_;
  std::map<std::string, std::map<std::string, std::vector<double>>> counters_;
  std::map<std::string, std::map<std::string, double>> counterMedians_;
  std::map<std::string, double> medians_;
};

}  // namespace

void compare(std::string library, std::string baseline) {
  pairs().emplace_back(std::move(library), std::move(baseline));
}

void compareCounter(std::string row, std::string library, std::string baseline,
                    std::string counter) {
  counterRows().push_back(
      {std::move(row), std::move(library), std::move(baseline), std::move(counter)});
}

void record(const std::string& library, const std::string& baseline, double libraryValue,
            double baselineValue) {
  std::lock_guard lock(recordMutex());
  auto& rows = recorded();
  auto it = std::find_if(rows.begin(), rows.end(),
                         [&library](const Row& row) { return row.library == library; });
  if (it == rows.end()) it = rows.insert(rows.end(), Row{library, baseline, {}, {}});
  it->libraryValues.push_back(libraryValue);
  it->baselineValues.push_back(baselineValue);
}

}  // namespace kel::bench

int main(int argc, char** argv) {
  // Our one flag goes before Google Benchmark sees the rest.
  std::optional<std::string> jsonPath;
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    constexpr const char* kFlag = "--ratios_json=";
    if (std::strncmp(argv[i], kFlag, std::strlen(kFlag)) == 0) {
      jsonPath = argv[i] + std::strlen(kFlag);
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  kel::bench::RatioReporter reporter(std::move(jsonPath));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
