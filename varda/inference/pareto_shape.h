// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>

namespace varda {

// The shape k of a generalised Pareto distribution fitted to the largest importance weights: below
// 0.5 their variance is finite, above 0.7 an average over the samples is hardly to be trusted
// (A. Vehtari, D. Simpson, A. Gelman, Y. Yao and J. Gabry, "Pareto smoothed importance sampling",
// J. Mach. Learn. Res. 25 (2024)). The tail holds min(n / 5, 3 sqrt(n)) of the n weights; the fit
// is that of J. Zhang and M. A. Stephens, Technometrics 51 (2009) 316-325, with the prior of the
// former that draws k towards 0.5. Minus infinity where fewer than five weights make up the tail,
// or all of it is equal.
double pareto_shape(const Eigen::VectorXd& weights);

}  // namespace varda
