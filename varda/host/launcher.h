// SPDX-License-Identifier: Apache-2.0
//
// What can be known of the machine and of who started this process, without MPI.
#pragma once

#include <vector>

namespace varda {

// Whether the environment is that of a launcher of parallel jobs.
bool under_a_launcher();

// Throws bad_input where a launcher says that it has started more processes than the `met` ones
// that know of each other.
void refuse_strangers(int met);

// The numbers of the cores that this process may use.
std::vector<int> allowed_cores();

}  // namespace varda
