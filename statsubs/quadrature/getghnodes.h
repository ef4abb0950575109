// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// The largest number of nodes that getghnodes gives.
inline constexpr int most_ghnodes = 64;

// Gauss-Hermite quadrature with n nodes: the integral of exp(-x^2) p(x) over the real line is the
// sum of weights(j) p(nodes(j)), exactly so for polynomials p of degree up to 2 n - 1.
//
//   n           in: 1 to most_ghnodes
//   nodes(n)    out: ascending; nodes(n + 1 - j) is -nodes(j) to the last bit, a middle one is 0
//   weights(n)  out: positive, of the same symmetry; they sum to sqrt(pi)
//   info        out: 0; -1 for an n out of its range; above 0 the status of LAPACK's dsteqr.
//   Nothing
//               else has been written unless it is 0
//
// Nodes are good to a relative 1e-14, weights to a relative 1e-12 and an absolute 1e-14; the
// weights themselves go down to 1e-49. The nodes are the eigenvalues of the Jacobi matrix of the
// orthonormal Hermite polynomials (G. H. Golub and J. H. Welsch, Mathematics of Computation 23
// (1969) 221-230), polished; the weights are Christoffel numbers. The eigenvectors of the usual way
// to the weights would lose all relative accuracy at the far nodes.
//
// Reads: none
// Writes: none
STATSUBS_API void getghnodes(const int& n, double* nodes, double* weights, int& info);

}  // namespace statsubs
