// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace varda {

// The commit that the program was built from, with a + where the sources differed from it; empty
// where it was built outside a clone.
const char* commit();

}  // namespace varda
