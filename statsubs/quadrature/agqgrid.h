// SPDX-License-Identifier: Apache-2.0
//
// The product grid of adaptive Gauss-Hermite quadrature: nnodes nodes in each of n dimensions,
// placed by a centre and a factor. With the centre at the mode of an integrand g and factor factor'
// the inverse Hessian of -ln g there,
//
//   ln of the integral of g = ln |factor| + ln sum over k of exp(logweight_k + ln g(eta_k))
//
// is Laplace's approximation for one node and exact for a normal density times a polynomial of
// degree up to 2 nnodes - 1 in every coordinate (J. C. Naylor and A. F. M. Smith, Applied
// Statistics 31 (1982) 214-225; Q. Liu and D. A. Pierce, Biometrika 81 (1994) 624-629).
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// The most dimensions that a grid may have.
inline constexpr int most_agq_dimensions = 40;

// Starts a grid.
//   nnodes  in: nodes per dimension, 1 to most_ghnodes (getghnodes.h)
//   n       in: dimensions, 1 to most_agq_dimensions
//   nodes(nnodes)       out: Gauss-Hermite nodes in units of a standard deviation, ascending
//   logweights(nnodes)  out: logarithms of their weights for the integral over z itself, the
//                       exponential of the Gauss-Hermite rule divided out
//   npoints  out: points of the grid, nnodes^n
//   info     out: 0; -1 or -2 when nnodes or n is out of its range; 1 when the points are more than
//            a 32-bit integer counts; 2 when LAPACK finds no nodes. Nothing else has been written
//            unless it is 0
// Reads: none
// Writes: none
STATSUBS_API void agqinit(const int& nnodes, const int& n, double* nodes, double* logweights,
                          int& npoints, int& info);

// Point k of the grid, 1 to npoints; the first coordinate moves fastest.
//   nnodes, n, nodes, logweights  in: as agqinit was given and left them
//   centre(n)  in
//   factor     in: lower triangle, leading dimension ldf >= n; what stands above is not read
//   z(n)       out: the point in units of the factor
//   eta(n)     out: centre + factor z
//   logweight  out: sum of the logweights of its coordinates; without ln |factor|
// Reads: none
// Writes: none
STATSUBS_API void getagqpoint(const int& k, const int& nnodes, const int& n, const double* nodes,
                              const double* logweights, const double* centre, const double* factor,
                              const int& ldf, double* z, double* eta, double& logweight);

}  // namespace statsubs
