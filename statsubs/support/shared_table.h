// SPDX-License-Identifier: Apache-2.0
//
// What every shared module's table is expanded with. A row is: kind, name, extent ("" for a
// scalar), meaning, writer.
#pragma once

#include "statsubs/export.h"

namespace statsubs {

using integer = int;
using real = double;

}  // namespace statsubs

// Declares, or with STATSUBS_DEFINE_SHARED defines, one row of a shared-module table.
#define STATSUBS_DECLARE_SHARED(kind, name, extent, meaning, writer) STATSUBS_API extern kind name;
#define STATSUBS_DEFINE_SHARED(kind, name, extent, meaning, writer) kind name{};
