// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "varda/support/text_pieces.h"

namespace varda {

inline constexpr const char* state_name = "run.state";

// What an unfinished run keeps of itself, so that it can be taken up.
struct saved_run {
  // What it was made from: pairs of what and its value, in an order of their own.
  using identity = std::vector<std::pair<std::string, std::string>>;
  identity of;
  std::string body;
};

// As the bytes of a file that tells when it is damaged. `body` writes the same bytes whenever it is
// called, and is called several times: they never are in memory as a whole.
text_pieces saved_run_text(const saved_run::identity& of,
                           const std::function<void(std::ostream&)>& body);

// Whether a file is one of these, damaged or not.
bool is_saved_run(const std::string& text);

// Throws std::runtime_error where the text is no such file, or a damaged one.
saved_run read_saved_run(const std::string& text);

// What of the one is not so in the other: "seed 1 there, 2 here". Long values are cut.
std::vector<std::string> differences(const saved_run::identity& there,
                                     const saved_run::identity& here);

}  // namespace varda
