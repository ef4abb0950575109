// SPDX-License-Identifier: Apache-2.0
//
// The shared variables' access functions, one set per row of the modules' tables.
#include "statsubs/c/shared_variables.h"

#include "statsubs/c/guarded.h"
#include "statsubs/sequences/bdsobl.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/state/saveearlyvars.h"
#include "statsubs/state/standarderrorvariables.h"

namespace statsubs {

namespace {

template <class Array, class Item, class... Extents>
int bound(Array& array, Item* storage, Extents... extents) {
  if (storage == nullptr && (... && (extents > 0)))
    return c::failed(STATSUBS_UNUSABLE_ARGUMENT, "an array was bound to a null pointer");
  if ((... || (extents < 0)))
    return c::failed(STATSUBS_UNUSABLE_ARGUMENT, "an array was bound with a negative extent");
  array.bind(storage, extents...);
  return STATSUBS_OK;
}

// A name is a hundred characters in a row on both sides.
int bound(name_vector& names, char* storage, int n) {
  return bound(names, reinterpret_cast<display_name*>(storage), n);
}

template <class Item>
int found(const vector_view<Item>& array, Item** storage, int* n) {
  *storage = array.data();
  *n = array.size();
  return STATSUBS_OK;
}

int found(const name_vector& names, char** storage, int* n) {
  *storage = reinterpret_cast<char*>(names.data());
  *n = names.size();
  return STATSUBS_OK;
}

template <class Item>
int found(const matrix_view<Item>& array, Item** storage, int* rows, int* columns) {
  if (array.columns() > 1 && array.leading() != array.rows())
    return c::failed(STATSUBS_UNUSABLE_ARGUMENT, "the array was bound with a leading dimension");
  *storage = array.data();
  *rows = array.rows();
  *columns = array.columns();
  return STATSUBS_OK;
}

template <class Item>
int found(const cube_view<Item>& array, Item** storage, int* rows, int* columns, int* slices) {
  *storage = array.data();
  *rows = array.rows();
  *columns = array.columns();
  *slices = array.slices();
  return STATSUBS_OK;
}

template <class Item, int size>
int found(fixed_vector<Item, size>& array, Item** storage, int* n) {
  *storage = array.data();
  *n = size;
  return STATSUBS_OK;
}

template <class Item, int rows_, int columns_>
int found(fixed_matrix<Item, rows_, columns_>& array, Item** storage, int* rows, int* columns) {
  *storage = array.data();
  *rows = rows_;
  *columns = columns_;
  return STATSUBS_OK;
}

}  // namespace

}  // namespace statsubs

#define STATSUBS_SCALAR(type, name)                       \
  STATSUBS_API type statsubs_get_##name(void) {           \
    return name;                                          \
  }                                                       \
  STATSUBS_API void statsubs_set_##name(type new_value) { \
    name = new_value;                                     \
  }
#define STATSUBS_BIND_VECTOR(type, name)                        \
  STATSUBS_API int statsubs_bind_##name(type* storage, int n) { \
    return bound(name, storage, n);                             \
  }
#define STATSUBS_GET_VECTOR(type, name)                          \
  STATSUBS_API int statsubs_get_##name(type** storage, int* n) { \
    return found(name, storage, n);                              \
  }
#define STATSUBS_BIND_MATRIX(type, name)                                        \
  STATSUBS_API int statsubs_bind_##name(type* storage, int rows, int columns) { \
    return bound(name, storage, rows, columns);                                 \
  }
#define STATSUBS_GET_MATRIX(type, name)                                           \
  STATSUBS_API int statsubs_get_##name(type** storage, int* rows, int* columns) { \
    return found(name, storage, rows, columns);                                   \
  }
#define STATSUBS_CUBE(type, name)                                                              \
  STATSUBS_API int statsubs_bind_##name(type* storage, int rows, int columns, int slices) {    \
    return bound(name, storage, rows, columns, slices);                                        \
  }                                                                                            \
  STATSUBS_API int statsubs_get_##name(type** storage, int* rows, int* columns, int* slices) { \
    return found(name, storage, rows, columns, slices);                                        \
  }

#define STATSUBS_ACCESS_integer(name) STATSUBS_SCALAR(int, name)
#define STATSUBS_ACCESS_real(name) STATSUBS_SCALAR(double, name)
#define STATSUBS_ACCESS_integer_vector(name) \
  STATSUBS_BIND_VECTOR(int, name)            \
  STATSUBS_GET_VECTOR(int, name)
#define STATSUBS_ACCESS_real_vector(name) \
  STATSUBS_BIND_VECTOR(double, name)      \
  STATSUBS_GET_VECTOR(double, name)
#define STATSUBS_ACCESS_name_vector(name) \
  STATSUBS_BIND_VECTOR(char, name)        \
  STATSUBS_GET_VECTOR(char, name)
#define STATSUBS_ACCESS_real_matrix(name) \
  STATSUBS_BIND_MATRIX(double, name)      \
  STATSUBS_GET_MATRIX(double, name)
#define STATSUBS_ACCESS_real_cube(name) STATSUBS_CUBE(double, name)
#define STATSUBS_ACCESS_dimension_vector(name) STATSUBS_GET_VECTOR(int, name)
#define STATSUBS_ACCESS_initial_matrix(name) STATSUBS_GET_MATRIX(int, name)
#define STATSUBS_ACCESS_direction_matrix(name) STATSUBS_GET_MATRIX(int, name)
#define STATSUBS_ACCESS(kind, name, extent, meaning, writer) STATSUBS_ACCESS_##kind(name)

// The functions stand where the variables' plain names mean them; their own names are C's.
extern "C" {
namespace statsubs {
namespace global_variables {
STATSUBS_GLOBAL_VARIABLES(STATSUBS_ACCESS)
}
namespace qrpemlocalvariables {
STATSUBS_QRPEMLOCALVARIABLES(STATSUBS_ACCESS)
}
namespace standarderrorvariables {
STATSUBS_STANDARDERRORVARIABLES(STATSUBS_ACCESS)
}
namespace saveearlyvars {
STATSUBS_SAVEEARLYVARS(STATSUBS_ACCESS)
}
namespace bdsobl {
STATSUBS_BDSOBL(STATSUBS_ACCESS)
}
}  // namespace statsubs
}
