// SPDX-License-Identifier: Apache-2.0
#include "varda/model/population.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "varda/data/summed_doses.h"
#include "varda/model/equations/outcome_formulas.h"
#include "varda/model/event_times.h"
#include "varda/model/lanes/kernel.h"

namespace varda {

namespace {

int position(const std::vector<std::string>& names, const std::string& name) {
  return static_cast<int>(std::find(names.begin(), names.end(), name) - names.begin());
}

fixed_effect typical_value(const parameter& p) {
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
  return t;
}

fixed_effect coefficient_of(const covariate_coefficient& c) {
  fixed_effect t;
  t.name = c.name;
  t.role = c.in_design ? theta_role::covariate_effect : theta_role::direct_effect;
  t.start = c.effect.start;
  t.fixed = c.effect.fixed;
  t.lower = c.effect.lower;
  t.upper = c.effect.upper;
  return t;
}

int count_of_thetas(const model_specification& file,
                    const std::vector<covariate_coefficient>& all) {
  return static_cast<int>(file.parameters.size() + all.size());
}

structure_choice for_data(structure_choice choice, const dataset& data) {
  if (!choice.equations.sums.empty()) choice.equations.summed_doses = count_summed_doses(data);
  return choice;
}

}  // namespace

population_model::population_model(model_specification file, dataset data)
    : file_(std::move(file)),
      data_(std::move(data)),
      structure_(make_structural_model(for_data(file_.structure, data_))),
      observed_(file_.endpoints, count_of_thetas(file_, covariate_coefficients(file_, data_)),
                data_) {
  const std::vector<covariate_coefficient> coefficients = covariate_coefficients(file_, data_);
  std::vector<int> used;
  for (const std::string& name : structure_->covariates())
    used.push_back(position(data_.covariate_names, name));
  structure_->locate_covariates(used);
  lay_out_expected();
  lay_out_theta(coefficients);
  lay_out_effects();
  lay_out_design(coefficients);
  lay_out_omega();
  lay_out_sets();
}

void population_model::lay_out_expected() {
  if (std::all_of(file_.endpoints.begin(), file_.endpoints.end(),
                  [](const endpoint& of) { return of.is_normal(); }))
    return;
  prepare_events(file_, data_);
  expected_ = data_.subjects;
  for (varda::subject& who : expected_)
    for (observation& o : who.observations)
      if (!observed_.is_normal(o)) o.quantity = quantity::expected;
}

void population_model::lay_out_theta(const std::vector<covariate_coefficient>& coefficients) {
  for (const parameter& p : file_.parameters) thetas_.push_back(typical_value(p));
  for (const covariate_coefficient& c : coefficients) thetas_.push_back(coefficient_of(c));
  first_of_endpoints_ = static_cast<int>(thetas_.size());
  thetas_.insert(thetas_.end(), observed_.parameters().begin(), observed_.parameters().end());
}

void population_model::lay_out_effects() {
  for (int k = 0; k < structural_parameters(); ++k) {
    const parameter& p = file_.parameters[static_cast<std::size_t>(k)];
    const bool random = p.law != distribution::none;
    parameter_effect_.push_back(random ? random_effects() : -1);
    if (random) effects_.push_back({p.name, k, -1});
  }
  subject_effects_ = random_effects();
  const int occasions = file_.occasion_omega.empty() ? 0 : data_.occasions();
  for (int o = 0; o < occasions; ++o) {
    std::vector<int> of_parameter(file_.parameters.size(), -1);
    for (const omega_block& block : file_.occasion_omega)
      for (const std::string& name : block.names) {
        const int k = position(structure_->parameter_names(), name);
        of_parameter[static_cast<std::size_t>(k)] = random_effects();
        effects_.push_back({fmt::format("{}@{}", name, o + 1), k, o});
      }
    occasion_effect_.push_back(std::move(of_parameter));
  }
  if (random_effects() > most_random_effects)
    throw bad_input({.code = "E-MODEL-OMEGA",
                     .message = fmt::format("{} random effects are more than {}", random_effects(),
                                            most_random_effects),
                     .remedy = occasions > 0 ? "use fewer effects per occasion, or join occasions"
                                             : "use fewer random effects",
                     .file = file_.path});
}

void population_model::lay_out_design(const std::vector<covariate_coefficient>& coefficients) {
  for (int e = 0; e < subject_effects_; ++e)
    columns_.push_back({effects_[static_cast<std::size_t>(e)].parameter, e});

  std::vector<const covariate_coefficient*> in_columns;
  int theta = structural_parameters();
  for (const covariate_coefficient& c : coefficients) {
    if (c.in_design) {
      columns_.push_back({theta, parameter_effect_[static_cast<std::size_t>(c.parameter)]});
      in_columns.push_back(&c);
    } else {
      direct_effect direct{theta, c, {}};
      for (const subject& who : data_.subjects) {
        std::vector<double>& values = direct.values.emplace_back();
        for (const segment& s : who.segments)
          values.push_back(c.transformed(s.covariates[static_cast<std::size_t>(c.covariate)]));
      }
      direct_effects_.push_back(std::move(direct));
    }
    ++theta;
  }

  design_.setOnes(subjects(), static_cast<Eigen::Index>(columns_.size()));
  for (std::size_t c = 0; c < in_columns.size(); ++c)
    for (int i = 0; i < subjects(); ++i) {
      const auto& values = at(i).segments.front().covariates;
      design_(i, subject_effects_ + static_cast<Eigen::Index>(c)) =
          in_columns[c]->transformed(values[static_cast<std::size_t>(in_columns[c]->covariate)]);
    }
}

void population_model::lay_out_omega() {
  omega_mask_.setZero(random_effects(), random_effects());
  const int occasions = static_cast<int>(occasion_effect_.size());
  const auto lay_out = [&](const std::vector<omega_block>& blocks, int from, int to,
                           const char* name) {
    for (const omega_block& block : blocks)
      for (std::size_t i = 0; i < block.names.size(); ++i)
        for (std::size_t j = 0; j <= i; ++j) {
          omega_element element;
          element.fixed = block.fixed;
          for (int o = from; o < to; ++o) {
            const int one = effect_of(block.names[i], o);
            const int other = effect_of(block.names[j], o);
            element.places.emplace_back(std::max(one, other), std::min(one, other));
            if (!block.fixed) omega_mask_(one, other) = omega_mask_(other, one) = 1.0;
          }
          element.name = fmt::format("{}({},{})", name, parameter_behind(element.row()),
                                     parameter_behind(element.column()));
          omega_elements_.push_back(std::move(element));
        }
  };
  lay_out(file_.omega, -1, 0, "omega");
  lay_out(file_.occasion_omega, 0, occasions, "omega_occasion");
  std::sort(omega_elements_.begin(), omega_elements_.end(),
            [](const omega_element& a, const omega_element& b) {
              return a.places.front() < b.places.front();
            });
}

void population_model::lay_out_sets() {
  const bool direct =
      std::any_of(direct_effects_.begin(), direct_effects_.end(), [this](const direct_effect& d) {
        return data_.covariate_varies[static_cast<std::size_t>(d.coefficient.covariate)];
      });
  const bool changing = direct || !occasion_effect_.empty();
  for (const subject& who : data_.subjects)
    sets_.push_back(changing ? static_cast<int>(who.segments.size()) : 1);
}

int population_model::effect_of(const std::string& name, int occasion) const {
  const auto k = static_cast<std::size_t>(position(structure_->parameter_names(), name));
  return occasion < 0 ? parameter_effect_[k]
                      : occasion_effect_[static_cast<std::size_t>(occasion)][k];
}

Eigen::VectorXd population_model::start_theta() const {
  Eigen::VectorXd theta(static_cast<Eigen::Index>(thetas_.size()));
  for (std::size_t k = 0; k < thetas_.size(); ++k)
    theta(static_cast<Eigen::Index>(k)) = thetas_[k].start;
  return theta;
}

Eigen::MatrixXd population_model::start_omega() const {
  Eigen::MatrixXd omega = Eigen::MatrixXd::Zero(random_effects(), random_effects());
  const auto place = [&](const omega_block& block, int occasion) {
    const std::size_t order = block.names.size();
    for (std::size_t i = 0; i < order; ++i)
      for (std::size_t j = 0; j < order; ++j)
        omega(effect_of(block.names[i], occasion), effect_of(block.names[j], occasion)) =
            block.matrix[i + j * order];
  };
  for (const omega_block& block : file_.omega) place(block, -1);
  for (std::size_t o = 0; o < occasion_effect_.size(); ++o)
    for (const omega_block& block : file_.occasion_omega) place(block, static_cast<int>(o));
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

// What the coefficients outside the C matrix add to phi of a parameter.
double population_model::direct_change(int subject, int segment, int parameter,
                                       const double* theta) const {
  double change = 0.0;
  for (const direct_effect& d : direct_effects_)
    if (d.coefficient.parameter == parameter)
      change += d.coefficient.change(
          theta[d.theta],
          d.values[static_cast<std::size_t>(subject)][static_cast<std::size_t>(segment)]);
  return change;
}

void population_model::individual_parameters(int subject, const double* theta,
                                             const Eigen::Ref<const Eigen::MatrixXd>& phi,
                                             Eigen::MatrixXd& p) const {
  const int count = structural_parameters();
  const int sets = parameter_sets(subject);
  p.resize(phi.cols(), count * sets);
  for (int set = 0; set < sets; ++set) {
    const std::vector<int>* of_occasion = nullptr;
    if (!occasion_effect_.empty()) {
      const int occasion = at(subject).segments[static_cast<std::size_t>(set)].occasion;
      of_occasion = &occasion_effect_[static_cast<std::size_t>(occasion)];
    }
    for (int k = 0; k < count; ++k) {
      const auto at_k = static_cast<std::size_t>(k);
      const fixed_effect& t = thetas_[at_k];
      const int effect = parameter_effect_[at_k];
      const int kappa = of_occasion == nullptr ? -1 : (*of_occasion)[at_k];
      const double change = direct_effects_.empty() ? 0.0 : direct_change(subject, set, k, theta);
      double* const to = p.col(set * count + k).data();
      const Eigen::Index n = phi.cols();
      if (effect >= 0 && kappa < 0) {
        const double* const from = phi.data() + effect;
        const Eigen::Index stride = phi.outerStride();
        for (Eigen::Index j = 0; j < n; ++j) to[j] = from[j * stride] + change;
      } else {
        for (Eigen::Index j = 0; j < n; ++j) {
          double x = effect < 0 ? 0.0 : phi(effect, j);
          if (kappa >= 0) x += phi(kappa, j);
          to[j] = x + change;
        }
      }
      const auto exponentials = [&] {
        best_lane_kernel().exponentials(to, to, static_cast<std::size_t>(n));
      };
      switch (t.law) {
        case distribution::log_normal:
          exponentials();
          break;
        case distribution::normal:
          break;
        case distribution::logit_normal:
          for (Eigen::Index j = 0; j < n; ++j) to[j] = t.natural(to[j]);
          break;
        case distribution::none:
          if (kappa >= 0 || change != 0.0) {
            exponentials();
            for (Eigen::Index j = 0; j < n; ++j) to[j] *= theta[k];
          } else {
            std::fill_n(to, n, theta[k]);
          }
          break;
      }
    }
  }
}

}  // namespace varda
