// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "varda/data/dataset.h"

namespace varda {

// What tells whether two runs have seen the same observations, and the same doses: SHA-256 of what
// was used, in the order of the data, whatever the file says besides. Likelihoods of different
// observations cannot be compared.
std::string observations_fingerprint(const dataset& data);
std::string doses_fingerprint(const dataset& data);

}  // namespace varda
