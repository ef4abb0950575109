// SPDX-License-Identifier: Apache-2.0
#include "varda/simulation/simulate.h"

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

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
}

void subject_simulator::simulate(int count, const std::function<deviates&(int)>& stream,
                                 Eigen::MatrixXd& f, Eigen::MatrixXd& y) {
  constexpr int block = 256;  // individuals whose predictions are made at once
  const auto& observed = model_.data().subjects[static_cast<std::size_t>(subject_)].observations;
  const auto n = static_cast<Eigen::Index>(observed.size());
  f.resize(n, count);
  y.resize(n, count);
  Eigen::VectorXd z(mu_.size());
  Eigen::MatrixXd predictions;
  for (int begin = 0; begin < count; begin += block) {
    const int size = std::min(block, count - begin);
    Eigen::MatrixXd phi(mu_.size(), size);
    for (int k = 0; k < size; ++k) {
      deviates& draw = stream(begin + k);
      for (double& value : z) value = draw.normal();
      phi.col(k) = mu_ + factor_ * z;
      for (double& value : y.col(begin + k)) value = draw.normal();
    }
    joint_.predict(subject_, theta_.data(), phi, predictions, scratch_);
    f.middleCols(begin, size) = predictions.transpose();
  }
  for (Eigen::Index k = 0; k < count; ++k)
    for (Eigen::Index j = 0; j < n; ++j)
      y(j, k) = model_.observed().simulated(observed[static_cast<std::size_t>(j)], f(j, k), y(j, k),
                                            theta_.data());
}

namespace {

simulated_subject simulate_subject(const population_model& model, int subject,
                                   const std::vector<drawn_parameters>& parameters,
                                   const simulation_plan& plan) {
  simulated_subject result;
  result.individual.resize(model.observations(subject), plan.replicates);
  result.values.resize(model.observations(subject), plan.replicates);
  if (model.observations(subject) == 0) return result;
  std::optional<deviates> draw;
  const auto stream_of = [&](int replicate) -> deviates& {
    return draw.emplace(std::initializer_list<int>{plan.seed, static_cast<int>(stream::individuals),
                                                   subject, replicate});
  };
  if (parameters.size() == 1) {
    subject_simulator(model, subject, parameters.front())
        .simulate(plan.replicates, stream_of, result.individual, result.values);
  } else {
    Eigen::MatrixXd f;
    Eigen::MatrixXd y;
    for (int r = 0; r < plan.replicates; ++r) {
      subject_simulator one(model, subject, parameters[static_cast<std::size_t>(r)]);
      one.simulate(
          1, [&](int) -> deviates& { return stream_of(r); }, f, y);
      result.individual.col(r) = f;
      result.values.col(r) = y;
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
  for_each_subject(model.subjects(), plan.threads, [&](int i) {
    result[static_cast<std::size_t>(i)] = simulate_subject(model, i, parameters, plan);
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
  density(model).predict(subject, theta.data(), mu, f, scratch);
  return f.transpose();
}

quantification::quantification(const population_model& model) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  by_endpoint_.assign(model.specification().endpoints.size(), {-infinity, infinity});
  for (const subject& who : model.data().subjects)
    for (const observation& o : who.observations) {
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
