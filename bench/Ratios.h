#pragma once

#include <string>

namespace kel::bench {

/// Declares that `library` is measured against `baseline` in the same run; the report ends
/// with the ratio of their times per iteration (the median over repetitions), beside the
/// library's target from the table in BenchMain.cpp.
void compare(std::string library, std::string baseline);

/// Declares a row `row` comparing the user counter `counter` (a percentile, say) of benchmark
/// `library` with the same counter of `baseline`, each the median over repetitions.
void compareCounter(std::string row, std::string library, std::string baseline,
                    std::string counter);

/// Adds a ratio that is not a time: `libraryValue` of `library` against `baselineValue` of
/// `baseline` (bytes of heap, say). Called from inside a benchmark, once per repetition; the
/// report shows the median. A zero baseline makes the row an absolute figure (a count whose
/// target is itself, wake-ups for instance).
void record(const std::string& library, const std::string& baseline, double libraryValue,
            double baselineValue);

}  // namespace kel::bench

/// Registers a compareCounter() row at static-initialisation time.
#define KEL_BENCH_COMPARE_COUNTER(row, library, baseline, counter)     \
  static const bool kelCompare_##row = [] {                            \
    ::kel::bench::compareCounter(#row, #library, #baseline, #counter); \
    return true;                                                       \
  }()

/// Registers the pair at static-initialisation time, beside the two BENCHMARK()s.
#define KEL_BENCH_COMPARE(library, baseline)    \
  static const bool kelCompare_##library = [] { \
    ::kel::bench::compare(#library, #baseline); \
    return true;                                \
  }()
