// SPDX-License-Identifier: Apache-2.0
//
// The Sobol sequence: a point, and the set-up with both scramblings.
#include "bench/timing.h"
#include "statsubs/sequences/sobol.h"

namespace bench {

namespace {

constexpr int most_points = (1 << 30) - 1;

void start_sequence(int dimension, int digits, int scramble) {
  bool ok[2];
  int quality = 0;
  double point[40];
  statsubs::insobl(ok, dimension, most_points, quality, point, digits, scramble);
  benchmark::DoNotOptimize(point[0]);
}

}  // namespace

void register_sequences() {
  statsubs::poly_vinit_define();
  for (const int dimension : dimensions)
    time_points(
        "gosobl/" + std::to_string(dimension) + "/statsubs", dimension,
        [=] { start_sequence(dimension, 30, 1); }, statsubs::gosobl);
  time_pass("insobl/40 dimensions, 30 digits, type 3/statsubs", 1,
            [] { start_sequence(40, 30, 3); });
}

}  // namespace bench
