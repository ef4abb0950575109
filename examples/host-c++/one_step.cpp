// SPDX-License-Identifier: Apache-2.0
//
// One E- and M-step of y_ij = theta + eta_i + e_ij, eta_i ~ N(0, omega), e_ij ~ N(0, sigma^2).
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <exception>
#include <vector>

#include "statsubs/estep/fgintegrate.h"
#include "statsubs/mstep/lrtheta.h"
#include "statsubs/sequences/sobol.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/output_units.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/state/saveearlyvars.h"

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;

constexpr int subjects = 4, samples = 3000;
constexpr double ln_two_pi = 1.8378770664093454836;
const std::array y = {4.1, 5.3, 4.6, 6.8, 7.4, 3.9, 3.1, 4.4, 2.7, 5.6, 5.1};
std::array first = {1, 4, 6, 10, 12};  // subject i has observations first(i) .. first(i+1) - 1
std::vector theta = {5.0}, omega_factor = {1.2}, omega_inverse_factor = {0.0}, centre = {0.0};
std::vector mean = {0.0}, covariance = {0.0}, proposal_factor = {1.2};
std::vector position = {1}, type = {1};
double sigma = 0.8;
int subject, quality;

// The negative joint log density of a subject's observations and its random effect, constants
// included; zscoresub is the sum of its squared scaled residuals.
void objective(const int&, const double* eta, double& f) {
  const int n = first[subject] - first[subject - 1];
  gv::zscoresub = 0.0;
  for (int j = first[subject - 1]; j < first[subject]; ++j)
    gv::zscoresub += std::pow((y[j - 1] - theta[0] - eta[0]) / sigma, 2);
  f = 0.5 * gv::zscoresub + n * std::log(sigma) + 0.5 * std::pow(eta[0] / omega_factor[0], 2) +
      std::log(omega_factor[0]) + 0.5 * (n + 1) * ln_two_pi;
}

// The same for n vectors in one call, an observation at a time: a loop over n that the compiler
// turns into vector instructions.
void objectives(const int&, const int& n, const double* etas, double* f, double* z) {
  const int count = first[subject] - first[subject - 1];
  std::fill_n(z, n, 0.0);
  for (int j = first[subject - 1]; j < first[subject]; ++j)
    for (int k = 0; k < n; ++k) z[k] += std::pow((y[j - 1] - theta[0] - etas[k]) / sigma, 2);
  for (int k = 0; k < n; ++k)
    f[k] = 0.5 * z[k] + count * std::log(sigma) + 0.5 * std::pow(etas[k] / omega_factor[0], 2) +
           std::log(omega_factor[0]) + 0.5 * (count + 1) * ln_two_pi;
}

void install_host() {
  statsubs::host_table& host = statsubs::installed_host();
  host.setisub = [](const int& isub) { subject = isub; };
  host.seteta = host.settheta = [](const double*) {};
  host.fcnxeta = objective;
  host.fcnxetas = objectives;  // optional
  host.stoprequested = [] { return 0; };
  host.checkforstop = [](int& stop) { statsubs::saveearlyvars::globalstop = stop; };
  host.getsaemcmatrix = [](const int&, double* cmatrix) { *cmatrix = 1.0; };
  statsubs::take_unit(
      6, [](void*, const char*, int) {}, nullptr);  // the library's own records
}

void set_shared_state() {
  gv::leneta = gv::ntheta = gv::numprocs = 1;
  gv::nsub = subjects;
  gv::accratio = 0.5;
  gv::theta.bind(theta.data(), 1);
  gv::newsub.bind(first.data(), subjects + 1);
  gv::omegalchol.bind(omega_factor.data(), 1, 1);
  gv::omegalcholinv.bind(omega_inverse_factor.data(), 1, 1);
  gv::xmusub.bind(centre.data(), 1);
  gv::omegacholsub.bind(proposal_factor.data(), 1, 1);
  gv::xmusubnew.bind(mean.data(), 1);
  gv::omegasubnew.bind(covariance.data(), 1, 1);
  qv::iseqtheta.bind(position.data(), 1);
  qv::itypetheta.bind(type.data(), 1);
}

int main() try {
  install_host();
  set_shared_state();
  bool ok[2];
  double point, loglik, sum = 0.0, squares = 0.0, means[subjects], variances[subjects];
  statsubs::poly_vinit_define();
  statsubs::insobl(ok, 1, (1 << 30) - 1, quality, &point, 30, 1);

  std::vector<double> drawn(samples), weights(samples);
  for (int i = 1; i <= subjects; ++i) {
    statsubs::fgintegrate(i, samples, drawn.data(), weights.data(), loglik);
    sum += loglik;
    squares += gv::wtsumzscore * (first[i] - first[i - 1]);
    means[i - 1] = theta[0] + mean[0];
    variances[i - 1] = covariance[0];
  }

  double estimate, omega = 0.0;
  const int row = 1;  // the random effect's row of the C matrix
  statsubs::lrtheta(1, &estimate, means, nullptr, nullptr, 1, 0, 1, &row);
  for (int i = 0; i < subjects; ++i)
    omega += (variances[i] + std::pow(means[i] - estimate, 2)) / subjects;
  std::printf("%-20s%10.4f\n%-20s%10.4f\n", "-2 log-likelihood", -2.0 * sum, "theta", estimate);
  std::printf("%-20s%10.4f\n%-20s%10.4f\n", "omega", omega, "sigma",
              sigma * std::sqrt(squares / y.size()));
} catch (const std::exception& error) {  // what a callable throws arrives here
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
