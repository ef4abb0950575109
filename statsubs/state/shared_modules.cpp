// SPDX-License-Identifier: Apache-2.0
#include <string_view>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/state/saveearlyvars.h"
#include "statsubs/state/standarderrorvariables.h"

namespace statsubs {
namespace {

// A program that says nothing of processes runs alone. All else starts as zero or unbound.
constexpr integer at_load(std::string_view name) {
  return name == "numprocs" ? 1 : 0;
}

}  // namespace

#define STATSUBS_AT_LOAD_integer(name) \
  { at_load(#name) }
#define STATSUBS_AT_LOAD_real(name) \
  {}
#define STATSUBS_AT_LOAD_integer_vector(name) \
  {}
#define STATSUBS_AT_LOAD_real_vector(name) \
  {}
#define STATSUBS_AT_LOAD_real_matrix(name) \
  {}
#define STATSUBS_AT_LOAD_name_vector(name) \
  {}
#define STATSUBS_DEFINE_GLOBAL(kind, name, extent, meaning, writer) \
  kind name STATSUBS_AT_LOAD_##kind(name);

namespace global_variables {
STATSUBS_GLOBAL_VARIABLES(STATSUBS_DEFINE_GLOBAL)
}
namespace qrpemlocalvariables {
STATSUBS_QRPEMLOCALVARIABLES(STATSUBS_DEFINE_SHARED)
}
namespace standarderrorvariables {
STATSUBS_STANDARDERRORVARIABLES(STATSUBS_DEFINE_SHARED)
}
namespace saveearlyvars {
STATSUBS_SAVEEARLYVARS(STATSUBS_DEFINE_SHARED)
}
}  // namespace statsubs
