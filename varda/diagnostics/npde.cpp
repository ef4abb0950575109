// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/npde.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "statsubs/estep/proposals.h"
#include "varda/diagnostics/decorrelation.h"
#include "varda/host/subjects.h"
#include "varda/simulation/simulate.h"
#include "varda/support/stop.h"

namespace varda {

namespace {

// The rows of the observations that have a prediction error: those whose values can be simulated
// row by row.
std::vector<Eigen::Index> rows_with_values(const population_model& model, int subject) {
  const auto& observed = model.data().subjects[static_cast<std::size_t>(subject)].observations;
  std::vector<Eigen::Index> rows;
  for (std::size_t j = 0; j < observed.size(); ++j) {
    const auto endpoint = static_cast<std::size_t>(observed[j].endpoint);
    if (model.observed().is_normal(observed[j]) ||
        has_row_values(model.specification().endpoints[endpoint].outcome))
      rows.push_back(static_cast<Eigen::Index>(j));
  }
  return rows;
}

// What of observations with steps makes continuous ones: their rank and a number between 0 and 1.
// Observed and simulated values alike, so that their order stays and ties are broken at random.
class smoothing {
 public:
  smoothing(const population_model& model, int subject, int seed)
      : model_(model),
        observed_(model.data().subjects[static_cast<std::size_t>(subject)].observations),
        draw_({seed, static_cast<int>(stream::steps), subject}) {}

  double operator()(Eigen::Index row, double value) {
    const observation& at = observed_[static_cast<std::size_t>(row)];
    if (model_.observed().is_normal(at)) return value;
    const auto endpoint = static_cast<std::size_t>(at.endpoint);
    return rank_of(model_.specification().endpoints[endpoint].outcome, value) + draw_.uniform();
  }

 private:
  const population_model& model_;
  const std::vector<observation>& observed_;
  deviates draw_;
};

// Those observations x simulations; fewer columns where the model failed.
Eigen::MatrixXd simulate(const population_model& model, int subject, const Eigen::VectorXd& theta,
                         const Eigen::MatrixXd& omega, int simulations, deviates& draw,
                         const std::vector<Eigen::Index>& rows) {
  Eigen::MatrixXd f;
  Eigen::MatrixXd result;
  const drawn_parameters at{theta, omega};
  subject_simulator from(model, subject, at);
  from.simulate(
      simulations, [&](int) -> deviates& { return draw; }, f, result);
  if (static_cast<Eigen::Index>(rows.size()) < result.rows())
    result = Eigen::MatrixXd(result(rows, Eigen::all));
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
  const std::vector<Eigen::Index> rows = rows_with_values(model, subject);
  const auto n = static_cast<Eigen::Index>(rows.size());
  const Eigen::VectorXd unknown = Eigen::VectorXd::Constant(
      model.observations(subject), std::numeric_limits<double>::quiet_NaN());
  if (n == 0) return unknown;
  deviates draw({seed, subject});
  Eigen::MatrixXd y = simulate(model, subject, theta, omega, simulations, draw, rows);
  smoothing smooth(model, subject, seed);
  for (double& value : y.reshaped())
    value = smooth(rows[static_cast<std::size_t>((&value - y.data()) % n)], value);
  if (y.cols() <= n + 1) return unknown;

  const Eigen::VectorXd mean = y.rowwise().mean();
  y.colwise() -= mean;
  Eigen::MatrixXd factor;
  if (!decorrelate(y, factor)) return unknown;

  // Forward substitution, in which a censored observation takes its place before the next.
  Eigen::VectorXd decorrelated = Eigen::VectorXd::Zero(n);
  Eigen::VectorXd result = unknown;
  for (Eigen::Index j = 0; j < n; ++j) {
    const observation& at =
        model.data()
            .subjects[static_cast<std::size_t>(subject)]
            .observations[static_cast<std::size_t>(rows[static_cast<std::size_t>(j)])];
    const double expected = mean(j) + factor.row(j).dot(decorrelated);
    const auto scaled = [&](double y_or_limit) { return (y_or_limit - expected) / factor(j, j); };
    const double value = smooth(rows[static_cast<std::size_t>(j)], at.value);
    const auto share_of = [&](double y_or_limit) {
      return share_below(y.row(j), scaled(y_or_limit));
    };
    const auto [from, to] = at.censored == censoring::none
                                ? std::pair{share_of(value), share_of(value)}
                                : possible_shares(at, share_of);
    const double share = from + draw.uniform() * (to - from);
    decorrelated(j) = at.censored == censoring::none ? scaled(value) : quantile(y.row(j), share);
    result(rows[static_cast<std::size_t>(j)]) = statsubs::dnorminv(share);
  }
  return result;
}

std::vector<Eigen::VectorXd> npde(const population_model& model, const Eigen::VectorXd& theta,
                                  const Eigen::MatrixXd& omega, const job& peers,
                                  const progress_listener& progress) {
  const estimation_settings& settings = model.specification().estimation;
  if (settings.npde_samples == 0) return {};
  // All of them in the order of the subjects, each simulated by the process that owns it.
  std::vector<std::ptrdiff_t> sizes;
  std::vector<std::ptrdiff_t> places = {0};
  for (int i = 0; i < model.subjects(); ++i) {
    sizes.push_back(model.observations(i));
    places.push_back(places.back() + sizes.back());
  }
  Eigen::VectorXd all(places.back());
  const std::vector<int> own = own_subjects(model, peers);
  subject_progress shown(progress, run_stage::npde, model.subjects(), peers);
  peers.threads().for_each(static_cast<int>(own.size()), [&](int k, int) {
    if (stop_requested()) return;
    const int i = own[static_cast<std::size_t>(k)];
    all.segment(places[static_cast<std::size_t>(i)], model.observations(i)) =
        npde(model, i, theta, omega, settings.npde_samples, settings.seed);
    shown.done_one();
  });
  peers.gather(all.data(), sizes);
  std::vector<Eigen::VectorXd> result;
  for (std::size_t i = 0; i < sizes.size(); ++i)
    result.emplace_back(all.segment(places[i], sizes[i]));
  return result;
}

}  // namespace varda
