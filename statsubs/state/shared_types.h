// SPDX-License-Identifier: Apache-2.0
//
// The kinds of variable that shared modules are made of. A shared array belongs to the host, which
// binds its storage (`gv::theta.bind(storage, ntheta)`); the few that the library makes itself say
// so in their table. Bound storage stays alive while the library may be called.
#pragma once

#include <array>

#include "statsubs/support/array.h"
#include "statsubs/support/shared_table.h"

namespace statsubs {

// A display name: fixed length, blank-padded, no terminating zero.
inline constexpr int name_length = 100;
using display_name = std::array<char, name_length>;

using integer_vector = vector<int>;
using real_vector = vector<double>;
using real_matrix = matrix<double>;
using real_cube = cube<double>;
using integer_matrix = matrix<int>;
using name_vector = vector<display_name>;

}  // namespace statsubs
