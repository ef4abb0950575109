// SPDX-License-Identifier: Apache-2.0
#include "statsubs/state/host.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "statsubs/support/array.h"
#include "statsubs/support/parallel.h"

namespace statsubs {

namespace {

[[noreturn]] void missing(const char* name) {
  std::fprintf(stderr, "statsubs: the host callable '%s' was called but never installed\n", name);
  support::abort_job(EXIT_FAILURE);
}

// One function per callable, so that each has the signature of its table entry.
namespace absent {
#define STATSUBS_ABSENT(result, name, parameters, arguments) \
  [[noreturn]] result name parameters {                      \
    missing(#name);                                          \
  }
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-parameter"
#endif
STATSUBS_HOST_CALLABLES(STATSUBS_ABSENT)
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
#undef STATSUBS_ABSENT
}  // namespace absent

namespace helper {

int isgoodr8(const double& x) {
  return std::isfinite(x) ? 1 : 0;
}

double pow(const double& x, const double& y) {
  return std::pow(x, y);
}

// A counter, mixed by the finaliser of splitmix64 (Steele, Lea and Flood 2014): any state gives a
// stream of period 2^32 without warm-up.
double dran3(int& state) {
  const auto counter = static_cast<std::uint32_t>(state);
  state = static_cast<int>(counter + 1);
  std::uint64_t z = counter * 0x9e3779b97f4a7c15U;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
  z ^= z >> 31;
  return (static_cast<double>(z >> 12) + 0.5) * 0x1p-52;
}

void diag_2d(const int& n, const double* a, double* d) {
  const matrix_view<const double> from(a, n, n);
  const matrix_view<double> to(d, n, n);
  for (int j = 1; j <= n; ++j)
    for (int i = 1; i <= n; ++i) to(i, j) = i == j ? from(i, j) : 0.0;
}

// A zero pivot gives 0 for its element.
void forward_substitution(const int& m, const double* a, double* b) {
  const matrix_view<const double> lower(a, m, m);
  const vector_view<double> x(b, m);
  for (int i = 1; i <= m; ++i) {
    double rest = x(i);
    for (int j = 1; j < i; ++j) rest -= lower(i, j) * x(j);
    x(i) = lower(i, i) == 0.0 ? 0.0 : rest / lower(i, i);
  }
}

int findloc1ddim1_i32(const int* values, const int& n, const int& value) {
  for (int i = 0; i < n; ++i)
    if (values[i] == value) return i + 1;
  return 0;
}

}  // namespace helper

}  // namespace

host_table default_host() {
  host_table table{};
  table.size = static_cast<int>(sizeof table);
  table.version = host_table::current_version;
#define STATSUBS_ENTRY(result, name, parameters, arguments) table.name = absent::name;
  STATSUBS_HOST_CALLABLES(STATSUBS_ENTRY)
#undef STATSUBS_ENTRY
  table.isgoodr8 = helper::isgoodr8;
  table.dran3 = helper::dran3;
  table.pow = helper::pow;
  table.diag_2d = helper::diag_2d;
  table.forward_substitution = helper::forward_substitution;
  table.findloc1ddim1_i32 = helper::findloc1ddim1_i32;
  table.fcnxetas = nullptr;
  return table;
}

host_table& installed_host() {
  static host_table table = default_host();
  return table;
}

}  // namespace statsubs
