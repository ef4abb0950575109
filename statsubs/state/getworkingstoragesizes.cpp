// SPDX-License-Identifier: Apache-2.0
#include "statsubs/state/getworkingstoragesizes.h"

#include <algorithm>
#include <cstdio>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/standarderrorvariables.h"
#include "statsubs/support/engine_log.h"

namespace statsubs {

namespace gv = statsubs::global_variables;
namespace se = statsubs::standarderrorvariables;

namespace {

enum engine_code { quasi_random_em = 1, naive_pooled = 6, own_sample_count = 7 };

// A multiple of 2 and of 3: the components of a mixture proposal then get equal shares of a
// subject.
constexpr int sample_granule = 6;

int rounded_up(int count, int granule) {
  const int excess = count % granule;
  if (excess == 0) return count;
  return count - excess + (excess > 0 ? granule : 0);
}

void fetch_names(name_vector& names, const char* what, int count,
                 void (*fetch)(const int& index, char* name)) {
  names.allocate(what, count);
  for (int i = 1; i <= count; ++i) {
    names(i).fill(' ');
    fetch(i, names(i).data());
  }
}

void fetch_observed_variables() {
  se::stddevnum = host::getobscount();
  fetch_names(se::stddevnames, "names of the residual deviations", se::stddevnum,
              host::getobsstdevname);
  se::stddevobsnum.allocate("counts of the observed variables", se::stddevnum);
  for (int i = 1; i <= se::stddevnum; ++i) se::stddevobsnum(i) = host::getobsvaluecount(i);
}

void fetch_tables(int nranefnames) {
  fetch_names(gv::fixedeffectnames, "names of the fixed effects", gv::ntheta, host::getfixefname);
  fetch_names(gv::randomeffectnames, "names of the random effects", nranefnames,
              host::getranef5name);
  se::fixeferrtothetamap.allocate("map of fixed-effect errors", gv::ntheta);
  host::getfixeferrtothetamap(se::fixeferrtothetamap.data());
  fetch_observed_variables();
}

void count_observations() {
  gv::nobstotal = 0;
  gv::nobsmax = 0;
  for (int isub = 1; isub <= gv::nsub; ++isub) {
    gv::nobs = host::getnobs1(isub);
    gv::nobstotal += gv::nobs;
    gv::nobsmax = std::max(gv::nobsmax, gv::nobs);
  }
  gv::totalobsnumber = gv::nobstotal;
}

void report_missing_random_effects() {
  support::engine_log log(support::engine_log::position::rewrite);
  for (const char* line : {"Current engine is not applicable without random effects.",
                           "Naive Pooled engine is recommended."}) {
    log.write(line);
    std::fprintf(stderr, "%s\n", line);
  }
}

// Has the host pack a model of zeros, for the count alone.
int count_packed_parameters() {
  // What every host may count on; more where a large model needs it.
  constexpr int least_buffer = 401;
  const int room = gv::ntheta + gv::leneta * (gv::leneta + 1) / 2 + 1;
  const vector<double> theta("fixed effects to be counted", gv::ntheta);
  const matrix<double> omega("covariance to be counted", gv::leneta, gv::leneta);
  const vector<double> packed("packed parameters to be counted", std::max(least_buffer, room));
  int count = 0;
  host::packparameters1(theta.data(), omega.data(), gv::sigmalchol, packed.data(), gv::leneta,
                        count);
  return count;
}

void read_common_settings() {
  gv::nsampset = host::getisample();
  gv::npresample = std::max(host::getpresample(), 1);
  gv::ngetmapnp = host::getmapnp();
  gv::nchain = host::getsirsamp();
}

void read_method_settings(int engine) {
  if (engine == own_sample_count) gv::nsampset = 999;
  gv::iqrpem = engine == quasi_random_em ? 1 : 0;
  gv::itestui = host::getrunfromui();
  gv::irunall = host::getpemrunall();
}

void read_quasi_random_settings() {
  gv::impmapflag = host::getmapassist();
  gv::iflagmcpem = host::getmcpem();
  gv::accratio = host::getaccratio();
  gv::impsampdof = host::getimpsampdof();
  gv::nqrburn = host::getburnin();
  gv::ifreezeomegaburn = host::nonomegaburn();
  gv::iflagscramble = host::getscramble();
  if (gv::itestui == 0) {
    gv::nsampset = 300;
    host::getqrpemflags();
  }
}

void read_flag_source() {
  gv::npresample = 1;
  host::readflags0();
  if (gv::npresample == 1) gv::ipresample = 0;
}

}  // namespace

void getworkingstoragesizes(const int& engine, const int& nranefnames, const int& nraneffects,
                            const int& nsubjects, const int& nobserved, int& fixedsize,
                            int& packsize) {
  gv::nsub = nsubjects;
  gv::nobs = nobserved;
  gv::ntheta = host::getntheta();
  gv::leneta = nraneffects;
  fetch_tables(nranefnames);
  count_observations();
  if (engine != naive_pooled && gv::leneta == 0 && gv::myid == 0) report_missing_random_effects();

  gv::npackglobal = count_packed_parameters();
  gv::hessiandimension = std::max(gv::leneta, gv::npackglobal);
  host::allocateglobalarrays(gv::hessiandimension, gv::leneta, gv::ntheta, gv::nsub);
  packsize = 3 * gv::npackglobal * gv::npackglobal;

  read_common_settings();
  read_method_settings(engine);
  if (engine == quasi_random_em) read_quasi_random_settings();
  gv::nsampset = rounded_up(gv::nsampset, sample_granule);
  if (gv::itestui == 0) read_flag_source();

  gv::modeljacob.allocate("the model's Jacobian", gv::totalobsnumber,
                          engine == naive_pooled ? nranefnames : nraneffects);
  fixedsize = 1000;
}

}  // namespace statsubs
