// SPDX-License-Identifier: Apache-2.0
//
// The two methods behind make_ode_solver.
#pragma once

#include "varda/model/equations/ode_solver.h"

namespace varda {

std::unique_ptr<ode_solver> make_dormand_prince(ode_system& system,
                                                const solver_settings& settings);
std::unique_ptr<ode_solver> make_rosenbrock(ode_system& system, const solver_settings& settings);

}  // namespace varda
