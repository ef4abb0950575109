// SPDX-License-Identifier: Apache-2.0
//
// The routines that evaluate the model, with a host whose objective is all but free, for
// bench/entry_checks.py to count their instructions: entry_checks CALLS.
#include <cstdio>
#include <cstdlib>

#include "statsubs/estep/fgintegrate.h"
#include "statsubs/estep/fgpresampledir2.h"
#include "statsubs/quadrature/agqintjoint.h"
#include "statsubs/sequences/sobol.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/stderr/scoretheta.h"
#include "statsubs/support/array.h"

namespace {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;

constexpr int samples = 300;  // the default of a fit
constexpr int effects = 3;
constexpr int thetas = 4;
constexpr int free_omega = 6;
constexpr int nodes = 7;

void install_free_host() {
  statsubs::host_table& table = statsubs::installed_host();
  table.setisub = [](const int&) {};
  table.seteta = [](const double*) {};
  table.settheta = [](const double*) {};
  table.fcnxeta = [](const int&, const double* eta, double& f) { f = eta[0] * eta[0]; };
  table.fcneta = table.fcnxeta;
  table.setmainstdev = [](const double&) {};
  table.stoprequested = [] { return 0; };
  table.checkforstop = [](int&) {};
}

template <class Vector>
void fill(Vector& vector, const char* what, int n, typename Vector::value_type value) {
  vector.allocate(what, n);
  for (auto& entry : vector) entry = value;
}

void identity(statsubs::real_matrix& matrix, const char* what, double diagonal) {
  matrix.allocate(what, effects, effects);
  for (int i = 1; i <= effects; ++i) matrix(i, i) = diagonal;
}

// One subject with ten observations; every fixed effect but the residual deviation is a mean.
void set_state() {
  gv::leneta = effects;
  gv::ntheta = thetas;
  gv::nsub = 1;
  gv::npresample = samples;
  gv::accratio = 0.5;
  gv::freesigmafound = 1;
  fill(gv::theta, "theta", thetas, 1.0);
  fill(gv::xmusub, "xmusub", effects, 0.0);
  fill(gv::xmusubnew, "xmusubnew", effects, 0.0);
  fill(gv::scorevec, "scorevec", thetas, 0.0);
  fill(gv::scorevec_expanded, "scorevec_expanded", thetas + free_omega, 0.0);
  fill(gv::newsub, "newsub", 2, 1);
  gv::newsub(2) = 11;
  fill(gv::ibaccolislog, "ibaccolislog", effects, 1);
  fill(gv::muetamap, "muetamap", effects, 0);
  fill(qv::iseqtheta, "iseqtheta", effects, 0);
  fill(qv::itypetheta, "itypetheta", thetas, 1);
  fill(qv::itypetheta_etamap, "itypetheta_etamap", thetas, -99);
  for (int i = 1; i <= effects; ++i)
    gv::muetamap(i) = qv::iseqtheta(i) = qv::itypetheta_etamap(i) = i;
  identity(gv::omega, "omega", 1.0);
  identity(gv::omegainv, "omegainv", 1.0);
  identity(gv::omegalchol, "omegalchol", 1.0);
  identity(gv::omegacholsub, "omegacholsub", 0.5);
  identity(gv::omegasubnew, "omegasubnew", 0.0);
  gv::omegamask.allocate("omegamask", effects, effects);
  for (int j = 1; j <= effects; ++j)
    for (int i = 1; i <= effects; ++i) gv::omegamask(i, j) = 1.0;
  gv::etatable.allocate("etatable", effects, 1);
  qv::choleskyfactor.allocate("choleskyfactor", effects, effects, 1);
}

void start_sequence() {
  statsubs::poly_vinit_define();
  bool ok[2];
  int quality = 0;
  double point[effects];
  statsubs::insobl(ok, effects, (1 << 30) - 1, quality, point, 30, 1);
}

}  // namespace

int main(int argc, char** argv) {
  const int calls = argc > 1 ? std::atoi(argv[1]) : 20;
  install_free_host();
  set_state();
  start_sequence();
  statsubs::matrix<double> etas("etas", effects, samples);
  statsubs::vector<double> weights("weights", samples);
  statsubs::matrix<double> scores("scores", thetas + free_omega, thetas + free_omega);
  double loglik = 0.0;
  double sum = 0.0;
  int info = 0;
  for (int k = 0; k < calls; ++k) {
    statsubs::fgintegrate(1, samples, etas.data(), weights.data(), loglik);
    statsubs::scoretheta(1, samples, etas.data(), weights.data(), scores.data(), free_omega);
    sum += loglik;
    statsubs::fgpresampledir2(1, loglik, info);
    statsubs::agqintjoint(1, nodes, loglik, info);
    sum += loglik;
  }
  std::printf("%.6f\n", sum);
  return 0;
}
