// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "varda/model/specification.h"
#include "varda/support/finding.h"

namespace varda {

// Settings of the command line, which win over those of the file.
struct setting_overrides {
  std::optional<int> seed{};
  std::optional<int> samples{};
};

// Reads and checks a model file as far as it can be without the data, or throws bad_input. Relative
// data paths are taken from the folder of the model file.
model_specification read_model_file(const std::string& path, findings& warnings,
                                    const setting_overrides& overrides = {});

}  // namespace varda
