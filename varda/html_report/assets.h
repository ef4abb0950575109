// SPDX-License-Identifier: Apache-2.0
//
// Files of the folder assets and of D3, made into a source when varda is built (cmake/embed.cmake).
#pragma once

#include <string_view>

namespace varda {

std::string_view page_html();
std::string_view style_css();
std::string_view report_js();
std::string_view d3_js();

}  // namespace varda
