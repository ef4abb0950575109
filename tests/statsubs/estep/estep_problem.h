// SPDX-License-Identifier: Apache-2.0
//
// A subject whose E-step has a closed form: the joint density of its data and random effects is
// exp(loglik) N(eta; mean, factor factor'), as it is for every linear model with normal random
// effects and errors. Sets up the shared state, the Sobol sequence and a host for it.
#pragma once

#include <vector>

#include "statsubs/support/array.h"
#include "tests/support/fake_host.h"

namespace test {

class estep_problem {
 public:
  static constexpr int subject = 2;
  static constexpr int observations = 4;
  static constexpr int ntheta = 2;
  static constexpr double loglik = -12.25;

  // n random effects, 1 to 3. The proposal is off centre and wider than the conditional density.
  explicit estep_problem(int n);

  // -ln of the joint density; the score it leaves in zscoresub is 1 + the first random effect.
  double objective(const double* eta) const;
  double mean(int i) const { return mean_(i); }
  double covariance(int i, int k) const;

  fake_host host;

 private:
  int n_;
  statsubs::vector<double> mean_;
  statsubs::matrix<double> factor_;
};

// What an E-step gives; entries that it does not write keep the values set here.
struct estep_results {
  estep_results(int leneta, int samples);
  bool operator==(const estep_results&) const = default;

  int leneta;
  std::vector<double> samples;
  std::vector<double> weights;
  double loglik = -1.0;
  double wtsumzscore = -1.0;
  std::vector<double> mean;
  std::vector<double> covariance;
};

// Runs fgintegrate for the subject, with the shared results set to -1 beforehand.
estep_results run_estep(int samples);

// Starts the Sobol sequence anew, with another scrambling every time, or none.
void start_sobol(int dimensions, int scramble = 1);

}  // namespace test
