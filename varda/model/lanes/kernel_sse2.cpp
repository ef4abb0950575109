// SPDX-License-Identifier: Apache-2.0
#include <emmintrin.h>
#include <sleef.h>

namespace {

using vec = __m128d;
constexpr const char* kernel_name = "sse2";

constexpr vec every(double x) {
  return vec{x, x};
}
inline vec root(vec x) {
  return _mm_sqrt_pd(x);
}
inline unsigned sign_bits(vec x) {
  return static_cast<unsigned>(_mm_movemask_pd(x));
}

}  // namespace

#define VARDA_SLEEF(function) Sleef_cinz_##function##d2_u10sse2
#define VARDA_SLEEF_U15(function) Sleef_cinz_##function##d2_u15sse2
#define VARDA_KERNEL sse2_lane_kernel
#include "varda/model/lanes/kernel_body.h"
