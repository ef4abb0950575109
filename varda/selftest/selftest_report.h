// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "varda/selftest/selftest.h"

namespace varda {

// For people, in 80 columns: every figure beside what it should be, and the verdict.
std::string selftest_text(const std::vector<selftest_case>& outcomes);

// The same for programs; docs/selftest.md describes it.
std::string selftest_json(const std::vector<selftest_case>& outcomes);

}  // namespace varda
