// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/support/array.h"

namespace statsubs {

// Self-normalised importance weights of N samples, by the logarithms of their ratios.
//   log_likelihood(N)         in: log of the integrand at every sample
//   minus_two_log_density(N)  in: -2 ln of the proposal density there
//   weights(N)                out: sum to one
// Returns the log of the integral's estimate, the mean of the ratios. The largest log-ratio is
// taken out before anything is exponentiated, so the integrand may have any magnitude down to
// exp(-1e200).
double normalise_weights(vector_view<const double> log_likelihood,
                         vector_view<const double> minus_two_log_density,
                         vector_view<double> weights);

// Sum of weights(j) values(j), in order.
double weighted_sum(vector_view<const double> weights, vector_view<const double> values);

}  // namespace statsubs
