// SPDX-License-Identifier: Apache-2.0
//
// Whether an installed program finds what it should: reference problems from their model files to
// their results, compared with exact figures.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "varda/host/job.h"

namespace varda {

struct selftest_figure {
  std::string name;
  double expected = 0.0;
  double found = 0.0;    // NaN where it was not computed
  double allowed = 0.0;  // difference
  bool passed() const;
};

struct selftest_case {
  std::string title;
  std::string failure;  // what is wrong apart from the figures, or empty
  std::vector<selftest_figure> figures;
  double seconds = 0.0;
  bool passed() const;
};

// All problems, and last whether results keep their bytes for another number of threads.
// Collective. `begins` is told the title of each. Changes the number of threads of `peers`.
std::vector<selftest_case> run_selftest(job& peers,
                                        const std::function<void(const std::string&)>& begins);

}  // namespace varda
