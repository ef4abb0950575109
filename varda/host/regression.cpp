// SPDX-License-Identifier: Apache-2.0
#include "varda/host/regression.h"

#include "statsubs/mstep/lrtheta.h"
#include "statsubs/mstep/predetamu.h"
#include "statsubs/state/global_variables.h"

namespace varda {

namespace gv = statsubs::global_variables;

Eigen::VectorXd fit_means(engine_host& host, const std::vector<int>& columns,
                          const Eigen::MatrixXd& phi) {
  host.select_columns(columns);
  Eigen::MatrixXd individual = phi;
  Eigen::VectorXd solution = Eigen::VectorXd::Zero(host.theta().size());
  const int count = static_cast<int>(columns.size());
  statsubs::lrtheta(count, solution.data(), individual.data(), nullptr, nullptr,
                    host.model().random_effects(), 0, count, gv::muetamap.data());
  host.select_every_column();
  return solution.head(count);
}

Eigen::MatrixXd predict_means(engine_host& host, const std::vector<int>& columns,
                              const Eigen::VectorXd& beta) {
  const int effects = host.model().random_effects();
  Eigen::MatrixXd means = Eigen::MatrixXd::Zero(effects, host.model().subjects());
  if (columns.empty()) return means;
  host.select_columns(columns);
  for (int i = 0; i < host.model().subjects(); ++i) {
    Eigen::Map<Eigen::VectorXd> predicted(gv::xmusub.data(), effects);
    predicted.setZero();
    statsubs::predetamu(i + 1, beta.data(), effects, 0, static_cast<int>(columns.size()),
                        gv::muetamap.data());
    means.col(i) = predicted;
  }
  host.select_every_column();
  return means;
}

}  // namespace varda
