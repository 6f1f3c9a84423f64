#pragma once

#include <string>

namespace kel::bench {

/// Declares that `library` is measured against `baseline` in the same run; the report ends
/// with the ratio of their times per iteration.
void compare(std::string library, std::string baseline);

}  // namespace kel::bench

/// Registers the pair at static-initialisation time, beside the two BENCHMARK()s.
#define KEL_BENCH_COMPARE(library, baseline)    \
  static const bool kelCompare_##library = [] { \
    ::kel::bench::compare(#library, #baseline); \
    return true;                                \
  }()
