// SPDX-License-Identifier: Apache-2.0
#include "varda/simulation/simulate.h"

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <utility>

#include "statsubs/distributions/cumnor.h"
#include "statsubs/estep/normal_quantiles.h"
#include "varda/model/equations/outcome_formulas.h"
#include "varda/simulation/threads.h"

namespace varda {

Eigen::MatrixXd factor_of(const Eigen::MatrixXd& omega) {
  const Eigen::LLT<Eigen::MatrixXd> llt(omega);
  if (llt.info() == Eigen::Success) return llt.matrixL();
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(omega);
  return solver.eigenvectors() *
         solver.eigenvalues().cwiseMax(0.0).cwiseSqrt().asDiagonal().toDenseMatrix();
}

subject_simulator::subject_simulator(const population_model& model, int subject,
                                     const drawn_parameters& at)
    : model_(model),
      subject_(subject),
      theta_(at.theta),
      mu_(model.random_effects()),
      factor_(factor_of(at.omega)),
      joint_(model),
      scratch_(model) {
  model.means(subject, theta_.data(), mu_.data());
  lay_out();
}

void subject_simulator::lay_out() {
  const subject& who = model_.as_expected(subject_);
  asking_ = who;
  if (model_.all_normal()) return;
  asking_.observations.clear();
  asking_.timeline.clear();
  places_.resize(who.observations.size());
  for (const event& e : who.timeline) {
    if (e.kind != event_kind::observation) {
      asking_.timeline.push_back(e);
      continue;
    }
    const auto k = static_cast<std::size_t>(e.index);
    const observation& o = who.observations[k];
    const outcome_text& of =
        model_.specification().endpoints[static_cast<std::size_t>(o.endpoint)].outcome;
    places_[k] = asking_.observations.size();
    append(asking_, o);
    const int more = has_row_values(of) ? law_parameters(of) : 0;
    for (int q = 0; q < more; ++q) {
      observation parameter = o;
      parameter.quantity = quantity::parameters + q;
      append(asking_, parameter);
    }
  }
  // Instants and the states of earlier rows are found behind all observations and at new places.
  const auto moved = [&](int place) {
    if (place < 0) return place;
    const auto k = static_cast<std::size_t>(place);
    return static_cast<int>(k < places_.size() ? places_[k]
                                               : k - places_.size() + asking_.observations.size());
  };
  for (observation& o : asking_.observations) {
    o.at_begin = moved(o.at_begin);
    o.at_limit = moved(o.at_limit);
  }
}

template <class Next, class After>
void subject_simulator::draw_block(int size, const Next& next, const After& after, block& made) {
  const auto& observed = model_.data().subjects[static_cast<std::size_t>(subject_)].observations;
  const auto n = static_cast<Eigen::Index>(observed.size());
  // The observations with Student's t and their degrees of freedom.
  std::vector<std::pair<Eigen::Index, double>> student;
  for (Eigen::Index j = 0; j < n; ++j) {
    const observation& at = observed[static_cast<std::size_t>(j)];
    const double nu = model_.observed().degrees_of_freedom(at);
    if (nu > 0.0) student.emplace_back(j, nu);
  }
  made.phi.resize(mu_.size(), size);
  made.deviations.resize(size, n);
  // The random effects of an individual, then its deviations. Those of some individuals become
  // normal together: lines of memory hold so many of one observation's.
  const Eigen::Index effects = mu_.size();
  const int together = std::clamp(static_cast<int>(4096 / (effects + n)) / 8 * 8, 8, 64);
  Eigen::MatrixXd drawn(effects + n, together);
  Eigen::MatrixXd divisors(static_cast<Eigen::Index>(student.size()), together);
  for (int begin = 0; begin < size; begin += together) {
    const int count = std::min(together, size - begin);
    for (int k = 0; k < count; ++k) {
      deviates& draw = next(begin + k);
      draw.uniforms(drawn.col(k).data(), drawn.rows());
      for (std::size_t s = 0; s < student.size(); ++s) {
        const double nu = student[s].second;
        divisors(static_cast<Eigen::Index>(s), k) = std::sqrt(draw.chi_square(nu) / nu);
      }
      after(draw);
    }
    statsubs::normal_quantiles({drawn.data(), static_cast<int>(drawn.rows()), count});
    for (int k = 0; k < count; ++k)
      made.phi.col(begin + k) = mu_ + factor_ * drawn.col(k).head(effects);
    auto e = drawn.bottomRows(n);
    for (std::size_t s = 0; s < student.size(); ++s)
      e.row(student[s].first).head(count).array() /=
          divisors.row(static_cast<Eigen::Index>(s)).head(count).array();
    made.deviations.middleRows(begin, count) = e.leftCols(count).transpose();
  }
  joint_.predict(subject_, asking_, theta_.data(), made.phi, made.predictions, scratch_);
}

namespace {

// Where in the distribution of a value a standard normal deviate lies.
double share_of(double deviate) {
  double share = 0.0;
  double rest = 0.0;
  statsubs::cumnor(deviate, share, rest);
  return share;
}

}  // namespace

void subject_simulator::simulate(int count, const std::function<deviates&(int)>& stream,
                                 const event_design& events, Eigen::MatrixXd& f, Eigen::MatrixXd& y,
                                 std::vector<std::vector<event_row>>& happened) {
  const auto& observed = model_.data().subjects[static_cast<std::size_t>(subject_)].observations;
  const auto n = static_cast<Eigen::Index>(observed.size());
  f.resize(n, count);
  y.resize(n, count);
  block made;
  for (int begin = 0; begin < count; begin += block_size) {
    const int size = std::min(block_size, count - begin);
    std::vector<deviates> later;
    draw_block(
        size, [&](int k) -> deviates& { return stream(begin + k); },
        [&](const deviates& draw) {
          if (!events.empty()) later.push_back(draw);
        },
        made);
    for (Eigen::Index j = 0; j < n; ++j) {
      const observation& at = observed[static_cast<std::size_t>(j)];
      const Eigen::Index place = place_of(static_cast<std::size_t>(j));
      f.row(j).segment(begin, size) = made.predictions.col(place).transpose();
      if (model_.observed().is_normal(at)) {
        for (int k = 0; k < size; ++k)
          y(j, begin + k) = model_.observed().simulated(at, f(j, begin + k), made.deviations(k, j),
                                                        theta_.data());
        continue;
      }
      const outcome_text& of =
          model_.specification().endpoints[static_cast<std::size_t>(at.endpoint)].outcome;
      if (!has_row_values(of)) {
        y.row(j).segment(begin, size).setConstant(std::numeric_limits<double>::quiet_NaN());
        continue;
      }
      Eigen::VectorXd law(law_parameters(of));
      for (int k = 0; k < size; ++k) {
        law = made.predictions.row(k).segment(place + 1, law.size()).transpose();
        y(j, begin + k) = outcome_at(of, law.data(), share_of(made.deviations(k, j)));
      }
    }
    if (events.empty()) continue;
    joint_.predict(subject_, events.who(), theta_.data(), made.phi, made.predictions, scratch_);
    for (int k = 0; k < size; ++k) {
      std::vector<event_row>& own = happened[static_cast<std::size_t>(begin + k)];
      if (!events.draw(made.predictions.row(k).transpose(), later[static_cast<std::size_t>(k)],
                       own))
        own.clear();
    }
  }
}

ranked_values subject_simulator::simulate(int count, deviates& draw,
                                          const std::vector<Eigen::Index>& rows) {
  const auto& observed = model_.data().subjects[static_cast<std::size_t>(subject_)].observations;
  const auto n = static_cast<Eigen::Index>(rows.size());
  ranked_values result{Eigen::MatrixXd(count, n), Eigen::MatrixXd(count, n),
                       Eigen::VectorXd::Zero(n)};
  block made;
  Eigen::MatrixXd variances;
  Eigen::Index usable = 0;
  for (int begin = 0; begin < count; begin += block_size) {
    const int size = std::min(block_size, count - begin);
    draw_block(
        size, [&](int) -> deviates& { return draw; }, [](const deviates&) {}, made);
    variances.resize(size, n);
    auto values = result.values.middleRows(usable, size);
    auto means = result.means.middleRows(usable, size);
    // Finite where everything of an individual is.
    Eigen::ArrayXd sums = Eigen::ArrayXd::Zero(size);
    const auto add_up = [&](Eigen::Index j) {
      sums +=
          0.0 * values.col(j).array() + 0.0 * means.col(j).array() + 0.0 * variances.col(j).array();
    };
    for (Eigen::Index j = 0; j < n; ++j) {
      const Eigen::Index row = rows[static_cast<std::size_t>(j)];
      const observation& at = observed[static_cast<std::size_t>(row)];
      const Eigen::Index place = place_of(static_cast<std::size_t>(row));
      if (model_.observed().is_normal(at)) {
        auto deviations = variances.col(j).array();
        model_.observed().scatter(at, made.predictions.col(place).data(),
                                  static_cast<std::size_t>(size), theta_.data(),
                                  means.col(j).data(), deviations.data());
        values.col(j) = means.col(j).array() + deviations * made.deviations.col(row).array();
        deviations *= deviations * model_.observed().variance_of_e(at);
        add_up(j);
        continue;
      }
      const outcome_text& of =
          model_.specification().endpoints[static_cast<std::size_t>(at.endpoint)].outcome;
      Eigen::VectorXd law(law_parameters(of));
      for (int k = 0; k < size; ++k) {
        law = made.predictions.row(k).segment(place + 1, law.size()).transpose();
        const rank_moments moments = rank_moments_of(of, law.data());
        means(k, j) = moments.mean;
        variances(k, j) = moments.variance;
        values(k, j) = rank_of(of, outcome_at(of, law.data(), share_of(made.deviations(k, row))));
      }
      add_up(j);
    }
    Eigen::Index kept = 0;
    for (int k = 0; k < size; ++k) {
      if (!std::isfinite(sums(k))) continue;
      if (kept < k) {
        values.row(kept) = values.row(k);
        means.row(kept) = means.row(k);
        variances.row(kept) = variances.row(k);
      }
      ++kept;
    }
    result.variances += variances.topRows(kept).colwise().sum().transpose();
    usable += kept;
  }
  if (usable < count) {
    result.values.conservativeResize(usable, Eigen::NoChange);
    result.means.conservativeResize(usable, Eigen::NoChange);
  }
  result.variances /= static_cast<double>(usable);
  return result;
}

namespace {

simulated_subject simulate_subject(const population_model& model, int subject,
                                   const std::vector<drawn_parameters>& parameters,
                                   const watch_times& until, const simulation_plan& plan) {
  simulated_subject result;
  result.individual.resize(model.observations(subject), plan.replicates);
  result.values.resize(model.observations(subject), plan.replicates);
  if (model.observations(subject) == 0) return result;
  std::optional<deviates> draw;
  const auto stream_of = [&](int replicate) -> deviates& {
    return draw.emplace(std::initializer_list<int>{plan.seed, static_cast<int>(stream::individuals),
                                                   subject, replicate});
  };
  const event_design events(model, subject, until);
  if (!events.empty()) result.events.resize(static_cast<std::size_t>(plan.replicates));
  if (parameters.size() == 1) {
    subject_simulator(model, subject, parameters.front())
        .simulate(plan.replicates, stream_of, events, result.individual, result.values,
                  result.events);
  } else {
    Eigen::MatrixXd f;
    Eigen::MatrixXd y;
    std::vector<std::vector<event_row>> happened(1);
    for (int r = 0; r < plan.replicates; ++r) {
      subject_simulator one(model, subject, parameters[static_cast<std::size_t>(r)]);
      happened.front().clear();
      one.simulate(
          1, [&](int) -> deviates& { return stream_of(r); }, events, f, y, happened);
      result.individual.col(r) = f;
      result.values.col(r) = y;
      if (!events.empty()) result.events[static_cast<std::size_t>(r)] = happened.front();
    }
  }
  for (double& value : result.values.reshaped())
    if (!std::isfinite(value)) value = std::numeric_limits<double>::quiet_NaN();
  return result;
}

}  // namespace

std::vector<simulated_subject> simulate(const population_model& model,
                                        const std::vector<drawn_parameters>& parameters,
                                        const simulation_plan& plan) {
  std::vector<simulated_subject> result(static_cast<std::size_t>(model.subjects()));
  const watch_times until(model);
  for_each_subject(model.subjects(), plan.threads, [&](int i) {
    result[static_cast<std::size_t>(i)] = simulate_subject(model, i, parameters, until, plan);
  });
  return result;
}

Eigen::VectorXd population_predictions(const population_model& model, int subject,
                                       const Eigen::VectorXd& theta) {
  if (model.observations(subject) == 0) return {};
  Eigen::VectorXd mu(model.random_effects());
  model.means(subject, theta.data(), mu.data());
  density_workspace scratch(model);
  Eigen::MatrixXd f;
  density(model).expect(subject, theta.data(), mu, f, scratch);
  return f.transpose();
}

quantification::quantification(const population_model& model) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  by_endpoint_.assign(model.specification().endpoints.size(), {-infinity, infinity});
  for (const subject& who : model.data().subjects)
    for (const observation& o : who.observations) {
      if (!model.observed().is_normal(o)) continue;
      quantified_range& range = by_endpoint_[static_cast<std::size_t>(o.endpoint)];
      if (o.censored == censoring::left || o.censored == censoring::interval)
        range.lower = std::max(range.lower, o.value);
      if (o.censored == censoring::right) range.upper = std::min(range.upper, o.value);
    }
}

quantified_range quantification::range_of(const observation& at) const {
  quantified_range range = by_endpoint_[static_cast<std::size_t>(at.endpoint)];
  switch (at.censored) {
    case censoring::left:
    case censoring::interval:
      range.lower = at.value;
      break;
    case censoring::right:
      range.upper = at.value;
      break;
    case censoring::none:
      break;
  }
  return range;
}

}  // namespace varda
