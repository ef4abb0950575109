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
#include "varda/inference/estimation_scale.h"
#include "varda/support/text.h"

namespace varda {

namespace {

constexpr double not_known = std::numeric_limits<double>::quiet_NaN();
constexpr double normal_quantile_975 = 1.959963984540054;
constexpr double unidentified_condition = 1e6;

// How far the logarithm of sandwich / information may be off where the model is true: of the
// largest of all parameters, 95 % stay below this over the root of the number of subjects
// (bench/error_kinds.py). With many subjects what matters is whether a user would notice.
constexpr double chance_disagreement = 3.0;
constexpr double noticeable_factor = 1.2;

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

// The direction that a covariance, scaled to a unit diagonal, has most of.
Eigen::VectorXd largest_direction(const Eigen::MatrixXd& matrix) {
  const Eigen::VectorXd scale = matrix.diagonal().cwiseAbs().cwiseSqrt().cwiseInverse();
  const Eigen::MatrixXd scaled = scale.asDiagonal() * matrix * scale.asDiagonal();
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(scaled);
  return solver.eigenvectors().col(matrix.rows() - 1);
}

int informative_subjects(const population_model& model) {
  int informative = 0;
  for (int i = 0; i < model.subjects(); ++i) informative += model.observations(i) > 0 ? 1 : 0;
  return informative;
}

covariance_estimate invert_scores(const population_model& model, const Eigen::MatrixXd& scores) {
  const int informative = informative_subjects(model);
  if (informative <= scores.rows())
    return {
        false,
        fmt::format("{} too few for a score matrix of full rank with {}",
                    informative == 1 ? "1 subject is" : fmt::format("{} subjects are", informative),
                    count_of(scores.rows(), "parameter")),
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
  const Eigen::MatrixXd& whole = result.chosen_covariance().covariance;
  std::vector<Eigen::Index> own;
  std::vector<std::string> names;
  for (std::size_t k = 0; k < result.known.size(); ++k) {
    if (result.known[k] == 0) continue;
    own.push_back(static_cast<Eigen::Index>(k));
    names.push_back(result.names[k]);
  }
  result.correlation = Eigen::MatrixXd::Constant(whole.rows(), whole.cols(), not_known);
  if (own.empty()) return;
  const Eigen::MatrixXd covariance = whole(own, own);
  const int n = static_cast<int>(covariance.rows());
  const Eigen::VectorXd inverse_deviation = covariance.diagonal().cwiseSqrt().cwiseInverse();
  Eigen::MatrixXd destroyed =
      inverse_deviation.asDiagonal() * covariance * inverse_deviation.asDiagonal();
  result.correlation(own, own) = destroyed;
  statsubs::eigencor(covariance.data(), n, n, result.condition_number);
  Eigen::VectorXd work(66 * n);
  result.eigenvalues.resize(n);
  int info = 0;
  statsubs::geteigenvalues(n, destroyed.data(), result.eigenvalues.data(), work.data(), 66 * n,
                           info);
  if (result.condition_number > 0.0 && result.condition_number < unidentified_condition) return;
  result.unidentified = in_words(largest_direction(covariance), names);
}

void compare_kinds(const population_model& model, standard_errors& result) {
  if (result.by_information.empty() || result.by_sandwich.empty()) return;
  const double limit =
      std::max(chance_disagreement / std::sqrt(static_cast<double>(informative_subjects(model))),
               std::log(noticeable_factor));
  std::string apart;
  for (std::size_t k = 0; k < result.names.size(); ++k) {
    if (result.known[k] == 0) continue;
    const double ratio = result.by_sandwich[k].se / result.by_information[k].se;
    if (std::fabs(std::log(ratio)) > limit)
      apart += fmt::format("{}{} ({:.2g})", apart.empty() ? "" : ", ", result.names[k], ratio);
  }
  if (!apart.empty())
    result.warnings.push_back(
        {.level = severity::warning,
         .code = "W-RUN-ERRORS-DISAGREE",
         .message = "sandwich and information standard errors differ by the factors shown, more "
                    "than chance explains: " +
                    apart,
         .remedy = "the residual error model or the distribution of a random effect may be wrong: "
                   "look at NPDE and individual residuals"});
}

}  // namespace

namespace {

// Where a value stands in a list, or -1.
template <class Value>
int place_in(const std::vector<Value>& list, const Value& value) {
  const auto at = std::find(list.begin(), list.end(), value);
  return at == list.end() ? -1 : static_cast<int>(at - list.begin());
}

std::pair<int, int> in_lower_triangle(int row, int column) {
  return {std::max(row, column), std::min(row, column)};
}

}  // namespace

int standard_errors::place_of_theta(int position) const {
  return without_error_theta(position) ? -1 : place_in(theta, position);
}

int standard_errors::place_of_omega(int row, int column) const {
  return without_error_omega(row, column) ? -1 : place_in(omega, in_lower_triangle(row, column));
}

bool standard_errors::without_error_theta(int position) const {
  const int k = place_in(theta, position);
  return k >= 0 && !known.empty() && known[static_cast<std::size_t>(k)] == 0;
}

bool standard_errors::without_error_omega(int row, int column) const {
  const int k = place_in(omega, in_lower_triangle(row, column));
  return k >= 0 && !known.empty() && known[static_cast<std::size_t>(k)] == 0;
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
    result.known.push_back(1);
  }
  if (scale.size() == 0)
    result.reason = "every parameter is fixed";
  else if (is_at_bound(host))
    result.reason = "a parameter is at its bound";
  return result;
}

// From the inverse of the information in `result`, and the scores.
void conclude(const population_model& model, const estimation_scale& scale,
              const Eigen::MatrixXd& scores, standard_errors& result) {
  result.score = invert_scores(model, scores);
  result.sandwich = sandwich_of(result.information, scores);
  for (covariance_estimate* kind : {&result.information, &result.score, &result.sandwich})
    for (std::size_t k = 0; k < result.known.size() && kind->known; ++k)
      if (result.known[k] == 0) {
        kind->covariance.row(static_cast<Eigen::Index>(k)).setConstant(not_known);
        kind->covariance.col(static_cast<Eigen::Index>(k)).setConstant(not_known);
      }
  result.by_information = errors_of(model, scale, result.information);
  result.by_score = errors_of(model, scale, result.score);
  result.by_sandwich = errors_of(model, scale, result.sandwich);
  if (!result.chosen_covariance().known) {
    result.reason = result.chosen_covariance().reason;
    return;
  }
  keep_omega_errors(model, scale, result.chosen_covariance().covariance);
  describe_correlation(result);
  compare_kinds(model, result);
}

}  // namespace

standard_errors errors_from(engine_host& host, const sampled_errors& found) {
  const estimation_scale scale(host.model(), host.theta(), host.omega());
  standard_errors result = nothing_yet(host, scale);
  if (!result.reason.empty()) return result;
  result.information = found.information;
  result.known = found.known;
  result.from_scores = found.from_scores;
  conclude(host.model(), scale, found.scores, result);
  return result;
}

}  // namespace varda
