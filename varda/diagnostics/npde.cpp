// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/npde.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "statsubs/estep/proposals.h"
#include "varda/simulation/simulate.h"

namespace varda {

namespace {

// Observations x simulations; fewer columns where the model failed.
Eigen::MatrixXd simulate(const population_model& model, int subject, const Eigen::VectorXd& theta,
                         const Eigen::MatrixXd& omega, int simulations, deviates& draw) {
  Eigen::MatrixXd f;
  Eigen::MatrixXd result;
  subject_simulator(model, subject, {theta, omega})
      .simulate(
          simulations, [&](int) -> deviates& { return draw; }, f, result);
  Eigen::Index usable = 0;
  for (Eigen::Index k = 0; k < result.cols(); ++k) {
    if (!result.col(k).allFinite()) continue;
    if (usable < k) result.col(usable) = result.col(k);
    ++usable;
  }
  result.conservativeResize(Eigen::NoChange, usable);
  return result;
}

// Share of the values below x, away from 0 and 1.
template <class Values>
double share_below(const Values& values, double x) {
  const auto n = static_cast<double>(values.size());
  const auto below = static_cast<double>((values.array() < x).count());
  return std::clamp(below / n, 0.5 / n, 1.0 - 0.5 / n);
}

// The value below which a share of the values lies.
double quantile(Eigen::VectorXd values, double share) {
  std::sort(values.begin(), values.end());
  const auto rank = static_cast<Eigen::Index>(share * static_cast<double>(values.size()));
  return values(std::min(rank, values.size() - 1));
}

// The shares of the values that what is known of an observation leaves, the one for `of` being
// where its value or limit lies among them.
template <class Share>
std::pair<double, double> possible_shares(const observation& at, const Share& of) {
  const double here = of(at.value);
  switch (at.censored) {
    case censoring::left:
      return {0.0, here};
    case censoring::right:
      return {here, 1.0};
    case censoring::interval:
      return {std::min(of(at.limit), here), here};
    case censoring::none:
      break;
  }
  return {here, here};
}

}  // namespace

Eigen::VectorXd npde(const population_model& model, int subject, const Eigen::VectorXd& theta,
                     const Eigen::MatrixXd& omega, int simulations, int seed) {
  const Eigen::Index n = model.observations(subject);
  const Eigen::VectorXd unknown =
      Eigen::VectorXd::Constant(n, std::numeric_limits<double>::quiet_NaN());
  deviates draw({seed, subject});
  Eigen::MatrixXd y = simulate(model, subject, theta, omega, simulations, draw);
  if (y.cols() <= n + 1) return unknown;

  const Eigen::VectorXd mean = y.rowwise().mean();
  y.colwise() -= mean;
  const Eigen::LLT<Eigen::MatrixXd> llt(y * y.transpose() / static_cast<double>(y.cols() - 1));
  if (llt.info() != Eigen::Success) return unknown;
  const Eigen::MatrixXd factor = llt.matrixL();
  factor.triangularView<Eigen::Lower>().solveInPlace(y);

  // Forward substitution, in which a censored observation takes its place before the next.
  Eigen::VectorXd decorrelated = Eigen::VectorXd::Zero(n);
  Eigen::VectorXd result(n);
  for (Eigen::Index j = 0; j < n; ++j) {
    const observation& at = model.data()
                                .subjects[static_cast<std::size_t>(subject)]
                                .observations[static_cast<std::size_t>(j)];
    const double expected = mean(j) + factor.row(j).dot(decorrelated);
    const auto scaled = [&](double value) { return (value - expected) / factor(j, j); };
    const auto [from, to] =
        possible_shares(at, [&](double value) { return share_below(y.row(j), scaled(value)); });
    const double share = from + draw.uniform() * (to - from);
    decorrelated(j) = at.censored == censoring::none ? scaled(at.value) : quantile(y.row(j), share);
    result(j) = statsubs::dnorminv(share);
  }
  return result;
}

std::vector<Eigen::VectorXd> npde(const population_model& model, const Eigen::VectorXd& theta,
                                  const Eigen::MatrixXd& omega, const job& peers,
                                  const progress_listener& progress) {
  const estimation_settings& settings = model.specification().estimation;
  if (settings.npde_samples == 0) return {};
  std::vector<Eigen::VectorXd> result;
  for (int i = 0; i < model.subjects(); ++i) {
    Eigen::VectorXd& errors = result.emplace_back(Eigen::VectorXd::Zero(model.observations(i)));
    if (errors.size() > 0 && i % peers.size() == peers.rank())
      errors = npde(model, i, theta, omega, settings.npde_samples, settings.seed);
    progress({.stage = run_stage::npde, .step = i + 1, .of = model.subjects()});
  }
  // Each subject stands on one process.
  for (Eigen::VectorXd& errors : result) peers.sum(errors.data(), static_cast<int>(errors.size()));
  return result;
}

}  // namespace varda
