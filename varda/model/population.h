// SPDX-License-Identifier: Apache-2.0
//
// A model file and its data set made ready for estimation: the order of the fixed effects and the
// random effects, the columns of the C matrix, and individual parameters.
//
// With phi_i = C_i beta + eta_i the individual parameters are p_i = h(phi_i + direct effects), h by
// parameter. The vector theta holds, in this order, the typical values (and the parameters without
// a random effect) in the order of the structural model, the covariate coefficients, and the
// residual deviations. Typical values of log-normal parameters stand in theta on the natural scale,
// all others on the scale of phi ("regression scale"), and so do their bounds.
//
// Random effects per occasion follow those per subject, occasion by occasion. They have no mean,
// and omega holds the same block for every occasion.
#pragma once

#include <Eigen/Core>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "varda/data/dataset.h"
#include "varda/model/covariate_coefficients.h"
#include "varda/model/endpoint.h"
#include "varda/model/fixed_effect.h"
#include "varda/model/specification.h"
#include "varda/model/structural_model.h"

namespace varda {

// A column of the C matrix: coefficient `theta` enters the mean of random effect `eta` alone.
struct design_column {
  int theta = 0;
  int eta = 0;
};

struct random_effect {
  std::string name;   // of its parameter, "@" and the occasion where there is one
  int parameter = 0;  // of the structural model
  int occasion = -1;  // from 0; -1 for an effect per subject
};

// An element of omega's lower triangle that is not structurally zero, with all the places where it
// stands: one, or one for each occasion.
struct omega_element {
  std::string name;  // "omega(ka,CL)", "omega_occasion(ka,CL)"
  std::vector<std::pair<int, int>> places;
  bool fixed = false;

  int row() const { return places.front().first; }
  int column() const { return places.front().second; }
  bool is_variance() const { return row() == column(); }
};

class population_model {
 public:
  // Throws bad_input where file and data do not go together.
  population_model(model_specification file, dataset data);

  const model_specification& specification() const { return file_; }
  const dataset& data() const { return data_; }
  // Subject `subject` with observations that ask for what is expected of them: those of normal
  // endpoints for their predictions, others for their means (varda/model/equations/
  // outcome_formulas.h).
  const varda::subject& as_expected(int subject) const {
    return expected_.empty() ? at(subject) : expected_[static_cast<std::size_t>(subject)];
  }
  bool all_normal() const { return expected_.empty(); }
  const structural_model& structure() const { return *structure_; }
  const endpoints& observed() const { return observed_; }

  int subjects() const { return static_cast<int>(data_.subjects.size()); }
  int observations(int subject) const { return static_cast<int>(at(subject).observations.size()); }
  int structural_parameters() const { return static_cast<int>(file_.parameters.size()); }
  const std::vector<fixed_effect>& thetas() const { return thetas_; }
  const std::vector<design_column>& columns() const { return columns_; }
  // Position in theta of the endpoints' first parameter; they are the last entries.
  int first_of_endpoints() const { return first_of_endpoints_; }
  // Position of the one residual deviation that scales all residuals, or -1.
  int scale_deviation() const { return observed_.has_one_scale() ? first_of_endpoints_ : -1; }

  // All random effects, those per subject first.
  int random_effects() const { return static_cast<int>(effects_.size()); }
  int subject_effects() const { return subject_effects_; }
  const std::vector<random_effect>& effects() const { return effects_; }
  const std::string& parameter_behind(int eta) const {
    const int k = effects_[static_cast<std::size_t>(eta)].parameter;
    return file_.parameters[static_cast<std::size_t>(k)].name;
  }
  bool has_effect(int subject, int eta) const {
    return effects_[static_cast<std::size_t>(eta)].occasion < at(subject).occasions;
  }

  // Start values: theta, and omega as assembled from its blocks.
  Eigen::VectorXd start_theta() const;
  Eigen::MatrixXd start_omega() const;
  // 1 where omega is estimated, 0 where it is fixed or structurally zero.
  const Eigen::MatrixXd& omega_mask() const { return omega_mask_; }
  // Lower triangle row by row.
  const std::vector<omega_element>& omega_elements() const { return omega_elements_; }

  // C_i(eta of the column, column): 1 for an intercept, the transformed covariate otherwise.
  double design(int subject, int column) const { return design_(subject, column); }

  // C_i beta for every random effect, beta read from theta.
  void means(int subject, const double* theta, double* mu) const;

  // How many sets of individual parameters a subject has: one for each of its segments where some
  // parameter changes between them, otherwise one.
  int parameter_sets(int subject) const { return sets_[static_cast<std::size_t>(subject)]; }

  // Individual parameters of the columns of phi (random effects x individuals): parameter k of set
  // s of individual j at p(j, s * structural_parameters() + k).
  void individual_parameters(int subject, const double* theta,
                             const Eigen::Ref<const Eigen::MatrixXd>& phi,
                             Eigen::MatrixXd& p) const;

 private:
  // A coefficient that stands outside the C matrix, with its transformed covariate per subject and
  // segment.
  struct direct_effect {
    int theta = 0;
    covariate_coefficient coefficient;
    std::vector<std::vector<double>> values;
  };

  const subject& at(int subject) const { return data_.subjects[static_cast<std::size_t>(subject)]; }
  void lay_out_expected();
  void lay_out_theta(const std::vector<covariate_coefficient>& coefficients);
  void lay_out_effects();
  void lay_out_design(const std::vector<covariate_coefficient>& coefficients);
  void lay_out_omega();
  void lay_out_sets();
  int effect_of(const std::string& parameter, int occasion) const;
  double direct_change(int subject, int segment, int parameter, const double* theta) const;

  model_specification file_;
  dataset data_;
  std::vector<varda::subject> expected_;  // empty where all endpoints are normal
  std::unique_ptr<structural_model> structure_;
  std::vector<fixed_effect> thetas_;
  int first_of_endpoints_ = 0;
  endpoints observed_;
  std::vector<random_effect> effects_;
  int subject_effects_ = 0;
  std::vector<int> parameter_effect_;  // structural parameter -> its effect per subject, or -1
  std::vector<std::vector<int>> occasion_effect_;  // occasion -> structural parameter -> effect
  std::vector<design_column> columns_;             // intercepts first, then the covariate effects
  Eigen::MatrixXd design_;                         // subjects x columns
  std::vector<direct_effect> direct_effects_;
  std::vector<int> sets_;
  Eigen::MatrixXd omega_mask_;
  std::vector<omega_element> omega_elements_;
};

}  // namespace varda
