// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// The mu-referenced means of one subject's random effects: for every random effect k with row
// r = muetamap(k) != 0, xmusub(r) becomes row r of the subject's C matrix times thetav. The result
// stands at the row, not at the random effect; other entries of xmusub do not change.
//   isub             in: the subject, from 1
//   thetav(ncolc)    in: fixed effects on the regression scale, in the order of the C matrix's
//                    columns
//   nrowbase, nextra  in: the C matrix has nrowbase + nextra rows
//   ncolc            in: columns of the C matrix
//   muetamap(leneta)  in: rows, 0 for a random effect without a mu-reference
// xmusub is also the centre of the proposal: a host that needs that one copies it out first.
// Reads: leneta
// Writes: xmusub
STATSUBS_API void predetamu(const int& isub, const double* thetav, const int& nrowbase,
                            const int& nextra, const int& ncolc, const int* muetamap);

}  // namespace statsubs
