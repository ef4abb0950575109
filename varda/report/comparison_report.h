// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "varda/comparison/compare.h"

namespace varda {

// For people: a table of the runs, their differences, tests, estimates and verdicts, in 80 columns.
std::string comparison_text(const comparison& of);

// The same for programs; docs/compare.md describes it.
std::string comparison_json(const comparison& of);

}  // namespace varda
