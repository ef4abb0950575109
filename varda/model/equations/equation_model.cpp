// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/equation_model.h"

namespace varda {

equation_model::equation_model(const equation_text& text)
    : program_(std::make_unique<formula_program>(text)),
      run_(std::make_unique<equation_run>(*program_, text.solver)) {}

}  // namespace varda
