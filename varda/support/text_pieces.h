// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace varda {

// Takes the next piece of a text.
using text_sink = std::function<void(std::string_view)>;
// Hands out a text piece by piece, the same whenever it is called: a table of many subjects is
// never in memory as a whole. What it is made from outlives it.
using text_pieces = std::function<void(const text_sink&)>;

inline std::string whole(const text_pieces& text) {
  std::string result;
  text([&](std::string_view piece) { result += piece; });
  return result;
}

}  // namespace varda
