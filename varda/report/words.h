// SPDX-License-Identifier: Apache-2.0
//
// The words of the model file for its choices.
#pragma once

#include "varda/model/specification.h"

namespace varda {

const char* name_of(distribution law);
const char* name_of(proposal_family family);
const char* name_of(standard_error_kind kind);

}  // namespace varda
