// SPDX-License-Identifier: Apache-2.0
//
// A model file and its data set made ready for estimation: the order of the fixed effects, the
// columns of the C matrix, the residual error, and the negative log density of a subject.
//
// With phi_i = C_i beta + eta_i the individual parameters are p_i = h(phi_i), h by parameter. The
// vector theta holds, in this order, the typical values (and the parameters without a random
// effect) in the order of the structural model, the covariate coefficients, for a combined error
// the proportional deviation, and last the residual deviation. Typical values of log-normal
// parameters stand in theta on the natural scale, all others on the scale of phi ("regression
// scale"), and so do their bounds.
#pragma once

#include <Eigen/Core>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "varda/data/dataset.h"
#include "varda/model/model_file.h"
#include "varda/model/structural_model.h"

namespace varda {

enum class theta_role { typical_value, flat_parameter, covariate_effect, residual_deviation };

struct fixed_effect {
  std::string name;
  theta_role role = theta_role::typical_value;
  distribution law = distribution::none;  // of the parameter that the typical value belongs to
  double range_lower = 0.0;               // of a logit-normal parameter
  double range_upper = 1.0;
  double start = 0.0;  // on the scale of theta, like the bounds
  double lower = 0.0;
  double upper = 0.0;
  bool fixed = false;

  // From theta to the scale that a user reads, and from theta to the regression scale and back.
  double natural(double theta) const;
  double natural_slope(double theta) const;  // derivative of the same
  double regression(double theta) const;
  double from_regression(double beta) const;
};

// A column of the C matrix: coefficient `theta` enters the mean of random effect `eta` alone.
struct design_column {
  int theta = 0;
  int eta = 0;
};

// Deviations in force: one of the two is 0 unless the error is combined.
struct residual_deviations {
  double additive = 0.0;
  double proportional = 0.0;
};

class population_model {
 public:
  population_model(model_file file, dataset data);

  const model_file& file() const { return file_; }
  const dataset& data() const { return data_; }
  const structural_model& structure() const { return *structure_; }

  int subjects() const { return static_cast<int>(data_.subjects.size()); }
  int observations(int subject) const {
    return static_cast<int>(data_.subjects[static_cast<std::size_t>(subject)].observations.size());
  }
  int random_effects() const { return static_cast<int>(effect_parameter_.size()); }
  int structural_parameters() const { return static_cast<int>(file_.parameters.size()); }
  const std::vector<fixed_effect>& thetas() const { return thetas_; }
  const std::vector<design_column>& columns() const { return columns_; }

  // Entries of theta that predictions depend on directly, at given phi.
  bool moves_predictions(int theta) const {
    return thetas_[static_cast<std::size_t>(theta)].role == theta_role::flat_parameter;
  }

  // The structural parameter behind random effect `eta`, and its name.
  int parameter_of(int eta) const { return effect_parameter_[static_cast<std::size_t>(eta)]; }
  const std::string& effect_name(int eta) const;

  // Start values: theta, and omega as assembled from its blocks.
  Eigen::VectorXd start_theta() const;
  Eigen::MatrixXd start_omega() const;
  // 1 where omega is estimated, 0 where it is fixed or structurally zero.
  const Eigen::MatrixXd& omega_mask() const { return omega_mask_; }

  // C_i(eta of the column, column): 1 for an intercept, the transformed covariate otherwise.
  double design(int subject, int column) const { return design_(subject, column); }

  // C_i beta for every random effect, beta read from theta.
  void means(int subject, const double* theta, double* mu) const;

  // How many sets of individual parameters a subject has: one for each of its segments where some
  // parameter changes between them, otherwise one.
  int parameter_sets(int subject) const;

  // p = h(phi) for the parameters with a random effect, theta itself for the others; one set after
  // the other, parameter_sets(subject) x structural_parameters() numbers.
  void individual_parameters(int subject, const double* theta, const double* phi, double* p) const;

  // Predictions of the subject's observations from its sets of individual parameters.
  void predict(int subject, const double* p, double* f) const;

  residual_deviations deviations(const double* theta) const;
  bool combined_error() const { return file_.residual.kind == error_kind::combined; }
  // Positions in theta of the free residual deviations, with their names.
  struct residual_entry {
    std::string name;
    int theta = 0;
    bool fixed = false;
  };
  const std::vector<residual_entry>& residuals() const { return residuals_; }

  // -log p(y_i | prediction f), every constant included, and the sum of squared scaled residuals.
  // A value that is not finite marks a prediction that the error model cannot take.
  double residual_objective(int subject, const double* f, const double* theta,
                            double& scaled_squares) const;

  // The first observation of the subject whose contribution is not finite, or -1.
  int first_failure(int subject, const double* f, const double* theta) const;

 private:
  void lay_out_theta();
  void lay_out_design();
  void lay_out_omega();
  int effect_of(const std::string& name) const;  // the random effect of that parameter

  model_file file_;
  dataset data_;
  std::unique_ptr<structural_model> structure_;
  std::vector<fixed_effect> thetas_;
  std::vector<int> effect_parameter_;   // random effect -> structural parameter
  std::vector<int> parameter_effect_;   // structural parameter -> random effect, -1 for none
  std::vector<design_column> columns_;  // intercepts first, then the covariate effects
  Eigen::MatrixXd design_;              // subjects x columns
  Eigen::MatrixXd omega_mask_;
  std::vector<residual_entry> residuals_;
};

// Throws bad_input when a subject cannot be evaluated at the start values, naming the subject and
// the first row at fault.
void check_start(const population_model& model);

}  // namespace varda
