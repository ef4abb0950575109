// SPDX-License-Identifier: Apache-2.0
#include "statsubs/estep/sample_points.h"

#include <algorithm>
#include <cassert>
#include <cstddef>

#include "statsubs/estep/proposals.h"
#include "statsubs/sequences/bdsobl.h"
#include "statsubs/sequences/sobol.h"
#include "statsubs/state/host.h"

namespace statsubs {

namespace bd = statsubs::bdsobl;

namespace {

// Keeps quantiles finite and the proposals' tails within 4.75 standard deviations. What is not a
// number becomes the lower limit.
double clamped(double u) {
  return std::min(std::max(1e-6, u), 0.999999);
}

void draw_sobol(matrix_view<double> uniforms) {
  assert(bd::s == uniforms.rows() && uniforms.leading() == uniforms.rows());
  for (int j = 1; j <= uniforms.columns(); ++j) gosobl(uniforms.column(j).data());
  double* const end =
      uniforms.data() + static_cast<std::ptrdiff_t>(uniforms.columns()) * uniforms.rows();
  for (double* u = uniforms.data(); u < end; ++u) *u = clamped(*u);
}

void draw_pseudo_random(matrix_view<double> uniforms) {
  int state = 1;
  for (int j = 1; j <= uniforms.columns(); ++j)
    for (double& u : uniforms.column(j)) u = clamped(host::dran3(state));
}

bool takes_sobol_points(proposal_family family, int iflagmcpem) {
  return iflagmcpem != 1 && family != proposal_family::student_t;
}

mixture_scales scales_of(double accratio, int n) {
  const double exponent = -1.0 / n;
  return {accratio, host::pow(accratio, exponent), host::pow(0.5, exponent)};
}

void stratify_last_row(matrix_view<double> uniforms) {
  const int samples = uniforms.columns();
  for (int j = 1; j <= samples; ++j)
    uniforms(uniforms.rows(), j) = (2.0 * j - 1.0) / (2.0 * samples);
}

}  // namespace

void draw_uniforms(proposal_family family, int iflagmcpem, matrix_view<double> uniforms) {
  const bool is_t = family == proposal_family::student_t;
  if (takes_sobol_points(family, iflagmcpem)) return draw_sobol(uniforms);
  draw_pseudo_random(uniforms);
  if (is_t && iflagmcpem == 0) stratify_last_row(uniforms);
}

void check_sequence(const entry_check& check, const sampling& settings, int leneta) {
  if (takes_sobol_points(family_of(settings.impsampdof), settings.iflagmcpem))
    check.within("s, the dimensions of the Sobol sequence,", bd::s, leneta, leneta);
}

void draw_samples(const sampling& settings, vector_view<const double> centre,
                  matrix_view<const double> factor, matrix_view<double> samples,
                  vector_view<double> minus_two_log_density) {
  const int n = samples.rows();
  const proposal q(settings.impsampdof, factor, scales_of(settings.accratio, n));
  matrix<double> points("the sample points", q.uniforms_per_sample(), samples.columns());
  draw_uniforms(q.family(), settings.iflagmcpem, points);
  q.standardise(points, minus_two_log_density);
  for (int j = 1; j <= samples.columns(); ++j)
    simmn(n, centre.data(), factor.data(), factor.leading(), points.column(j).data(),
          samples.column(j).data());
}

}  // namespace statsubs
