// SPDX-License-Identifier: Apache-2.0
//
// The index sort, and the same by std::sort of the C++ standard library.
#include <algorithm>
#include <numeric>

#include "bench/timing.h"
#include "statsubs/stats/qsortr8.h"

namespace bench {

namespace {

void standard_sort(int n, const double* data, int* index) {
  std::iota(index, index + n, 1);
  std::sort(index, index + n, [=](int a, int b) { return data[a - 1] < data[b - 1]; });
}

}  // namespace

void register_sorting() {
  time_sort("statsubs", statsubs::qsortr8);
  time_sort("std", standard_sort);
}

}  // namespace bench
