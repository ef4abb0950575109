// SPDX-License-Identifier: Apache-2.0
//
// Compiled for AVX2: nothing but this kernel may come from here, inline functions of headers
// included, since the linker might keep them for everybody.
#include <immintrin.h>
#include <sleef.h>

namespace {

using vec = __m256d;
constexpr const char* kernel_name = "avx2";

constexpr vec every(double x) {
  return vec{x, x, x, x};
}
inline vec root(vec x) {
  return _mm256_sqrt_pd(x);
}
inline unsigned sign_bits(vec x) {
  return static_cast<unsigned>(_mm256_movemask_pd(x));
}

}  // namespace

#define VARDA_SLEEF(function) Sleef_cinz_##function##d4_u10avx
#define VARDA_SLEEF_U15(function) Sleef_cinz_##function##d4_u15avx
#define VARDA_KERNEL avx2_lane_kernel
#include "varda/model/lanes/kernel_body.h"
