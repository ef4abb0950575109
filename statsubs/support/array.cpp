// SPDX-License-Identifier: Apache-2.0
#include "statsubs/support/array.h"

#include <cstdio>
#include <cstdlib>

#include "statsubs/support/parallel.h"

namespace statsubs::support {

void subscript_failure(const char* file, int line, int dimension, long position, long extent) {
  std::fprintf(stderr, "%s:%d: subscript %d is %ld, outside 1..%ld\n", file, line, dimension,
               position, extent);
  std::abort();
}

void allocation_failure(const char* what, std::size_t bytes) {
  std::fprintf(stderr, "statsubs: no memory for %s (%zu bytes)\n", what, bytes);
  abort_job(EXIT_FAILURE);
}

void* reserve(const char* what, std::size_t count, std::size_t item) {
  // An empty array still has an address: allocated() tells it from one that was never allocated.
  void* storage = std::calloc(count > 0 ? count : 1, item);
  if (storage == nullptr) allocation_failure(what, count * item);
  return storage;
}

void release(void* storage) noexcept {
  std::free(storage);
}

}  // namespace statsubs::support
