// SPDX-License-Identifier: Apache-2.0
//
// Constants of the Sobol sequence: the tables POLY, V and TAU of P. Bratley and B. L. Fox,
// "Algorithm 659: Implementing Sobol's quasirandom sequence generator", ACM Transactions on
// Mathematical Software 14 (1988) 88-100.
#pragma once

#include "statsubs/sequences/bdsobl.h"

namespace statsubs::sobol_tables {

// The primitive polynomial of a dimension, coefficients as binary digits, and its initial direction
// numbers, as many as its degree.
struct dimension_row {
  int polynomial;
  int directions[bdsobl::max_degree];
};

inline constexpr int first_dimension = 2;  // dimension 1 is the van der Corput sequence
inline constexpr dimension_row dimensions[] = {
    {3, {1}},
    {7, {1, 1}},
    {11, {1, 3, 7}},
    {13, {1, 1, 5}},
    {19, {1, 3, 1, 1}},
    {25, {1, 1, 3, 7}},
    {37, {1, 3, 3, 9, 9}},
    {59, {1, 3, 7, 13, 3}},
    {47, {1, 1, 5, 11, 27}},
    {61, {1, 3, 5, 1, 15}},
    {55, {1, 1, 7, 3, 29}},
    {41, {1, 3, 7, 7, 21}},
    {67, {1, 1, 1, 9, 23, 37}},
    {97, {1, 3, 3, 5, 19, 33}},
    {91, {1, 1, 3, 13, 11, 7}},
    {109, {1, 1, 7, 13, 25, 5}},
    {103, {1, 3, 5, 11, 7, 11}},
    {115, {1, 1, 1, 3, 13, 39}},
    {131, {1, 3, 1, 15, 17, 63, 13}},
    {193, {1, 1, 5, 5, 1, 27, 33}},
    {137, {1, 3, 3, 3, 25, 17, 115}},
    {145, {1, 1, 3, 15, 29, 15, 41}},
    {143, {1, 3, 1, 7, 3, 23, 79}},
    {241, {1, 3, 7, 9, 31, 29, 17}},
    {157, {1, 1, 5, 13, 11, 3, 29}},
    {185, {1, 3, 1, 9, 5, 21, 119}},
    {167, {1, 1, 3, 1, 23, 13, 75}},
    {229, {1, 3, 3, 11, 27, 31, 73}},
    {171, {1, 1, 7, 7, 19, 25, 105}},
    {213, {1, 3, 5, 5, 21, 9, 7}},
    {191, {1, 1, 1, 15, 5, 49, 59}},
    {253, {1, 1, 1, 1, 1, 33, 65}},
    {203, {1, 3, 5, 15, 17, 19, 21}},
    {211, {1, 1, 7, 11, 13, 29, 3}},
    {239, {1, 3, 7, 5, 7, 11, 113}},
    {247, {1, 1, 5, 3, 15, 19, 61}},
    {285, {1, 3, 1, 1, 9, 27, 89, 7}},
    {369, {1, 1, 3, 7, 31, 15, 45, 23}},
    {299, {1, 3, 3, 9, 9, 25, 107, 39}},
};

// The quality parameter t of the net in 1, 2, ... dimensions.
inline constexpr int tau[] = {0, 0, 1, 3, 5, 8, 11, 15, 19, 23, 27, 31, 35};

}  // namespace statsubs::sobol_tables
