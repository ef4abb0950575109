// SPDX-License-Identifier: Apache-2.0
//
// The sampled log-likelihood of fixed points as a function of the parameters, with its gradient by
// Fisher's identity and its Hessian by Louis' (T. A. Louis, J. R. Stat. Soc. B 44 (1982) 226-233):
// with weights w of the samples at psi,
//
//   l = log mean p(y | phi) p(phi) / q(phi),   l' = E_w[s],   l'' = E_w[s'] + Cov_w[s],
//
// s the derivative of log p(y | phi) p(phi) by psi. The samples stand at fixed phi.
//
// The logarithm of a mean with relative variance v is too small by v / 2 on average, which for many
// subjects adds up to more than the error. Where samples come in R groups, Z_g the mean of a group
// and Z that of all, v / 2 with
//
//   v = sum (Z_g / Z - 1)^2 / (R (R - 1))
//
// is added to l, and its derivative to l'; l'' stays. v is at most 1.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/draws.h"
#include "varda/method/newton/coordinates.h"
#include "varda/model/density.h"

namespace varda {

// What one subject's samples say at one psi, in figures.
struct subject_measure {
  double log_likelihood = 0.0;  // with its correction
  double scaled_squares = 0.0;
  double effective_share = 0.0;  // effective samples / samples
  double largest_weight = 0.0;
  double shape = 0.0;  // of the weights' tail
  double error = 0.0;  // of the subject's -2 log-likelihood, from the groups
  // Share of the samples in the bulk of the conditional distribution whose density is not finite.
  double failed = 0.0;
};

// The moments of phi given the data, and the derivatives of the log-likelihood by psi.
struct subject_details {
  Eigen::VectorXd mean;
  Eigen::MatrixXd covariance;
  // Third moments of the coordinates L^-1 (phi - mean), L the lower Cholesky factor of the
  // covariance. Only with at least `effects_with_skewness`.
  Eigen::VectorXd skewness;
  Eigen::VectorXd gradient;
  Eigen::MatrixXd information;  // minus the Hessian
  // Derivative of the mean by psi, effects x coordinates: Cov_w[phi, s]. Only where predictions
  // depend on a coordinate directly.
  Eigen::MatrixXd shift;
  // Of each group of samples alone.
  Eigen::VectorXd group_log_likelihood;
  Eigen::MatrixXd group_gradient;  // coordinates x groups
};

// With few random effects a normal density is near enough to most conditional distributions.
inline constexpr Eigen::Index effects_with_skewness = 5;

// What a measurement needs of the parameters, made once for all subjects.
struct measure_point {
  measure_point(const coordinates& scale, const Eigen::VectorXd& at_psi,
                const Eigen::VectorXd& from_theta, const Eigen::MatrixXd& from_omega);
  Eigen::VectorXd psi, theta;
  Eigen::MatrixXd omega;
  random_effect_density prior;
};

enum class detail { value, derivatives };

// A row for each sample.
using sample_rows = Eigen::Map<Eigen::MatrixXd>;

// Memory for such a matrix, kept for the next: with many random effects it is large, and what goes
// back to the system comes again in pages that have to be cleared.
class sample_room {
 public:
  // Its entries are what was there.
  sample_rows of(Eigen::Index rows, Eigen::Index columns) {
    if (values_.size() < rows * columns) values_.resize(rows * columns);
    return {values_.data(), rows, columns};
  }

 private:
  Eigen::VectorXd values_;
};

class subject_sampler {
 public:
  subject_sampler(const density& joint, const coordinates& scale);

  // Of subject `subject` (from 0). Predictions in `drawn` belong to `drawn_at`, theta at the draw;
  // where parameters have moved that predictions depend on they are made anew. `evaluations` counts
  // those. `details` are overwritten where derivatives are wanted of a likelihood that is finite.
  subject_measure measure(int subject, const subject_draw& drawn, const Eigen::VectorXd& drawn_at,
                          const measure_point& at, detail wanted, subject_details& details,
                          std::int64_t& evaluations);

  // Whether every step re-evaluates the model.
  bool moves_predictions() const { return !moving_.empty(); }

 private:
  // Of each sample: log p(y | phi), the sum of its squared scaled residuals, its weight.
  struct sample_values {
    const Eigen::VectorXd &log_data, &squares, &weights;
  };
  // Scores are overwritten.
  void score_prior(int subject, const sample_rows& z, const measure_point& at, sample_rows& scores);
  Eigen::MatrixXd curvature_of_prior(int subject, const Eigen::VectorXd& first,
                                     const Eigen::MatrixXd& second, const measure_point& at) const;
  void score_data(int subject, const subject_draw& drawn, const Eigen::MatrixXd& predictions,
                  const sample_values& values, const measure_point& at, sample_rows& scores,
                  Eigen::MatrixXd& hessian, std::int64_t& evaluations);

  const density& joint_;
  const coordinates& scale_;
  density_workspace scratch_;
  sample_room eta_, whitened_, weighed_, scores_;
  std::vector<int> moving_;    // coordinates on which predictions depend directly
  std::vector<int> residual_;  // coordinates of the endpoints' parameters
};

}  // namespace varda
