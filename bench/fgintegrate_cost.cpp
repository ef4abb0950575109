// SPDX-License-Identifier: Apache-2.0
//
// What the E-step costs beyond the model: fgintegrate with a host whose objective is free, and the
// host's own calls alone, for every proposal family and several numbers of random effects. An item
// is a sample; bench/routines.py subtracts the second from the first.
#include "bench/timing.h"
#include "statsubs/estep/fgintegrate.h"
#include "statsubs/sequences/sobol.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/saveearlyvars.h"
#include "statsubs/support/array.h"

namespace {

namespace gv = statsubs::global_variables;
namespace host = statsubs::host;

constexpr int samples = 1002;

struct family {
  const char* name;
  int impsampdof;
};
constexpr family families[] = {
    {"normal", 0}, {"laplace", 1}, {"two normals", -2}, {"three normals", -3}, {"t5", 5}};

void install_free_host() {
  statsubs::host_table& table = statsubs::installed_host();
  table.setisub = [](const int&) {};
  table.seteta = [](const double*) {};
  table.settheta = [](const double*) {};
  table.fcnxeta = [](const int&, const double* eta, double& f) { f = eta[0] * eta[0]; };
  table.stoprequested = [] { return 0; };
  table.checkforstop = [](int&) {};
}

void set_state(int n, int impsampdof) {
  gv::leneta = n;
  gv::ntheta = 5;
  gv::theta.allocate("theta", gv::ntheta);
  gv::xmusub.allocate("xmusub", n);
  gv::omegacholsub.allocate("omegacholsub", n, n);
  gv::xmusubnew.allocate("xmusubnew", n);
  gv::omegasubnew.allocate("omegasubnew", n, n);
  gv::newsub.allocate("newsub", 2);
  gv::newsub(1) = 1;
  gv::newsub(2) = 11;
  for (int j = 1; j <= n; ++j)
    for (int i = j; i <= n; ++i) gv::omegacholsub(i, j) = i == j ? 0.3 : 0.05;
  gv::accratio = 0.5;
  gv::impsampdof = impsampdof;
  gv::iflagmcpem = 0;
  gv::myid = 0;
  gv::numprocs = 1;
  install_free_host();

  statsubs::poly_vinit_define();
  bool ok[2];
  int quality = 0;
  double point[40];
  statsubs::insobl(ok, n, (1 << 30) - 1, quality, point, 30, 1);
}

void integrate(benchmark::State& state, int n, int impsampdof) {
  set_state(n, impsampdof);
  statsubs::matrix<double> etas("etas", n, samples);
  statsubs::vector<double> weights("weights", samples);
  for (auto _ : state) {
    double loglik = 0.0;
    statsubs::fgintegrate(1, samples, etas.data(), weights.data(), loglik);
    benchmark::DoNotOptimize(loglik);
  }
  state.SetItemsProcessed(state.iterations() * samples);
}

// The calls that the E-step makes for a sample.
void call_host(benchmark::State& state) {
  set_state(1, 0);
  const statsubs::host_table& table = statsubs::installed_host();
  statsubs::vector<double> eta("eta", 1);
  for (auto _ : state) {
    for (int j = 0; j < samples; ++j) {
      double f = 0.0;
      table.seteta(eta.data());
      table.settheta(gv::theta.data());
      table.fcnxeta(gv::leneta, eta.data(), f);
      benchmark::DoNotOptimize(table.stoprequested());
      benchmark::DoNotOptimize(table.isgoodr8(f));
      benchmark::DoNotOptimize(table.isgoodr8(-f));
    }
  }
  state.SetItemsProcessed(state.iterations() * samples);
}

void register_all() {
  for (const auto& [name, impsampdof] : families)
    for (const int n : {1, 3, 6, 10})
      benchmark::RegisterBenchmark(
          ("fgintegrate/" + std::string(name) + "/" + std::to_string(n)).c_str(),
          [n, dof = impsampdof](benchmark::State& state) { integrate(state, n, dof); });
  benchmark::RegisterBenchmark("host calls", call_host);
}

}  // namespace

int main(int argc, char** argv) {
  register_all();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
