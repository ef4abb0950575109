// SPDX-License-Identifier: Apache-2.0
#include "tests/statsubs/stderr/score_problem.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <initializer_list>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/stderr/scoretheta.h"

namespace test {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;

namespace {

template <class Array, class T>
void set(Array& array, std::initializer_list<T> values) {
  array.allocate("shared vector", static_cast<int>(values.size()));
  std::copy(values.begin(), values.end(), array.begin());
}

void set_model() {
  set(gv::theta, {0.3, -1.7, 0.6, 1.9, 0.7});
  gv::freesigmafound = 1;
  gv::sigmalchol = gv::theta(5);
  gv::sigmasq = gv::theta(5) * gv::theta(5);
  set(gv::ibaccolislog, {0, 1, 0});
  set(gv::muetamap, {2, 1, 0});
  set(qv::iseqtheta, {3, 1, 2});
  set(qv::itypetheta, {1, 1, 0, 1, 1});
  set(qv::itypetheta_etamap, {1, 2, -99, -99, -99});
  qv::cmatrix_3d.allocate("cmatrix_3d", score_problem::leneta, 3, score_problem::subject);
  const double c[] = {0.4, -1.3, 9.0, 0.0, 1.0, 9.0, 1.0, 0.0, 9.0};  // the subject's, by columns
  std::copy_n(c, 9, qv::cmatrix_3d.slice(score_problem::subject).data());
  // The inverse of ((2, 1, 0), (1, 2, 1), (0, 1, 2)).
  const double inverse[] = {0.75, -0.5, 0.25, -0.5, 1.0, -0.5, 0.25, -0.5, 0.75};
  gv::omegainv.allocate("omegainv", score_problem::leneta, score_problem::leneta);
  std::copy_n(inverse, 9, gv::omegainv.data());
  const double mask[] = {1, -1, 1, 9, 2, 0, 9, 9, 1};
  gv::omegamask.allocate("omegamask", score_problem::leneta, score_problem::leneta);
  std::copy_n(mask, 9, gv::omegamask.data());
}

}  // namespace

score_problem::score_problem()
    : samples{0.5, -0.2, 0.9, -1.1, 0.4, 0.3, 0.8, 1.2, -0.6, 0.1, -0.9, 0.2, 0.7, 0.3, -1.4},
      weights{0.3, 0.25, 1e-10, 0.15, 0.3} {
  gv::leneta = leneta;
  gv::ntheta = ntheta;
  gv::scorevec.allocate("scorevec", ntheta);
  gv::scorevec_expanded.allocate("scorevec_expanded", ntheta + nomegafree);
  set_model();
  host.objective = [this](int, const double* eta) {
    ++evaluations;
    // -ln N(1; theta4 eta1, sigma^2) without its constant.
    const double residual = 1.0 - gv::theta(4) * eta[0];
    return std::log(gv::sigmalchol) + 0.5 * residual * residual / gv::sigmasq;
  };
}

void score_problem::score(int free_elements) {
  const auto n = static_cast<std::size_t>(ntheta + free_elements);
  information.assign(n * n, 1.0);
  std::fill(gv::scorevec_expanded.begin(), gv::scorevec_expanded.end(), -1.0);
  statsubs::scoretheta(subject, static_cast<int>(weights.size()), samples.data(), weights.data(),
                       information.data(), free_elements);
  scores.assign(gv::scorevec_expanded.begin(), gv::scorevec_expanded.end());
}

}  // namespace test
