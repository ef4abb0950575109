// SPDX-License-Identifier: Apache-2.0
#include "varda/model/population_model.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace varda {

namespace {

const double log_2pi = std::log(2.0 * std::numbers::pi);

double inverse_logit(double x) {
  return 1.0 / (1.0 + std::exp(-x));
}

int position(const std::vector<std::string>& names, const std::string& name) {
  return static_cast<int>(std::find(names.begin(), names.end(), name) - names.begin());
}

double transformed_covariate(const covariate_effect& effect, double value) {
  return effect.form == effect_form::power ? std::log(value / effect.center)
                                           : value - effect.center;
}

}  // namespace

double fixed_effect::natural(double theta) const {
  if (law != distribution::logit_normal) return theta;
  return range_lower + (range_upper - range_lower) * inverse_logit(theta);
}

double fixed_effect::natural_slope(double theta) const {
  if (law != distribution::logit_normal) return 1.0;
  const double share = inverse_logit(theta);
  return (range_upper - range_lower) * share * (1.0 - share);
}

double fixed_effect::regression(double theta) const {
  return law == distribution::log_normal ? std::log(theta) : theta;
}

double fixed_effect::from_regression(double beta) const {
  return law == distribution::log_normal ? std::exp(beta) : beta;
}

population_model::population_model(model_file file, dataset data)
    : file_(std::move(file)),
      data_(std::move(data)),
      structure_(make_structural_model(file_.structure)) {
  for (int k = 0; k < structural_parameters(); ++k) {
    const bool random = file_.parameters[static_cast<std::size_t>(k)].law != distribution::none;
    parameter_effect_.push_back(random ? random_effects() : -1);
    if (random) effect_parameter_.push_back(k);
  }
  lay_out_theta();
  lay_out_design();
  lay_out_omega();
}

void population_model::lay_out_theta() {
  for (const parameter& p : file_.parameters) {
    fixed_effect t;
    t.name = p.name;
    t.role = p.law == distribution::none ? theta_role::flat_parameter : theta_role::typical_value;
    t.law = p.law;
    t.fixed = p.fixed;
    t.start = p.start;
    t.lower = p.lower;
    t.upper = p.upper;
    if (p.law == distribution::log_normal) t.lower = std::max(p.lower, 0.0);
    if (p.law == distribution::logit_normal) {
      t.range_lower = p.range_lower;
      t.range_upper = p.range_upper;
      t.start = std::log((p.start - p.range_lower) / (p.range_upper - p.start));
      t.lower = -std::numeric_limits<double>::infinity();
      t.upper = std::numeric_limits<double>::infinity();
    }
    thetas_.push_back(t);
  }
  for (const parameter& p : file_.parameters)
    for (const covariate_effect& e : p.effects) {
      fixed_effect t;
      t.name = e.name;
      t.role = theta_role::covariate_effect;
      t.start = e.start;
      t.fixed = e.fixed;
      t.lower = e.lower;
      t.upper = e.upper;
      thetas_.push_back(t);
    }

  const residual_error& r = file_.residual;
  const auto deviation = [this](const char* name, double start, bool fixed) {
    fixed_effect t;
    t.name = name;
    t.role = theta_role::residual_deviation;
    t.start = start;
    t.fixed = fixed;
    t.upper = std::numeric_limits<double>::infinity();
    residuals_.push_back({name, static_cast<int>(thetas_.size()), fixed});
    thetas_.push_back(t);
  };
  if (r.kind != error_kind::additive)
    deviation("proportional", r.proportional, r.proportional_fixed);
  if (r.kind != error_kind::proportional) deviation("additive", r.additive, r.additive_fixed);
}

void population_model::lay_out_design() {
  const int effects = random_effects();
  for (int e = 0; e < effects; ++e) columns_.push_back({parameter_of(e), e});

  std::vector<const covariate_effect*> covariates;
  int theta = structural_parameters();
  for (int k = 0; k < structural_parameters(); ++k)
    for (const covariate_effect& e : file_.parameters[static_cast<std::size_t>(k)].effects) {
      columns_.push_back({theta++, parameter_effect_[static_cast<std::size_t>(k)]});
      covariates.push_back(&e);
    }

  design_.setOnes(subjects(), static_cast<Eigen::Index>(columns_.size()));
  for (std::size_t c = 0; c < covariates.size(); ++c) {
    const int covariate = position(data_.covariate_names, covariates[c]->covariate);
    for (int i = 0; i < subjects(); ++i) {
      const subject& who = data_.subjects[static_cast<std::size_t>(i)];
      const double value = who.segments.front().covariates[static_cast<std::size_t>(covariate)];
      const double entry = transformed_covariate(*covariates[c], value);
      if (!std::isfinite(entry))
        throw bad_input({.code = "E-DATA-COVARIATE",
                         .message = fmt::format("the covariate effect {} cannot be formed from {}",
                                                covariates[c]->name, value),
                         .remedy = "a power effect needs values above 0",
                         .file = data_.file,
                         .row = who.first_row,
                         .column = covariates[c]->covariate,
                         .subject = who.id});
      design_(i, effects + static_cast<Eigen::Index>(c)) = entry;
    }
  }
}

void population_model::lay_out_omega() {
  omega_mask_.setZero(random_effects(), random_effects());
  for (const omega_block& block : file_.omega) {
    if (block.fixed) continue;
    for (const std::string& row : block.names)
      for (const std::string& column : block.names)
        omega_mask_(effect_of(row), effect_of(column)) = 1.0;
  }
}

int population_model::effect_of(const std::string& name) const {
  const int k = position(structure_->parameter_names(), name);
  return parameter_effect_[static_cast<std::size_t>(k)];
}

const std::string& population_model::effect_name(int eta) const {
  return file_.parameters[static_cast<std::size_t>(parameter_of(eta))].name;
}

Eigen::VectorXd population_model::start_theta() const {
  Eigen::VectorXd theta(static_cast<Eigen::Index>(thetas_.size()));
  for (std::size_t k = 0; k < thetas_.size(); ++k)
    theta(static_cast<Eigen::Index>(k)) = thetas_[k].start;
  return theta;
}

Eigen::MatrixXd population_model::start_omega() const {
  Eigen::MatrixXd omega = Eigen::MatrixXd::Zero(random_effects(), random_effects());
  for (const omega_block& block : file_.omega) {
    const std::size_t order = block.names.size();
    for (std::size_t i = 0; i < order; ++i)
      for (std::size_t j = 0; j < order; ++j)
        omega(effect_of(block.names[i]), effect_of(block.names[j])) = block.matrix[i + j * order];
  }
  return omega;
}

void population_model::means(int subject, const double* theta, double* mu) const {
  std::fill(mu, mu + random_effects(), 0.0);
  for (std::size_t c = 0; c < columns_.size(); ++c) {
    const design_column& column = columns_[c];
    mu[column.eta] +=
        design_(subject, static_cast<Eigen::Index>(c)) *
        thetas_[static_cast<std::size_t>(column.theta)].regression(theta[column.theta]);
  }
}

int population_model::parameter_sets(int /*subject*/) const {
  return 1;
}

void population_model::individual_parameters(int /*subject*/, const double* theta,
                                             const double* phi, double* p) const {
  const int count = structural_parameters();
  for (int k = 0; k < count; ++k) {
    const fixed_effect& t = thetas_[static_cast<std::size_t>(k)];
    const int eta = parameter_effect_[static_cast<std::size_t>(k)];
    switch (t.law) {
      case distribution::log_normal:
        p[k] = std::exp(phi[eta]);
        break;
      case distribution::normal:
        p[k] = phi[eta];
        break;
      case distribution::logit_normal:
        p[k] = t.natural(phi[eta]);
        break;
      case distribution::none:
        p[k] = theta[k];
        break;
    }
  }
}

void population_model::predict(int subject, const double* p, double* f) const {
  const varda::subject& who = data_.subjects[static_cast<std::size_t>(subject)];
  structure_->predict(who,
                      {p, static_cast<std::size_t>(structural_parameters()),
                       static_cast<std::size_t>(parameter_sets(subject))},
                      {f, who.observations.size()});
}

residual_deviations population_model::deviations(const double* theta) const {
  const double last = theta[thetas_.size() - 1];
  switch (file_.residual.kind) {
    case error_kind::additive:
      return {last, 0.0};
    case error_kind::proportional:
      return {0.0, last};
    case error_kind::combined:
      break;
  }
  return {last, theta[thetas_.size() - 2]};
}

double population_model::residual_objective(int subject, const double* f, const double* theta,
                                            double& scaled_squares) const {
  const residual_deviations sd = deviations(theta);
  const auto& observed = data_.subjects[static_cast<std::size_t>(subject)].observations;
  const double n = static_cast<double>(observed.size());
  double squares = 0.0;
  double log_variance = 0.0;
  if (sd.proportional == 0.0) {
    for (std::size_t k = 0; k < observed.size(); ++k) {
      const double r = observed[k].value - f[k];
      squares += r * r;
    }
    const double variance = sd.additive * sd.additive;
    squares /= variance;
    log_variance = n * std::log(variance);
  } else {
    const double a2 = sd.additive * sd.additive;
    const double b2 = sd.proportional * sd.proportional;
    for (std::size_t k = 0; k < observed.size(); ++k) {
      const double r = observed[k].value - f[k];
      const double variance = a2 + b2 * f[k] * f[k];
      squares += r * r / variance;
      log_variance += std::log(variance);
    }
  }
  scaled_squares = squares;
  return 0.5 * (squares + log_variance + n * log_2pi);
}

int population_model::first_failure(int subject, const double* f, const double* theta) const {
  const residual_deviations sd = deviations(theta);
  const auto& observed = data_.subjects[static_cast<std::size_t>(subject)].observations;
  for (std::size_t k = 0; k < observed.size(); ++k) {
    const double deviation = std::hypot(sd.additive, sd.proportional * f[k]);
    if (!std::isfinite(f[k]) || !(deviation > 0.0)) return static_cast<int>(k);
  }
  return -1;
}

void check_start(const population_model& model) {
  const Eigen::VectorXd theta = model.start_theta();
  const residual_deviations sd = model.deviations(theta.data());
  std::vector<double> mu(static_cast<std::size_t>(model.random_effects()));
  std::vector<double> p(static_cast<std::size_t>(model.structural_parameters()));
  for (int i = 0; i < model.subjects(); ++i) {
    const subject& who = model.data().subjects[static_cast<std::size_t>(i)];
    model.means(i, theta.data(), mu.data());
    model.individual_parameters(i, theta.data(), mu.data(), p.data());
    std::vector<double> f(who.observations.size());
    model.predict(i, p.data(), f.data());
    const int k = model.first_failure(i, f.data(), theta.data());
    if (k < 0) continue;
    const auto at = static_cast<std::size_t>(k);
    throw bad_input(
        {.code = "E-RUN-START",
         .message = fmt::format("the model cannot be evaluated at the start values: prediction {}, "
                                "residual deviation {}",
                                f[at], std::hypot(sd.additive, sd.proportional * f[at])),
         .remedy = "a proportional error needs predictions other than 0 (leave such "
                   "records out or add an additive error); otherwise change the start "
                   "values",
         .file = model.data().file,
         .row = who.observations[at].row,
         .subject = who.id});
  }
}

}  // namespace varda
