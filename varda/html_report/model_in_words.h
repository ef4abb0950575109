// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "varda/model/population.h"

namespace varda {

// A model for readers: sentences, and equations as plain text, one a line.
struct model_account {
  std::vector<std::string> words;
  std::vector<std::string> structure;
  std::vector<std::string> individuals;  // how individual parameters follow from the typical ones
  std::vector<std::string> observations;
};

model_account in_words(const population_model& model);

}  // namespace varda
