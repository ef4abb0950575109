// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace varda {

// The name of this computer in its network, or "" where it has none.
std::string host_name();

// The file of the BLAS library in use, links resolved, or "" where it cannot be told.
std::string blas_library();

}  // namespace varda
