// SPDX-License-Identifier: Apache-2.0
#include "varda/host/scores.h"

#include "statsubs/stderr/checktight.h"
#include "statsubs/stderr/scoretheta.h"
#include "statsubs/stderr/stderromega.h"

namespace varda {

Eigen::MatrixXi packed_positions(const population_model& model) {
  const int effects = model.random_effects();
  Eigen::MatrixXi packed = Eigen::MatrixXi::Constant(effects, effects, -1);
  int next = 0;
  for (int i = 0; i < effects; ++i)
    for (int j = 0; j <= i; ++j)
      if (model.omega_mask()(i, j) != 0.0) packed(i, j) = next++;
  return packed;
}

void add_score(engine_host& host, int subject, weighted_samples& drawn, Eigen::MatrixXd& sums) {
  const auto thetas = static_cast<Eigen::Index>(host.model().thetas().size());
  statsubs::scoretheta(subject + 1, static_cast<int>(drawn.weights.size()), drawn.etas.data(),
                       drawn.weights.data(), sums.data(), static_cast<int>(sums.rows() - thetas));
}

bool is_at_bound(engine_host&) {
  int tight = 0;
  statsubs::checktight(tight);
  return tight != 0;
}

void keep_omega_variances(const Eigen::VectorXd& variances, int thetas) {
  const Eigen::Index size = thetas + variances.size();
  Eigen::MatrixXd diagonal = Eigen::MatrixXd::Zero(size, size);
  diagonal.diagonal().tail(variances.size()) = variances;
  statsubs::stderromega(diagonal.data(), static_cast<int>(variances.size()));
}

}  // namespace varda
