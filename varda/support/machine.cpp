// SPDX-License-Identifier: Apache-2.0
#include "varda/support/machine.h"

#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <system_error>

extern "C" double ddot_(const int* n, const double* x, const int* incx, const double* y,
                        const int* incy);

namespace varda {

std::string host_name() {
  std::array<char, 256> name{};
  if (gethostname(name.data(), name.size() - 1) != 0) return "";
  return name.data();
}

std::string blas_library() {
  Dl_info found{};
  if (dladdr(reinterpret_cast<void*>(&ddot_), &found) == 0 || found.dli_fname == nullptr) return "";
  std::error_code trouble;
  const std::filesystem::path file = std::filesystem::canonical(found.dli_fname, trouble);
  return trouble ? std::string(found.dli_fname) : file.string();
}

}  // namespace varda
