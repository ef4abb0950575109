// SPDX-License-Identifier: Apache-2.0
//
// A structural model in ordinary differential equations. State k takes the doses into compartment
// k. A model in formulas whose hazards are integrated is one as well.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "varda/model/equations/equation_run.h"
#include "varda/model/equations/formula_program.h"
#include "varda/model/structural_model.h"

namespace varda {

class equation_model : public structural_model {
 public:
  // Throws formula_error.
  explicit equation_model(const equation_text& text);

  const std::vector<std::string>& parameter_names() const override { return program_.parameters(); }
  int dose_compartments() const override { return static_cast<int>(program_.dosed_states()); }
  bool models_rate(int compartment) const override {
    return program_.has(dose_property::rate, static_cast<std::size_t>(compartment - 1));
  }
  bool models_duration(int compartment) const override {
    return program_.has(dose_property::duration, static_cast<std::size_t>(compartment - 1));
  }
  int outputs() const override { return static_cast<int>(program_.named_outputs()); }
  std::vector<std::string> covariates() const override { return program_.covariates(); }
  void locate_covariates(const std::vector<int>& positions) override { positions_ = positions; }

  std::unique_ptr<workspace> make_workspace() const override;
  // With another kernel or block than the best ones: results are the same.
  std::unique_ptr<workspace> make_workspace(const lane_kernel& kernel, std::size_t block) const;
  void predict(const subject& who, const parameter_block& p, const prediction_block& f,
               workspace& scratch) const override;
  std::string last_failure(const workspace& scratch) const override;

 private:
  formula_program program_;
  solver_settings settings_;
  std::vector<int> positions_;
};

}  // namespace varda
