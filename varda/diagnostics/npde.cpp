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

// Puts what is known of observations on the scale of simulated values (ranked_values). Ranks have a
// number between 0 and 1 added, observed and simulated ones alike, so that their order stays and
// ties are broken at random.
class value_scale {
 public:
  value_scale(const population_model& model, int subject, int seed)
      : model_(model),
        observed_(model.data().subjects[static_cast<std::size_t>(subject)].observations),
        draw_({seed, static_cast<int>(stream::steps), subject}) {}

  const observation& at(Eigen::Index row) const { return observed_[static_cast<std::size_t>(row)]; }

  double operator()(Eigen::Index row, double value) const {
    if (model_.observed().is_normal(at(row))) return model_.observed().transformed(at(row), value);
    const auto endpoint = static_cast<std::size_t>(at(row).endpoint);
    return rank_of(model_.specification().endpoints[endpoint].outcome, value);
  }

  // What is added to an observed value.
  double step(Eigen::Index row) {
    return model_.observed().is_normal(at(row)) ? 0.0 : draw_.uniform();
  }
  // The same for those simulated, and for what is known of them.
  void smooth(const std::vector<Eigen::Index>& rows, ranked_values& simulated) {
    for (std::size_t k = 0; k < rows.size(); ++k) {
      if (model_.observed().is_normal(at(rows[k]))) continue;
      const auto j = static_cast<Eigen::Index>(k);
      for (double& value : simulated.values.col(j)) value += draw_.uniform();
      simulated.means.col(j).array() += 0.5;
      simulated.variances(j) += 1.0 / 12.0;
    }
  }

 private:
  const population_model& model_;
  const std::vector<observation>& observed_;
  deviates draw_;
};

// Share of the values below x, away from 0 and 1.
template <class Values>
double share_below(const Values& values, double x) {
  const auto n = static_cast<double>(values.size());
  const auto below = static_cast<double>((values.array() < x).count());
  return std::clamp(below / n, 0.5 / n, 1.0 - 0.5 / n);
}

// The value below which a share of the values lies.
double quantile(Eigen::VectorXd values, double share) {
  const auto rank = std::min(static_cast<Eigen::Index>(share * static_cast<double>(values.size())),
                             values.size() - 1);
  std::nth_element(values.begin(), values.begin() + rank, values.end());
  return values(rank);
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
  const drawn_parameters at{theta, omega};
  ranked_values simulated = subject_simulator(model, subject, at).simulate(simulations, draw, rows);
  if (simulated.values.rows() < 2) return unknown;
  value_scale scale(model, subject, seed);
  scale.smooth(rows, simulated);
  const auto by = decorrelation::of(std::move(simulated.means), simulated.variances);
  if (!by) return unknown;
  Eigen::MatrixXd& y = simulated.values;
  by->apply(y);

  // A censored observation takes its place before the next.
  decorrelation::sequence observed(*by);
  Eigen::VectorXd result = unknown;
  for (Eigen::Index j = 0; j < n; ++j) {
    const Eigen::Index row = rows[static_cast<std::size_t>(j)];
    const observation& of_row = scale.at(row);
    const double expected = observed.expected();
    const auto decorrelated = [&](double value) {
      return (value - expected) / observed.deviation();
    };
    const auto share_of = [&](double y_or_limit) {
      return share_below(y.col(j), decorrelated(scale(row, y_or_limit)));
    };
    const double value = decorrelated(scale(row, of_row.value) + scale.step(row));
    const double here = share_below(y.col(j), value);
    const auto [from, to] = of_row.censored == censoring::none ? std::pair{here, here}
                                                               : possible_shares(of_row, share_of);
    const double share = from + draw.uniform() * (to - from);
    observed.append(of_row.censored == censoring::none ? value : quantile(y.col(j), share));
    result(row) = statsubs::dnorminv(share);
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
