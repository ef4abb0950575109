// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/estep/proposal_family.h"
#include "statsubs/state/entry_check.h"
#include "statsubs/support/array.h"

namespace statsubs {

// Fills a column of uniform numbers per sample, kept to [1e-6, 1 - 1e-6]; the columns are packed.
// The numbers are pseudo-random (the host's dran3, state 1 at every entry) when iflagmcpem is 1 and
// for the t, and the next points of the Sobol sequence otherwise, which has been started with as
// many dimensions as there are rows. For the t with iflagmcpem 0 the last row sweeps the unit
// interval evenly, with (2 j - 1) / (2 samples) for sample j, not clamped; the numbers there have
// been drawn all the same.
// Reads: s
// Writes: none
void draw_uniforms(proposal_family family, int iflagmcpem, matrix_view<double> uniforms);

// The settings that choose a subject's samples.
struct sampling {
  int impsampdof;
  int iflagmcpem;
  double accratio;
};

// Refuses a Sobol sequence that has not been started with leneta dimensions, where points come from
// it.
// Reads: s
// Writes: none
void check_sequence(const entry_check& check, const sampling& settings, int leneta);

// All samples of a subject, a column each, from the family that impsampdof names about `centre`
// with the lower triangular `factor`, and -2 ln of the proposal density at each.
void draw_samples(const sampling& settings, vector_view<const double> centre,
                  matrix_view<const double> factor, matrix_view<double> samples,
                  vector_view<double> minus_two_log_density);

}  // namespace statsubs
