// SPDX-License-Identifier: Apache-2.0
#include "varda/host/integration.h"

#include "statsubs/estep/fgintegrate.h"
#include "statsubs/estep/sample_quality.h"
#include "statsubs/state/global_variables.h"

namespace varda {

namespace gv = statsubs::global_variables;

namespace {

void without_observations(const engine_host& host, subject_integral& result) {
  result = {};
  result.mean = Eigen::VectorXd::Zero(host.omega().rows());
  result.covariance = host.omega();
}

}  // namespace

void integrate(engine_host& host, const proposals& from, int samples, e_step& result,
               resampler* points) {
  const population_model& model = host.model();
  const int effects = model.random_effects();
  Eigen::MatrixXd etas(effects, samples);
  Eigen::VectorXd weights(samples);
  Eigen::VectorXd mu(effects);

  result.complete = false;
  result.log_likelihood = 0.0;
  result.subjects.resize(static_cast<std::size_t>(model.subjects()));
  for (int i = 0; i < model.subjects(); ++i) {
    subject_integral& found = result.subjects[static_cast<std::size_t>(i)];
    if (model.observations(i) == 0) {
      without_observations(host, found);
      continue;
    }
    from.offer(i);
    statsubs::fgintegrate(i + 1, samples, etas.data(), weights.data(), found.log_likelihood);
    if (engine_host::stopped()) return;

    found.mean = Eigen::Map<const Eigen::VectorXd>(gv::xmusubnew.data(), effects);
    found.covariance = Eigen::Map<const Eigen::MatrixXd>(gv::omegasubnew.data(), effects, effects);
    found.scaled_squares = gv::wtsumzscore;
    double rms = 0.0;
    double peak = 0.0;
    double informative = 0.0;
    statsubs::imp_merit(weights.data(), samples, rms, peak, informative);
    found.effective_samples = samples / (rms * rms);
    found.largest_weight = peak / samples;
    if (points != nullptr) {
      model.means(i, host.theta().data(), mu.data());
      found.resampled = points->draw(i, mu, etas, weights);
    }
    result.log_likelihood += found.log_likelihood;
  }
  result.complete = true;
}

}  // namespace varda
