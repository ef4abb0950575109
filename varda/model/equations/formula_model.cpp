// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/formula_model.h"

namespace varda {

namespace {

// Formulas write the values of definitions.
struct formula_workspace final : structural_model::workspace {
  explicit formula_workspace(const equation_text& text) : program(text) {}
  formula_program program;
};

}  // namespace

formula_model::formula_model(const equation_text& text) : text_(text), program_(text) {}

std::unique_ptr<structural_model::workspace> formula_model::make_workspace() const {
  return std::make_unique<formula_workspace>(text_);
}

void formula_model::predict_individual(const subject& who, const parameter_path& p,
                                       std::span<double> f, workspace& scratch) const {
  formula_program& program = static_cast<formula_workspace&>(scratch).program;
  program.forget_doses();
  program.enter_segment(who, 0, p, positions_);
  const bool common = outputs() == 1;
  for (const event& e : who.timeline) {
    const auto at = static_cast<std::size_t>(e.index);
    switch (e.kind) {
      case event_kind::dose:
        program.set_dose(e.time, who.doses[at].amount);
        break;
      case event_kind::reset:
        program.forget_doses();
        break;
      case event_kind::segment:
        program.enter_segment(who, e.index, p, positions_);
        break;
      case event_kind::observation: {
        const int endpoint = common ? 0 : who.observations[at].endpoint;
        f[at] = program.output(static_cast<std::size_t>(endpoint), e.time, {});
        break;
      }
    }
  }
}

}  // namespace varda
