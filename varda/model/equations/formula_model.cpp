// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/formula_model.h"

namespace varda {

formula_model::formula_model(const equation_text& text)
    : program_(std::make_unique<formula_program>(text)) {}

void formula_model::predict(const subject& who, const parameter_path& p,
                            std::span<double> f) const {
  program_->forget_doses();
  program_->enter_segment(who, 0, p, positions_);
  const bool common = outputs() == 1;
  for (const event& e : who.timeline) {
    const auto at = static_cast<std::size_t>(e.index);
    switch (e.kind) {
      case event_kind::dose:
        program_->set_dose(e.time, who.doses[at].amount);
        break;
      case event_kind::reset:
        program_->forget_doses();
        break;
      case event_kind::segment:
        program_->enter_segment(who, e.index, p, positions_);
        break;
      case event_kind::observation: {
        const int endpoint = common ? 0 : who.observations[at].endpoint;
        f[at] = program_->output(static_cast<std::size_t>(endpoint), e.time, {});
        break;
      }
    }
  }
}

}  // namespace varda
