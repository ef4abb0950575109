// SPDX-License-Identifier: Apache-2.0
//
// R's stand-alone mathematics library. Its header defines macros under short names, so it comes
// last.
#include "bench/timing.h"

#define MATHLIB_STANDALONE
#include <Rmath.h>

namespace bench {

void register_rmath() {
  constexpr int lower = 1;
  constexpr int plain = 0;
  time_normal_quantile("R", [](double p) { return qnorm(p, 0.0, 1.0, lower, plain); });
  time_normal_distribution("R", [](double x) { return pnorm(x, 0.0, 1.0, lower, plain); });
  time_log_gamma("R", [](double a) { return lgammafn(a); });
  time_chi_square("R",
                  [](double df) { return [=](double x) { return pchisq(x, df, lower, plain); }; });
  time_chi_square_quantile(
      "R", [](double df) { return [=](double p) { return qchisq(p, df, lower, plain); }; });
}

}  // namespace bench
