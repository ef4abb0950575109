// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace varda {

// Covariates are numbers everywhere, and so are the levels of a category that are texts: a text
// stands for itself in every data set, whatever other levels are in it. A text that spells a number
// is that number; any other is a whole number between 2^52 and 2^53 that is made of its bytes, so
// that one of a hundred levels equals another with a probability of 1e-12. There are no numbers of
// that size in a data set.
double level_number(std::string_view text);
bool is_text_level(double value);

}  // namespace varda
