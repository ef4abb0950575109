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

// One thread at a time, like its formulas.
class equation_model : public structural_model {
 public:
  // Throws formula_error.
  explicit equation_model(const equation_text& text);

  const std::vector<std::string>& parameter_names() const override {
    return program_->parameters();
  }
  int dose_compartments() const override { return static_cast<int>(program_->states().size()); }
  bool models_rate(int compartment) const override {
    return program_->has(dose_property::rate, static_cast<std::size_t>(compartment - 1));
  }
  bool models_duration(int compartment) const override {
    return program_->has(dose_property::duration, static_cast<std::size_t>(compartment - 1));
  }
  int outputs() const override { return static_cast<int>(program_->outputs().size()); }
  std::vector<std::string> covariates() const override { return program_->covariates(); }
  void locate_covariates(const std::vector<int>& positions) override { positions_ = positions; }
  void predict(const subject& who, const parameter_path& p, std::span<double> f) const override {
    run_->predict(who, p, positions_, f);
  }
  std::string last_failure() const override { return run_->last_failure(); }

 private:
  std::unique_ptr<formula_program> program_;  // their values change in predict
  std::unique_ptr<equation_run> run_;
  std::vector<int> positions_;
};

}  // namespace varda
