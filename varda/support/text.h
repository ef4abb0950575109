// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace varda {

// ASCII case folding: column names and keywords are plain words.
std::string lower_case(std::string_view text);
bool equal_ignoring_case(std::string_view a, std::string_view b);

}  // namespace varda
