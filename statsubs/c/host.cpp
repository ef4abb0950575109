// SPDX-License-Identifier: Apache-2.0
//
// A host in C. The library calls by reference and C takes pointers, so that each callable gets a
// forwarder; forwarders are noexcept because nothing can be thrown through a C function.
#include "statsubs/state/host.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "statsubs/c/guarded.h"
#include "statsubs/c/statsubs.h"

namespace statsubs::c {

namespace {

statsubs_host_table installed{};

template <class T>
using c_type =
    std::conditional_t<std::is_reference_v<T>, std::add_pointer_t<std::remove_reference_t<T>>, T>;

template <class T>
c_type<T> passed(T argument) {
  if constexpr (std::is_reference_v<T>)
    return &argument;
  else
    return argument;
}

template <auto member, class Callable>
struct forwarder;

template <auto member, class Result, class... Arguments>
struct forwarder<member, Result (*)(Arguments...)> {
  using c_callable = Result (*)(c_type<Arguments>...);
  static_assert(std::is_same_v<decltype(installed.*member), c_callable&>);

  static Result call(Arguments... arguments) noexcept {
    return (installed.*member)(passed<Arguments>(arguments)...);
  }
};

static_assert(STATSUBS_HOST_VERSION == host_table::current_version);
static_assert(sizeof(statsubs_host_table) == sizeof(host_table));

// Whether the table is one of this library or an older one: it ends between two callables.
bool is_known(const statsubs_host_table& table) {
  constexpr std::size_t first = offsetof(statsubs_host_table, setisub);
  constexpr std::size_t entry = sizeof table.setisub;
  const auto size = static_cast<std::size_t>(table.size);
  return table.size > 0 && size >= first && size <= sizeof table && (size - first) % entry == 0 &&
         table.version >= 1 && table.version <= STATSUBS_HOST_VERSION;
}

host_table forwarding_table() {
  host_table table = default_host();
#define STATSUBS_FORWARD(result, name, parameters, arguments) \
  if (installed.name != nullptr)                              \
    table.name = forwarder<&statsubs_host_table::name, decltype(host_table::name)>::call;
  STATSUBS_HOST_CALLABLES(STATSUBS_FORWARD)
#undef STATSUBS_FORWARD
  return table;
}

}  // namespace

}  // namespace statsubs::c

int statsubs_install_host(const statsubs_host_table* table) {
  using namespace statsubs::c;
  if (table != nullptr && !is_known(*table))
    return failed(STATSUBS_UNUSABLE_TABLE,
                  "the host table's size or version is not one that this library knows");
  installed = {};
  if (table != nullptr) std::memcpy(&installed, table, static_cast<std::size_t>(table->size));
  statsubs::installed_host() = forwarding_table();
  return STATSUBS_OK;
}
