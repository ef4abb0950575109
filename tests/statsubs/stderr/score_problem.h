// SPDX-License-Identifier: Apache-2.0
//
// A subject with a fixed effect of every kind. Theta 1 and 2 are the means of random effects 1
// (logarithmic) and 2, in columns 2 and 3 of C; theta 3 is a covariate coefficient, column 1; theta
// 4 stands in the objective alone; theta 5 is the residual deviation. Random effect 1 has row 2 of
// C, random effect 2 row 1, and random effect 3 none.
#pragma once

#include <vector>

#include "tests/support/fake_host.h"

namespace test {

class score_problem {
 public:
  static constexpr int subject = 2;
  static constexpr int leneta = 3;
  static constexpr int ntheta = 5;
  static constexpr int nomegafree = 4;  // all of the lower triangle but (2,1), fixed, and (3,2)

  score_problem();

  // Runs scoretheta over the samples with every entry of the information set to 1 beforehand.
  void score(int free_elements = nomegafree);

  fake_host host;
  int evaluations = 0;
  std::vector<double> samples;                       // leneta x number of weights
  std::vector<double> weights, information, scores;  // scores is scorevec_expanded
};

}  // namespace test
