// SPDX-License-Identifier: Apache-2.0
//
// The LAPACK and BLAS routines that the library calls, under their Fortran names. Matrices are
// column-major; `uplo` is "L" throughout, so only lower triangles are read or written. The trailing
// lengths are those of the character arguments, which gfortran-built libraries expect.
#pragma once

#include <cstddef>

namespace statsubs::support {

extern "C" {
void dpotrf_(const char* uplo, const int* n, double* a, const int* lda, int* info,
             std::size_t uplo_length);
void dpotri_(const char* uplo, const int* n, double* a, const int* lda, int* info,
             std::size_t uplo_length);
void dpotrs_(const char* uplo, const int* n, const int* nrhs, const double* a, const int* lda,
             double* b, const int* ldb, int* info, std::size_t uplo_length);
void dtrtri_(const char* uplo, const char* diag, const int* n, double* a, const int* lda, int* info,
             std::size_t uplo_length, std::size_t diag_length);
void dsyev_(const char* jobz, const char* uplo, const int* n, double* a, const int* lda, double* w,
            double* work, const int* lwork, int* info, std::size_t jobz_length,
            std::size_t uplo_length);
void dsteqr_(const char* compz, const int* n, double* d, double* e, double* z, const int* ldz,
             double* work, int* info, std::size_t compz_length);
void dcopy_(const int* n, const double* x, const int* incx, double* y, const int* incy);
}

// Cholesky factor of the symmetric positive-definite `a` (n x n, leading dimension lda), in place
// in its lower triangle. Returns LAPACK's status: 0, or the order of the minor that failed.
inline int dpotrf(int n, double* a, int lda) {
  int info = 0;
  dpotrf_("L", &n, a, &lda, &info, 1);
  return info;
}

// Inverse of L Lt from its factor L, in place in the lower triangle.
inline int dpotri(int n, double* a, int lda) {
  int info = 0;
  dpotri_("L", &n, a, &lda, &info, 1);
  return info;
}

// Solves L Lt x = b for one right-hand side; b is overwritten by x.
inline int dpotrs(int n, const double* l, int lda, double* b, int ldb) {
  const int one = 1;
  int info = 0;
  dpotrs_("L", &n, &one, l, &lda, b, &ldb, &info, 1);
  return info;
}

// Inverse of a lower-triangular matrix, in place.
inline int dtrtri(int n, double* l, int ldl) {
  int info = 0;
  dtrtri_("L", "N", &n, l, &ldl, &info, 1, 1);
  return info;
}

// Eigenvalues, ascending, of the symmetric `a`; jobz "V" leaves the eigenvectors in `a`, "N"
// destroys it. work holds lwork entries, at least 3 n - 1.
inline int dsyev(const char* jobz, int n, double* a, int lda, double* w, double* work, int lwork) {
  int info = 0;
  dsyev_(jobz, "L", &n, a, &lda, w, work, &lwork, &info, 1, 1);
  return info;
}

// Eigenvalues, ascending, of the symmetric tridiagonal matrix with the diagonal d(n), which they
// replace, and the subdiagonal e(n - 1), which is destroyed. Returns LAPACK's status: 0, or how
// many subdiagonal entries have not converged to zero.
inline int dsteqr(int n, double* d, double* e) {
  const int one = 1;
  int info = 0;
  dsteqr_("N", &n, d, e, nullptr, &one, nullptr, &info, 1);
  return info;
}

inline void dcopy(int n, const double* x, double* y) {
  const int one = 1;
  dcopy_(&n, x, &one, y, &one);
}

}  // namespace statsubs::support
