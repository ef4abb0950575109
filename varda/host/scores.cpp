// SPDX-License-Identifier: Apache-2.0
#include "varda/host/scores.h"

#include "statsubs/state/global_variables.h"
#include "statsubs/stderr/checktight.h"
#include "statsubs/stderr/stderromega.h"

namespace varda {

namespace gv = statsubs::global_variables;

Eigen::MatrixXi packed_positions(const population_model& model) {
  const int effects = model.random_effects();
  Eigen::MatrixXi packed = Eigen::MatrixXi::Constant(effects, effects, -1);
  int next = 0;
  for (int i = 0; i < effects; ++i)
    for (int j = 0; j <= i; ++j)
      if (model.omega_mask()(i, j) != 0.0) packed(i, j) = next++;
  return packed;
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
