// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/equation_model.h"

namespace varda {

equation_model::equation_model(const equation_text& text)
    : program_(text), settings_(text.solver) {}

std::unique_ptr<structural_model::workspace> equation_model::make_workspace() const {
  return std::make_unique<equation_run>(program_, settings_);
}

std::unique_ptr<structural_model::workspace> equation_model::make_workspace(
    const lane_kernel& kernel, std::size_t block) const {
  return std::make_unique<equation_run>(program_, settings_, kernel, block);
}

void equation_model::predict(const subject& who, const parameter_block& p,
                             const prediction_block& f, workspace& scratch) const {
  dynamic_cast<equation_run&>(scratch).predict(who, p, positions_, f);
}

std::string equation_model::last_failure(const workspace& scratch) const {
  return dynamic_cast<const equation_run&>(scratch).last_failure();
}

}  // namespace varda
