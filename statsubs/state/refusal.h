// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>

#include "statsubs/export.h"

namespace statsubs {

// Thrown by a routine that cannot do what it is called for: an argument or a shared variable is not
// what it needs, or it is called from inside itself. what() names the routine, the variable, what
// was found and what is needed. The host has not been called and nothing has been changed. In C it
// is the status STATSUBS_REFUSED.
class STATSUBS_API refusal : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

}  // namespace statsubs
