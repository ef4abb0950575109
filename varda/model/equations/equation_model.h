// SPDX-License-Identifier: Apache-2.0
//
// A structural model in ordinary differential equations. State k takes the doses into compartment
// k.
#pragma once

#include <memory>

#include "varda/model/equations/equation_run.h"
#include "varda/model/equations/formula_error.h"
#include "varda/model/equations/formula_program.h"
#include "varda/model/structural_model.h"

namespace varda {

class equation_model : public individual_model {
 public:
  // Throws formula_error.
  explicit equation_model(const equation_text& text);

  const std::vector<std::string>& parameter_names() const override { return program_.parameters(); }
  int dose_compartments() const override { return static_cast<int>(program_.states().size()); }
  bool models_rate(int compartment) const override {
    return program_.has(dose_property::rate, static_cast<std::size_t>(compartment - 1));
  }
  bool models_duration(int compartment) const override {
    return program_.has(dose_property::duration, static_cast<std::size_t>(compartment - 1));
  }
  int outputs() const override { return static_cast<int>(program_.outputs().size()); }
  std::vector<std::string> covariates() const override { return program_.covariates(); }
  void locate_covariates(const std::vector<int>& positions) override { positions_ = positions; }
  std::unique_ptr<workspace> make_workspace() const override;
  std::string last_failure(const workspace& scratch) const override;

 private:
  void predict_individual(const subject& who, const parameter_path& p, std::span<double> f,
                          workspace& scratch) const override;

  equation_text text_;
  formula_program program_;  // for what it tells; each workspace has one of its own to evaluate
  std::vector<int> positions_;
};

}  // namespace varda
