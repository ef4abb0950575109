// SPDX-License-Identifier: Apache-2.0
//
// Zero of a function in a bracket, Algorithm R of Bus and Dekker, ACM Trans. Math. Softw. 1 (1975),
// by reverse communication. One search at a time in a process: the state is kept between the calls.
// Reads: none
// Writes: none
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Bracket [xlo, xhi] of the next search, and its tolerances: it ends when half the bracket is
// within max(abstol, reltol |xlo|) / 2 of the best point.
STATSUBS_API void dstzr(const double& xlo, const double& xhi, const double& abstol,
                        const double& reltol);

// One step of the search. The caller starts with status = 0. While status comes back as 1, he sets
// fval = f(x), leaves everything else alone and calls again; both ends of the bracket are asked for
// first. At the end status is
//    0: the root lies between xlo, the best estimate, and xhi
//   -1: f has one sign at both ends; atlow tells whether |f| is smaller at the lower one, fhigh
//       whether f is positive
// A search that is started while another is unfinished replaces it.
STATSUBS_API void dzror(int& status, double& x, const double& fval, double& xlo, double& xhi,
                        bool& atlow, bool& fhigh);

}  // namespace statsubs
