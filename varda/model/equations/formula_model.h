// SPDX-License-Identifier: Apache-2.0
//
// A structural model in one formula for each endpoint that is normal, of parameters, covariates,
// the time t, the time since the last dose tad and its amount dose. Earlier doses are not
// remembered.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varda/model/equations/formula_program.h"
#include "varda/model/structural_model.h"

namespace varda {

class formula_model : public structural_model {
 public:
  // Throws formula_error.
  explicit formula_model(const equation_text& text) : program_(text) {}

  const std::vector<std::string>& parameter_names() const override { return program_.parameters(); }
  int dose_compartments() const override { return 1; }
  int outputs() const override { return static_cast<int>(program_.named_outputs()); }
  std::vector<std::string> covariates() const override { return program_.covariates(); }
  void locate_covariates(const std::vector<int>& positions) override { positions_ = positions; }

  std::unique_ptr<workspace> make_workspace() const override;
  void predict(const subject& who, const parameter_block& p, const prediction_block& f,
               workspace& scratch) const override;

 private:
  formula_program program_;
  std::vector<int> positions_;
};

}  // namespace varda
