// SPDX-License-Identifier: Apache-2.0
//
// The Sobol sequence in up to 40 dimensions, in Gray-code order, plain or scrambled.
//
//   construction   P. Bratley and B. L. Fox, "Algorithm 659: Implementing Sobol's quasirandom
//                  sequence generator", ACM TOMS 14 (1988) 88-100, tables unchanged
//   scrambling     H. S. Hong and F. J. Hickernell, "Algorithm 823: Implementing scrambled digital
//                  sequences", ACM TOMS 29 (2003) 95-109
//
// Call poly_vinit_define, then insobl, which gives point 0, then gosobl once per further point. The
// generator's state is the shared module bdsobl: one generator per process, one thread at a time.
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Stores the primitive polynomials and the initial direction numbers. Must come before the first
// insobl; a second call changes nothing.
// Reads: none
// Writes: poly, vinit
STATSUBS_API void poly_vinit_define();

// Starts a sequence and gives its first point, which is the digital shift: the origin without
// scrambling.
//   ok(2)      out: ok(1) tells that ndim lies in 1..40, ok(2) that maxpoints lies in 1..2^30 - 1.
//              When either is false nothing has started: only ok and s have changed, and gosobl
//              must not be called before a start that succeeds
//   ndim       in: dimensions
//   maxpoints  in: the most points that will be asked for; its binary digits are maxcol, and
//              2^maxcol points can be had, point 0 among them
//   tquality   out: quality parameter t of the sequence up to 13 dimensions, -1 beyond
//   point(ndim)  out: point 0
//   ndigits    in, types 1 and 3: binary digits of the output, maxcol to 31
//   scramble   in: 0 none; 1 lower-triangular (Owen-type) with digital shift; 2 upper-triangular
//              (Faure-Tezuka) with digital shift; 3 type 1 followed by type 2, the shifts combined.
//              With any other value recipd, and so every coordinate, is not finite
// Types 1 to 3 draw fresh bits from uni, whose stream goes on from one start to the next.
// Coordinates lie in [0, 1). With type 3 and 31 digits they lie in (-1, 0]: 2^31 is there a 32-bit
// integer, which wraps to its negative.
// Reads: poly, vinit
// Writes: s, maxcol, sv, recipd, count, lastq
STATSUBS_API void insobl(bool* ok, const int& ndim, const int& maxpoints, int& tquality,
                         double* point, const int& ndigits, const int& scramble);

// point(s) out: the next point. When all 2^maxcol points are given out, or before any start, the
// process ends with the message " TOO MANY CALLS ON GOSOBL".
// Reads: s, maxcol, sv, recipd
// Writes: lastq, count
STATSUBS_API void gosobl(double* point);

// count out: the serial number of the last point given out, 0 after insobl.
// Reads: count
// Writes: none
STATSUBS_API void getsobolcount(int& count);

// Draws a lower-triangular scrambling matrix and a digital shift for every dimension.
//   ndigits       in: rows of a matrix, at most 31
//   lsm(40 x 31)  out, column-major: entry (p, i) is row i of dimension p's matrix, its first
//   column
//                 the highest of maxcol binary digits: random below the diagonal, 1 on it
//   shift(40)     out: the shifts, ndigits binary digits each
// Entries beyond dimension s and row ndigits are left alone.
// Reads: s, maxcol
// Writes: none
STATSUBS_API void gncrml(const int& ndigits, int* lsm, int* shift);

// Draws the upper-triangular scrambling matrix and the shift that all dimensions share.
//   usm(31 x 31)  out, column-major: entries 0 or 1, in the first maxcol rows and columns
//   ushift(31)    out: entries 0 or 1, the first maxcol
// Reads: maxcol
// Writes: none
STATSUBS_API void gncrmu(int* usm, int* ushift);

}  // namespace statsubs
