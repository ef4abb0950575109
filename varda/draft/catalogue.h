// SPDX-License-Identifier: Apache-2.0
//
// Every structure by its name: the closed forms and the ready structures.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "varda/input/ready_structures.h"

namespace varda {

struct listed_structure {
  std::string name;
  std::string about;
};

// In groups, each with its heading.
struct structure_group {
  std::string heading;
  std::vector<listed_structure> structures;
};
std::vector<structure_group> structure_groups();

// As find_ready_structure, and the closed forms that have no equations as text (zero-order
// absorption) besides. Throws bad_input where there is no such structure.
ready_structure structure_called(const std::string& name);

}  // namespace varda
