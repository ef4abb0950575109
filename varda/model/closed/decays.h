// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace varda {

// out[j] = exp(-rate * t[j]) for j < count, rate and t not negative, in half the time of as many
// calls of the C library. The error is below one unit in the last place (measured: 0.73); results
// below 3.3e-308 are 0. `t` and `out` have room for an even count: where `count` is odd one more
// entry of t is read, whatever it is, and one more of out is written.
void decays(double rate, const double* t, std::size_t count, double* out);

}  // namespace varda
