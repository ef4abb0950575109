// SPDX-License-Identifier: Apache-2.0
//
// The GNU Scientific Library.
#include <gsl/gsl_cdf.h>
#include <gsl/gsl_qrng.h>
#include <gsl/gsl_sf_gamma.h>

#include <memory>

#include "bench/timing.h"

namespace bench {

namespace {

void time_sequence(int dimension) {
  const std::shared_ptr<gsl_qrng> generator(gsl_qrng_alloc(gsl_qrng_sobol, dimension),
                                            gsl_qrng_free);
  time_points(
      "gosobl/" + std::to_string(dimension) + "/gsl", dimension,
      [=] { gsl_qrng_init(generator.get()); },
      [at = generator.get()](double* point) { gsl_qrng_get(at, point); });
}

}  // namespace

void register_gsl() {
  time_normal_quantile("gsl", [](double p) { return gsl_cdf_ugaussian_Pinv(p); });
  time_normal_distribution("gsl", [](double x) { return gsl_cdf_ugaussian_P(x); });
  time_log_gamma("gsl", [](double a) { return gsl_sf_lngamma(a); });
  time_chi_square("gsl",
                  [](double df) { return [=](double x) { return gsl_cdf_chisq_P(x, df); }; });
  time_chi_square_quantile(
      "gsl", [](double df) { return [=](double p) { return gsl_cdf_chisq_Pinv(p, df); }; });
  for (const int dimension : dimensions) time_sequence(dimension);
}

}  // namespace bench
