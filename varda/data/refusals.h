// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <vector>

#include "varda/support/finding.h"

namespace varda {

// Errors by their causes: those of the same code, column and remedy become one, which has the
// message and the place of the first, the number of the others and the rows of the next three.
class refusals {
 public:
  // Knows `most` causes; what comes later under another one is passed over.
  explicit refusals(std::size_t most) : most_(most) {}

  void add(const finding& what);
  bool empty() const { return causes_.empty(); }
  findings errors() const;

 private:
  struct cause {
    finding first;
    int others = 0;
    std::vector<int> rows{};
  };
  std::size_t most_;
  std::vector<cause> causes_;
};

}  // namespace varda
