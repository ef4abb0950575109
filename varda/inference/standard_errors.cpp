// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/standard_errors.h"

#include <fmt/format.h>

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

#include "statsubs/stderr/eigencor.h"
#include "statsubs/stderr/geteigenvalues.h"
#include "varda/host/scores.h"
#include "varda/host/subjects.h"
#include "varda/inference/e_step.h"
#include "varda/inference/minimise.h"
#include "varda/inference/sampled_likelihood.h"

namespace varda {

namespace {

constexpr double normal_quantile_975 = 1.959963984540054;
constexpr double unidentified_condition = 1e6;
constexpr double disagreement_factor = 1.5;

// What one pass over the subjects gives: minus the log-likelihood at the stencil's points, and the
// sum of outer products of the scores.
struct subject_pass {
  bool complete = false;
  Eigen::VectorXd values;
  Eigen::MatrixXd scores;  // all of theta, then omega; the library's scale and signs
};

// Samples of subjects that wait for the threads.
struct waiting_samples {
  int subject = 0;
  weighted_samples drawn;
};

subject_pass pass_over_subjects(engine_host& host, const proposals& frozen,
                                const sampled_likelihood& likelihood, Eigen::Index points,
                                int samples, const progress_listener& progress) {
  const population_model& model = host.model();
  const thread_team& threads = host.peers().threads();
  const Eigen::Index scored =
      static_cast<Eigen::Index>(model.thetas().size()) + packed_positions(model).maxCoeff() + 1;
  // Changes of the log-likelihood, then scores.
  Eigen::MatrixXd by_subject = Eigen::MatrixXd::Zero(points + scored, model.subjects());
  subject_progress shown(progress, run_stage::standard_errors, model.subjects(), host.peers());
  // The library draws one subject after the other; the threads then take some together.
  const auto most_waiting = static_cast<std::size_t>(threads.size() == 1 ? 1 : 4 * threads.size());
  std::vector<waiting_samples> waiting(most_waiting);
  std::size_t count = 0;
  const auto work_off = [&] {
    threads.for_each(static_cast<int>(count), [&](int k, int) {
      const waiting_samples& own = waiting[static_cast<std::size_t>(k)];
      by_subject.col(own.subject).head(points) =
          likelihood.changes(own.subject, own.drawn.etas, own.drawn.weights);
      shown.done_one();
    });
    count = 0;
  };
  e_step found;
  integrate_all(host, frozen, {point_pass::purpose::standard_errors, 0}, samples, found,
                [&](int i, weighted_samples& drawn) {
                  by_subject.col(i).tail(scored) = score_of(host, i, drawn);
                  waiting_samples& own = waiting[count++];
                  own.subject = i;
                  own.drawn.etas.resizeLike(drawn.etas);
                  own.drawn.weights.resizeLike(drawn.weights);
                  own.drawn.etas.swap(drawn.etas);
                  own.drawn.weights.swap(drawn.weights);
                  if (count == most_waiting) work_off();
                });
  subject_pass result;
  if (!found.complete) return result;
  work_off();
  if (!engine_host::share(by_subject)) return result;
  result.values = -by_subject.topRows(points).rowwise().sum();
  result.scores.setZero(scored, scored);
  for (int i = 0; i < model.subjects(); ++i) {
    const auto score = by_subject.col(i).tail(scored);
    result.scores += score * score.transpose();
  }
  result.complete = true;
  return result;
}

// The library's score matrix on the estimation scale, fixed parameters left out.
Eigen::MatrixXd on_estimation_scale(const population_model& model, const estimation_scale& scale,
                                    const Eigen::MatrixXd& scores) {
  const int thetas = static_cast<int>(model.thetas().size());
  Eigen::MatrixXd to_scale = Eigen::MatrixXd::Zero(scale.size(), scores.rows());
  const Eigen::MatrixXi packed = packed_positions(model);
  for (int k = 0; k < scale.size(); ++k) {
    const auto& e = scale.entries()[static_cast<std::size_t>(k)];
    for (const auto& [row, column] : e.places) to_scale(k, thetas + packed(row, column)) = 1.0;
    if (e.theta < 0) continue;
    // Differences are of the objective, a negative log density; the other scores are analytic.
    const theta_role role = model.thetas()[static_cast<std::size_t>(e.theta)].role;
    const bool by_difference =
        role == theta_role::residual_deviation ||
        model.thetas()[static_cast<std::size_t>(e.theta)].moves_predictions();
    to_scale(k, e.theta) = (by_difference ? -1.0 : 1.0) * scale.slope(k);
  }
  return to_scale * scores * to_scale.transpose();
}

std::optional<Eigen::MatrixXd> inverse_of(const Eigen::MatrixXd& information) {
  if (!information.allFinite()) return std::nullopt;
  const Eigen::LLT<Eigen::MatrixXd> factor(information);
  if (factor.info() != Eigen::Success) return std::nullopt;
  return factor.solve(Eigen::MatrixXd::Identity(information.rows(), information.cols()));
}

double natural(const population_model& model, const estimation_scale::entry& e, double psi) {
  if (e.logarithm) return std::exp(psi);
  return e.theta < 0 ? psi : model.thetas()[static_cast<std::size_t>(e.theta)].natural(psi);
}

estimate_error error_of(const population_model& model, const estimation_scale& scale, int k,
                        double variance) {
  const auto& e = scale.entries()[static_cast<std::size_t>(k)];
  const double psi = scale.estimates()(k);
  const double deviation = std::sqrt(variance);
  const double reach = normal_quantile_975 * deviation;
  const double estimate = natural(model, e, psi);
  estimate_error result;
  if (e.theta < 0 && e.row == e.column) {
    // A variance: its own scale for the error, the logarithm for the interval.
    result.se = deviation;
    const double ratio = std::exp(reach / estimate);
    result.ci_lower = estimate / ratio;
    result.ci_upper = estimate * ratio;
  } else {
    const double slope = e.logarithm ? estimate
                         : e.theta < 0
                             ? 1.0
                             : model.thetas()[static_cast<std::size_t>(e.theta)].natural_slope(psi);
    result.se = slope * deviation;
    result.ci_lower = natural(model, e, psi - reach);
    result.ci_upper = natural(model, e, psi + reach);
  }
  result.rse_percent = 100.0 * result.se / std::fabs(estimate);
  return result;
}

std::vector<estimate_error> errors_of(const population_model& model, const estimation_scale& scale,
                                      const covariance_estimate& from) {
  std::vector<estimate_error> errors;
  if (!from.known) return errors;
  for (int k = 0; k < scale.size(); ++k)
    errors.push_back(error_of(model, scale, k, from.covariance(k, k)));
  return errors;
}

// Steps of the differences, a tenth of the standard errors that complete data would give. Since the
// sampling error is common to all points, the differences have none: smaller steps do no harm.
Eigen::VectorXd difference_steps(const engine_host& host, const estimation_scale& scale) {
  constexpr double share = 0.1;
  constexpr double flat_step = 0.002;  // of a parameter without a random effect, relative
  const population_model& model = host.model();
  const double subjects = model.subjects();
  Eigen::VectorXd steps(scale.size());
  for (int k = 0; k < scale.size(); ++k) {
    const auto& e = scale.entries()[static_cast<std::size_t>(k)];
    if (e.theta < 0) {
      steps(k) = share * std::sqrt(host.omega()(e.row, e.row) * host.omega()(e.column, e.column) /
                                   subjects);
      continue;
    }
    if (model.thetas()[static_cast<std::size_t>(e.theta)].role == theta_role::residual_deviation)
      steps(k) = share / std::sqrt(2.0 * model.data().observations());
    else
      steps(k) = flat_step * (e.logarithm ? 1.0 : std::max(std::fabs(scale.estimates()(k)), 1.0));
    for (std::size_t c = 0; c < model.columns().size(); ++c) {
      if (model.columns()[c].theta != e.theta) continue;
      double squares = 0.0;
      for (int i = 0; i < model.subjects(); ++i)
        squares += std::pow(model.design(i, static_cast<int>(c)), 2);
      const int eta = model.columns()[c].eta;
      steps(k) = share * std::sqrt(host.omega()(eta, eta) / squares);
    }
  }
  return steps;
}

// The quantities that make up a direction, with their shares.
std::string in_words(const Eigen::VectorXd& direction, const std::vector<std::string>& names) {
  constexpr double noticeable = 0.3;
  std::string words;
  for (Eigen::Index k = 0; k < direction.size(); ++k)
    if (std::fabs(direction(k)) > noticeable)
      words += fmt::format("{}{:+.2f} {}", words.empty() ? "" : " ", direction(k),
                           names[static_cast<std::size_t>(k)]);
  return words;
}

// The direction that a matrix, scaled to a unit diagonal, has least of (or most, for `largest`).
Eigen::VectorXd extreme_direction(const Eigen::MatrixXd& matrix, bool largest) {
  const Eigen::VectorXd scale = matrix.diagonal().cwiseAbs().cwiseSqrt().cwiseInverse();
  const Eigen::MatrixXd scaled = scale.asDiagonal() * matrix * scale.asDiagonal();
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(scaled);
  return solver.eigenvectors().col(largest ? matrix.rows() - 1 : 0);
}

covariance_estimate invert_information(const Eigen::MatrixXd& information,
                                       standard_errors& result) {
  if (const auto covariance = inverse_of(information)) return {true, "", *covariance};
  if (!information.allFinite())
    return {false,
            "the likelihood cannot be differenced at the estimates: omega is close to singular",
            {}};
  std::string reason =
      "the observed information is not positive definite: the estimates are not at a maximum, or "
      "the data do not identify every parameter";
  if ((information.diagonal().array() != 0.0).all()) {
    result.unidentified = in_words(extreme_direction(information, false), result.names);
    reason += " (least known: " + result.unidentified + ")";
  }
  return {false, reason, {}};
}

covariance_estimate invert_scores(const population_model& model, const Eigen::MatrixXd& scores) {
  int informative = 0;
  for (int i = 0; i < model.subjects(); ++i) informative += model.observations(i) > 0 ? 1 : 0;
  if (informative <= scores.rows())
    return {false,
            fmt::format("{} subjects do not give {} parameters a score matrix of full rank",
                        informative, scores.rows()),
            {}};
  if (const auto covariance = inverse_of(scores)) return {true, "", *covariance};
  return {false, "the score matrix is singular", {}};
}

covariance_estimate sandwich_of(const covariance_estimate& information,
                                const Eigen::MatrixXd& scores) {
  if (!information.known) return {false, information.reason, {}};
  return {true, "", information.covariance * scores * information.covariance};
}

// To the library's shared state, in its layout.
void keep_omega_errors(const population_model& model, const estimation_scale& scale,
                       const Eigen::MatrixXd& covariance) {
  const Eigen::MatrixXi packed = packed_positions(model);
  Eigen::VectorXd variances = Eigen::VectorXd::Zero(packed.maxCoeff() + 1);
  for (int k = 0; k < scale.size(); ++k)
    for (const auto& [row, column] : scale.entries()[static_cast<std::size_t>(k)].places)
      variances(packed(row, column)) = covariance(k, k);
  keep_omega_variances(variances, static_cast<int>(model.thetas().size()));
}

void describe_correlation(standard_errors& result) {
  const Eigen::MatrixXd& covariance = result.chosen_covariance().covariance;
  const int n = static_cast<int>(covariance.rows());
  const Eigen::VectorXd inverse_deviation = covariance.diagonal().cwiseSqrt().cwiseInverse();
  result.correlation = inverse_deviation.asDiagonal() * covariance * inverse_deviation.asDiagonal();
  statsubs::eigencor(covariance.data(), n, n, result.condition_number);
  Eigen::MatrixXd destroyed = result.correlation;
  Eigen::VectorXd work(66 * n);
  result.eigenvalues.resize(n);
  int info = 0;
  statsubs::geteigenvalues(n, destroyed.data(), result.eigenvalues.data(), work.data(), 66 * n,
                           info);
  if (result.condition_number > 0.0 && result.condition_number < unidentified_condition) return;
  result.unidentified = in_words(extreme_direction(covariance, true), result.names);
}

void compare_kinds(standard_errors& result) {
  std::string apart;
  for (std::size_t k = 0; k < result.names.size(); ++k) {
    double least = std::numeric_limits<double>::infinity();
    double most = 0.0;
    for (const auto* errors : {&result.by_information, &result.by_score, &result.by_sandwich})
      if (!errors->empty()) {
        least = std::min(least, (*errors)[k].se);
        most = std::max(most, (*errors)[k].se);
      }
    if (most > disagreement_factor * least)
      apart +=
          fmt::format("{}{} ({:.1f})", apart.empty() ? "" : ", ", result.names[k], most / least);
  }
  if (!apart.empty())
    result.warnings.push_back(
        {.level = severity::warning,
         .code = "W-RUN-ERRORS-DISAGREE",
         .message = "the kinds of standard error disagree by the factor in brackets: " + apart,
         .remedy = "the model may not describe the data, or the subjects may be too few for errors "
                   "from a quadratic approximation"});
}

}  // namespace

int standard_errors::place_of_theta(int position) const {
  const auto at = std::find(theta.begin(), theta.end(), position);
  return at == theta.end() ? -1 : static_cast<int>(at - theta.begin());
}

int standard_errors::place_of_omega(int row, int column) const {
  const std::pair lower(std::max(row, column), std::min(row, column));
  const auto at = std::find(omega.begin(), omega.end(), lower);
  return at == omega.end() ? -1 : static_cast<int>(at - omega.begin());
}

const covariance_estimate& standard_errors::chosen_covariance() const {
  switch (shown) {
    case standard_error_kind::score:
      return score;
    case standard_error_kind::sandwich:
      return sandwich;
    case standard_error_kind::information:
    case standard_error_kind::none:
      break;
  }
  return information;
}

const std::vector<estimate_error>& standard_errors::chosen() const {
  switch (shown) {
    case standard_error_kind::score:
      return by_score;
    case standard_error_kind::sandwich:
      return by_sandwich;
    case standard_error_kind::information:
    case standard_error_kind::none:
      break;
  }
  return by_information;
}

namespace {

// What is estimated, and whether errors can be had at all.
standard_errors nothing_yet(engine_host& host, const estimation_scale& scale) {
  standard_errors result;
  result.shown = host.model().specification().estimation.standard_errors;
  for (const auto& e : scale.entries()) {
    result.names.push_back(e.name);
    result.theta.push_back(e.theta);
    result.omega.emplace_back(e.row, e.column);
  }
  if (scale.size() == 0)
    result.reason = "every parameter is fixed";
  else if (is_at_bound(host))
    result.reason = "a parameter lies at its bound";
  return result;
}

void conclude(const population_model& model, const estimation_scale& scale,
              const Eigen::MatrixXd& information, const Eigen::MatrixXd& scores,
              standard_errors& result) {
  result.information = invert_information(information, result);
  result.score = invert_scores(model, scores);
  result.sandwich = sandwich_of(result.information, scores);
  result.by_information = errors_of(model, scale, result.information);
  result.by_score = errors_of(model, scale, result.score);
  result.by_sandwich = errors_of(model, scale, result.sandwich);
  if (!result.chosen_covariance().known) {
    result.reason = result.chosen_covariance().reason;
    return;
  }
  keep_omega_errors(model, scale, result.chosen_covariance().covariance);
  describe_correlation(result);
  compare_kinds(result);
}

}  // namespace

standard_errors errors_from(engine_host& host, const Eigen::MatrixXd& information,
                            const Eigen::MatrixXd& scores) {
  const estimation_scale scale(host.model(), host.theta(), host.omega());
  standard_errors result = nothing_yet(host, scale);
  if (result.reason.empty()) conclude(host.model(), scale, information, scores, result);
  return result;
}

standard_errors estimate_standard_errors(engine_host& host, const proposals& frozen,
                                         const progress_listener& progress) {
  const population_model& model = host.model();
  const estimation_scale scale(model, host.theta(), host.omega());
  standard_errors result = nothing_yet(host, scale);
  if (!result.reason.empty()) return result;
  const difference_stencil stencil(scale.estimates(), difference_steps(host, scale));
  const sampled_likelihood likelihood(host, scale, stencil.points());
  const subject_pass pass =
      pass_over_subjects(host, frozen, likelihood, stencil.points().cols(),
                         model.specification().estimation.se_samples, progress);
  if (!pass.complete) {
    result.reason = stop_reason;
    return result;
  }
  conclude(model, scale, stencil.hessian(pass.values),
           on_estimation_scale(model, scale, pass.scores), result);
  return result;
}

}  // namespace varda
