// SPDX-License-Identifier: Apache-2.0
//
// Arrays whose extents are known when the program is compiled. They hold their entries themselves,
// zero until written, and are addressed like those of array.h: column-major, `()` counts from 1.
#pragma once

#include "statsubs/support/array.h"

namespace statsubs {

template <class T, int Size>
class fixed_vector {
 public:
  T& operator()(int i, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    support::check(1, i, Size, file, line);
    return entries_[i - 1];
  }
  T* data() { return entries_; }

 private:
  T entries_[Size] = {};
};

template <class T, int Rows, int Columns>
class fixed_matrix {
 public:
  T& operator()(int i, int j, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    support::check(1, i, Rows, file, line);
    support::check(2, j, Columns, file, line);
    return entries_[i - 1 + (j - 1) * Rows];
  }
  T* data() { return entries_; }
  static constexpr int leading() { return Rows; }

 private:
  T entries_[Rows * Columns] = {};
};

}  // namespace statsubs
