// SPDX-License-Identifier: Apache-2.0
//
// Constants of the arithmetic (IEEE double precision, 32-bit integers) under the names by which the
// published special-function codes ask for them.
// Reads: none
// Writes: none
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Limits of the exponential, a safe 1e-5 inside the true ones. l = 0: the largest w with exp(w)
// finite, 709.7756150662599; any other l: the most negative w with exp(w) a normal number,
// -708.3893345680835.
STATSUBS_API double exparg(const int& l);

// i = 1: relative precision 2^-52; 2: smallest positive normal number 2^-1022; 3: largest finite
// number (1 - 2^-53) 2^1024. Any other i: 0.
STATSUBS_API double spmpar(const int& i);

// i = 1..3: base, digits and largest value of integers; 4: base of reals; 5..7: digits, smallest
// and largest exponent in single precision; 8..10: the same in double precision. Any other i: 0.
STATSUBS_API int ipmpar(const int& i);

}  // namespace statsubs
