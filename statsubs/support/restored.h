// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/support/array.h"
#include "statsubs/support/lapack.h"

namespace statsubs::support {

// Keeps a copy of `values` and puts it back at the end of its life, on every way out.
class restored {
 public:
  explicit restored(vector_view<double> values)
      : values_(values), saved_("values to be restored", values.size()) {
    dcopy(saved_.size(), values_.data(), saved_.data());
  }
  ~restored() { dcopy(saved_.size(), saved_.data(), values_.data()); }
  restored(const restored&) = delete;
  restored& operator=(const restored&) = delete;

 private:
  vector_view<double> values_;
  vector<double> saved_;
};

}  // namespace statsubs::support
