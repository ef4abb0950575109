// SPDX-License-Identifier: Apache-2.0
//
// Boost.Math in double precision throughout ("boost double") and as it comes, evaluating in long
// double ("boost").
#include <boost/math/distributions/normal.hpp>
#include <boost/math/special_functions/gamma.hpp>

#include "bench/timing.h"

namespace bench {

namespace {

namespace bp = boost::math::policies;
using in_double = bp::policy<bp::promote_double<false>>;
using promoted = bp::policy<>;

template <class Policy>
void time_library(const std::string& library) {
  const Policy policy;
  const boost::math::normal_distribution<double, Policy> standard;
  time_normal_quantile(library, [=](double p) { return quantile(standard, p); });
  time_normal_distribution(library, [=](double x) { return cdf(standard, x); });
  time_log_gamma(library, [=](double a) { return boost::math::lgamma(a, policy); });
  time_chi_square(library, [=](double df) {
    return [=](double x) { return boost::math::gamma_p(0.5 * df, 0.5 * x, policy); };
  });
  time_chi_square_quantile(library, [=](double df) {
    return [=](double p) { return 2.0 * boost::math::gamma_p_inv(0.5 * df, p, policy); };
  });
}

}  // namespace

void register_boost() {
  time_library<in_double>("boost double");
  time_library<promoted>("boost");
}

}  // namespace bench
