// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/host/job.h"
#include "varda/support/files.h"

namespace varda {

// Files as the root sees them: it reads each one once and gives its bytes to the others, so that
// all processes read the same. Reading is collective; every process has to ask for the same files
// in the same order, which they do while each goes by what it has read.
file_access shared_files(const job& peers);

}  // namespace varda
