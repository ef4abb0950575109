// SPDX-License-Identifier: Apache-2.0
//
// The distribution functions of this library and of the C++ standard library.
#include <cmath>

#include "bench/timing.h"
#include "statsubs/distributions/cdfchi.h"
#include "statsubs/distributions/cumnor.h"
#include "statsubs/distributions/gamma.h"
#include "statsubs/estep/normal_quantiles.h"
#include "statsubs/estep/proposals.h"

namespace bench {

namespace {

// cumnor and cdfchi give both tails at every call, their peers one.
double normal_distribution(double x) {
  double result = 0.0;
  double upper = 0.0;
  statsubs::cumnor(x, result, upper);
  return result;
}

auto chi_square_distribution(double df) {
  return [df](double x) mutable {
    double p = 0.0;
    double q = 0.0;
    double bound = 0.0;
    int status = 0;
    statsubs::cdfchi(1, p, q, x, df, status, bound);
    return p;
  };
}

auto chi_square_quantile(double df) {
  return [df](double p) mutable {
    double q = 1.0 - p;
    double x = 0.0;
    double bound = 0.0;
    int status = 0;
    statsubs::cdfchi(2, p, q, x, df, status, bound);
    return x;
  };
}

// The quantiles of a whole matrix, as the E-step takes them.
void time_matrix_of_quantiles() {
  const int count = argument_count;
  time_pass("dnorminv/uniform, a matrix/statsubs", count,
            [p = uniform(count, 0.0, 1.0), z = std::vector<double>(count)]() mutable {
              z = p;
              statsubs::normal_quantiles({z.data(), 1, argument_count});
              benchmark::DoNotOptimize(z.data());
              benchmark::ClobberMemory();
            });
}

}  // namespace

void register_distributions() {
  time_normal_quantile("statsubs", [](double p) { return statsubs::dnorminv(p); });
  time_matrix_of_quantiles();
  time_normal_distribution("statsubs", normal_distribution);
  time_log_gamma("statsubs", [](double a) { return statsubs::gamln(a); });
  time_chi_square("statsubs", chi_square_distribution);
  time_chi_square_quantile("statsubs", chi_square_quantile);

  time_normal_distribution("std", [](double x) { return 0.5 * std::erfc(-M_SQRT1_2 * x); });
  time_log_gamma("std", [](double a) { return std::lgamma(a); });
}

}  // namespace bench
