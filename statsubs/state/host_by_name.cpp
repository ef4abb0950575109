// SPDX-License-Identifier: Apache-2.0
#include "statsubs/state/host.h"

// Weak declarations: a callable that the program does not define has a null address.
extern "C" {
#define STATSUBS_SYMBOL(result, name, parameters, arguments) \
  __attribute__((weak)) result linked_##name parameters __asm__(#name);
STATSUBS_HOST_CALLABLES(STATSUBS_SYMBOL)
#undef STATSUBS_SYMBOL
}

namespace statsubs {

void install_host_by_name() {
  host_table& table = installed_host();
  const auto library_pow = table.pow;
#define STATSUBS_ENTRY(result, name, parameters, arguments) \
  if (linked_##name != nullptr) table.name = linked_##name;
  STATSUBS_HOST_CALLABLES(STATSUBS_ENTRY)
#undef STATSUBS_ENTRY
  // The C library defines a function of this name, with other arguments.
  table.pow = library_pow;
}

}  // namespace statsubs
