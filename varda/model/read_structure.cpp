// SPDX-License-Identifier: Apache-2.0
#include "varda/model/model_file_parts.h"

#include <algorithm>

#include "varda/model/structural_model.h"

namespace varda {

void read_structure(section from, model_file& file) {
  const std::vector<std::string> structures = structural_model_names();
  std::string& name = file.structure.name;
  name = from.needed_text("structure", "the structural model");
  if (std::find(structures.begin(), structures.end(), name) == structures.end())
    throw from.unknown_word("structure", name, structures);
  from.refuse_leftovers();
}

}  // namespace varda
