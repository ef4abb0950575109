// SPDX-License-Identifier: Apache-2.0
//
// Times the library's leaf routines beside their peers in one process. bench/routines.py runs it
// and prints the ratios.
#include "bench/timing.h"

namespace bench {

// Stand in for the libraries that were not found when the program was configured.
__attribute__((weak)) void register_gsl() {}
__attribute__((weak)) void register_rmath() {}

}  // namespace bench

int main(int argc, char** argv) {
  bench::register_distributions();
  bench::register_sequences();
  bench::register_sorting();
  bench::register_boost();
  bench::register_gsl();
  bench::register_rmath();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
