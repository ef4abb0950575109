// SPDX-License-Identifier: Apache-2.0
//
// A host that is a set of external Fortran procedures: `call install_host_by_name` finds them under
// the callables' names with a trailing underscore. Those that the program lacks keep their
// defaults.
#include "statsubs/state/host.h"

// Weak declarations: a callable that the program does not define has a null address.
extern "C" {
#define STATSUBS_SYMBOL(result, name, parameters, arguments) \
  __attribute__((weak)) result name##_ parameters;
STATSUBS_HOST_CALLABLES(STATSUBS_SYMBOL)
#undef STATSUBS_SYMBOL

void install_host_by_name_() {
  statsubs::host_table& table = statsubs::installed_host();
#define STATSUBS_ENTRY(result, name, parameters, arguments) \
  if (name##_ != nullptr) table.name = name##_;
  STATSUBS_HOST_CALLABLES(STATSUBS_ENTRY)
#undef STATSUBS_ENTRY
}
}
