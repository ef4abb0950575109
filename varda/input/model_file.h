// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>

#include "varda/model/specification.h"
#include "varda/support/files.h"
#include "varda/support/finding.h"

namespace varda {

// Settings of the command line by name, whole numbers all of them, which win over those of the
// file.
using setting_overrides = std::map<std::string, int>;

// Reads and checks a model file as far as it can be without the data, or throws bad_input. Relative
// data paths are taken from the folder of the model file.
model_specification read_model_file(const std::string& path, findings& warnings,
                                    const setting_overrides& overrides = {},
                                    const file_access& text_of = read_from_disk);

}  // namespace varda
