// SPDX-License-Identifier: Apache-2.0
//
// Files of the examples, made into a source when varda is built (cmake/embed.cmake).
#pragma once

#include <string_view>

namespace varda {

std::string_view theophylline_csv();

}  // namespace varda
