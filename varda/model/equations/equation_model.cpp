// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/equation_model.h"

namespace varda {

namespace {

// Formulas and the solver change in a prediction.
struct equation_workspace final : structural_model::workspace {
  explicit equation_workspace(const equation_text& text)
      : program(text), run(program, text.solver) {}
  formula_program program;
  equation_run run;
};

}  // namespace

equation_model::equation_model(const equation_text& text) : text_(text), program_(text) {}

std::unique_ptr<structural_model::workspace> equation_model::make_workspace() const {
  return std::make_unique<equation_workspace>(text_);
}

void equation_model::predict_individual(const subject& who, const parameter_path& p,
                                        std::span<double> f, workspace& scratch) const {
  static_cast<equation_workspace&>(scratch).run.predict(who, p, positions_, f);
}

std::string equation_model::last_failure(const workspace& scratch) const {
  return static_cast<const equation_workspace&>(scratch).run.last_failure();
}

}  // namespace varda
