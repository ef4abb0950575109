// SPDX-License-Identifier: Apache-2.0
//
// The files of the folder structures, made into a source when varda is built (cmake/embed.cmake).
#pragma once

#include <string_view>
#include <vector>

namespace varda {

std::vector<std::string_view> structure_texts();

}  // namespace varda
