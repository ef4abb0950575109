// SPDX-License-Identifier: Apache-2.0
#include "varda/model/lanes/kernel.h"

#include <cstdlib>

namespace varda {

extern const lane_kernel sse2_lane_kernel;
extern const lane_kernel avx2_lane_kernel;

const lane_kernel* lane_kernel_named(std::string_view name) {
  if (name == sse2_lane_kernel.name) return &sse2_lane_kernel;
  if (name == avx2_lane_kernel.name && __builtin_cpu_supports("avx2")) return &avx2_lane_kernel;
  return nullptr;
}

const lane_kernel& best_lane_kernel() {
  static const lane_kernel& chosen = [&]() -> const lane_kernel& {
    const char* wanted = std::getenv("VARDA_INSTRUCTIONS");
    const lane_kernel* named = wanted == nullptr ? nullptr : lane_kernel_named(wanted);
    if (named != nullptr) return *named;
    const lane_kernel* wide = lane_kernel_named("avx2");
    return wide != nullptr ? *wide : sse2_lane_kernel;
  }();
  return chosen;
}

}  // namespace varda
