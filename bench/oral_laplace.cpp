// SPDX-License-Identifier: Apache-2.0
//
// TMB's template of the model that bench/peers.R fits: one compartment with first-order absorption,
// log-normal ka, CL and V, weight on clearance, additive or proportional error. Compiled by R.
#include <TMB.hpp>

template <class Type>
Type objective_function<Type>::operator()() {
  DATA_VECTOR(y);
  DATA_VECTOR(time);
  DATA_VECTOR(dose);
  DATA_VECTOR(log_weight);
  DATA_IVECTOR(subject);
  DATA_INTEGER(proportional);
  PARAMETER_VECTOR(typical);  // log ka, log CL, log V
  PARAMETER(weight_on_cl);
  PARAMETER_VECTOR(log_omega);  // log standard deviations
  PARAMETER(log_sigma);
  PARAMETER_MATRIX(eta);  // subjects x 3

  Type f = 0;
  for (int i = 0; i < eta.rows(); ++i)
    for (int k = 0; k < 3; ++k) f -= dnorm(eta(i, k), Type(0), exp(log_omega(k)), true);
  for (int j = 0; j < y.size(); ++j) {
    const int i = subject(j);
    const Type ka = exp(typical(0) + eta(i, 0));
    const Type cl = exp(typical(1) + weight_on_cl * log_weight(j) + eta(i, 1));
    const Type v = exp(typical(2) + eta(i, 2));
    const Type k = cl / v;
    const Type c = dose(j) * ka / (v * (ka - k)) * (exp(-k * time(j)) - exp(-ka * time(j)));
    f -= dnorm(y(j), c, exp(log_sigma) * (proportional ? c : Type(1)), true);
  }
  return f;
}
