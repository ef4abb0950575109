// SPDX-License-Identifier: Apache-2.0
#include "varda/support/text.h"

#include <cctype>

namespace varda {

std::string lower_case(std::string_view text) {
  std::string folded(text);
  for (char& c : folded) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return folded;
}

bool equal_ignoring_case(std::string_view a, std::string_view b) {
  return lower_case(a) == lower_case(b);
}

}  // namespace varda
