// SPDX-License-Identifier: Apache-2.0
//
// Hosts that err: every routine names what is wrong before it does anything, and takes its
// dimensions from leneta, however large the arrays are.
#include "statsubs/state/entry_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <regex>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "statsubs/c/statsubs.h"
#include "statsubs/estep/fgintegrate.h"
#include "statsubs/estep/fgpresampledir2.h"
#include "statsubs/mstep/itmapnp.h"
#include "statsubs/mstep/lrtheta.h"
#include "statsubs/mstep/predetamu.h"
#include "statsubs/quadrature/agqintjoint.h"
#include "statsubs/quadrature/updatedecomp.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/state/standarderrorvariables.h"
#include "statsubs/stderr/checktight.h"
#include "statsubs/stderr/qncurv.h"
#include "statsubs/stderr/scoretheta.h"
#include "statsubs/stderr/stderromega.h"
#include "tests/statsubs/estep/estep_problem.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;
namespace sv = statsubs::standarderrorvariables;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr int samples = 12;
constexpr int subject = test::estep_problem::subject;

template <class Array, class T>
void fill(Array& array, std::initializer_list<T> values) {
  std::copy(values.begin(), values.end(), array.data());
}

// A shared array, which can be made a row (or slice) too small or two rows too large.
struct shared_array {
  std::string name;
  std::function<void(const std::function<void()>&)> shrunk, unbound, grown;
};

// Runs `body` with `array` bound to extents that differ by `more` in the first (and `last` in the
// last) dimension; entries that are there keep their values, the others are `padding`.
template <class T>
void with(vector<T>& array, int more, int last, T padding, const std::function<void()>& body) {
  vector<T> kept = std::move(array);
  array.allocate("resized", kept.size() + more + last);
  std::fill(array.begin(), array.end(), padding);
  const int n = std::min(kept.size(), array.size());
  std::copy_n(kept.begin(), n, array.begin());
  body();
  std::copy_n(array.begin(), n, kept.begin());
  array = std::move(kept);
}

template <class T>
void with(matrix<T>& array, int more, int last, T padding, const std::function<void()>& body) {
  matrix<T> kept = std::move(array);
  array.allocate("resized", kept.rows() + more, kept.columns() + last);
  std::fill_n(array.data(), array.rows() * array.columns(), padding);
  const auto copy = [](const matrix_view<T>& from, const matrix_view<T>& to) {
    for (int j = 1; j <= std::min(from.columns(), to.columns()); ++j)
      for (int i = 1; i <= std::min(from.rows(), to.rows()); ++i) to(i, j) = from(i, j);
  };
  copy(kept, array);
  body();
  copy(array, kept);
  array = std::move(kept);
}

template <class T>
void with(cube<T>& array, int more, int last, T padding, const std::function<void()>& body) {
  cube<T> kept = std::move(array);
  array.allocate("resized", kept.rows() + more, kept.columns(), kept.slices() + last);
  std::fill_n(array.data(), array.rows() * array.columns() * array.slices(), padding);
  const auto copy = [](const cube_view<T>& from, const cube_view<T>& to) {
    for (int k = 1; k <= std::min(from.slices(), to.slices()); ++k)
      for (int j = 1; j <= from.columns(); ++j)
        for (int i = 1; i <= std::min(from.rows(), to.rows()); ++i) to(i, j, k) = from(i, j, k);
  };
  copy(kept, array);
  body();
  copy(array, kept);
  array = std::move(kept);
}

template <class Array>
shared_array sized(const char* name, Array& array, bool by_last = false) {
  using item = typename Array::value_type;
  constexpr item padding = std::is_same_v<item, double> ? static_cast<item>(1e99) : item{};
  const int first = by_last ? 0 : 1;
  return {name, [&array, first](const auto& body) { with(array, -first, first - 1, item{}, body); },
          [&array](const auto& body) {
            Array kept = std::move(array);
            body();
            array = std::move(kept);
          },
          [&array](const auto& body) { with(array, 2, 0, padding, body); }};
}

// Without the alias of the module.
#define ARRAY(array) sized(&(#array)[4], array)
#define BY_SUBJECT(array) sized(&(#array)[4], array, true)

struct routine {
  std::string name;
  std::function<void()> call;
  std::vector<shared_array> arrays;
};

// State for every routine: two random effects, two subjects, two fixed effects of which the second
// is a covariate coefficient.
class HostErrs : public testing::Test {
 protected:
  HostErrs() : problem(2) {
    gv::myid = 0;
    gv::numprocs = 1;
    gv::nsub = subject;
    gv::npresample = 60;
    gv::npackglobal = 5;
    gv::ngetmapnp = 1;
    gv::freesigmafound = 0;
    for (real_matrix* square : {&gv::omega, &gv::omegainv, &gv::omegamask, &gv::omegalcholinv}) {
      square->allocate("a square matrix", 2, 2);
      fill(*square, {1.0, 0.25, 0.25, 1.0});
    }
    for (real_vector* pair : {&gv::stddeveta, &gv::scorevec, &gv::thetalo, &gv::thetahi}) {
      pair->allocate("a pair", 2);
      fill(*pair, {1.0, 1.0});
    }
    gv::scorevec_expanded.allocate("scorevec_expanded", 5);
    sv::xbase.allocate("xbase", 5);
    gv::cholsub.allocate("cholsub", 3, subject);
    gv::etatable.allocate("etatable", 2, subject);
    fill(gv::cholsub, {2.0, 0.5, 3.0, 2.0, 0.5, 3.0});
    qv::choleskyfactor.allocate("choleskyfactor", 2, 2, subject);
    qv::cmatrix_3d.allocate("cmatrix_3d", 2, 2, subject);
    for (integer_vector* pair : {&gv::ibtight, &gv::ibaccolislog, &gv::muetamap, &qv::iseqtheta,
                                 &qv::itypetheta, &qv::itypetheta_etamap})
      pair->allocate("a pair of integers", 2);
    fill(gv::muetamap, {1, 2});
    fill(qv::iseqtheta, {2, 1});
    fill(qv::itypetheta, {1, 0});
    fill(qv::itypetheta_etamap, {1, -99});
    fill(gv::newsub, {1, 6, 10});
    fill(qv::cmatrix_3d, {1.0, 0.0, 0.0, 1.0, 1.0, 0.0, 0.0, 1.0});
    set_host();
  }

  void set_host() {
    problem.host.cmatrix = [](int, double* c) { c[0] = c[3] = 1.0; };
    host_table& table = problem.host.table();
    table.setmainstdev = [](const double&) {};
    table.globalblups2 = [] {};
    table.estflattheta = [](double&) {};
    table.estblups = [](const int&, double&) {};
    table.boundmap = [](const int&, const double*, double*) {};
    table.packparameters1 = [](const double*, const double*, const double&, double*, const int&,
                               int&) {};
  }

  std::vector<routine> routines() {
    return {
        {"fgintegrate",
         [this] { fgintegrate(subject, samples, etas, weights, loglik); },
         {ARRAY(gv::theta), ARRAY(gv::newsub), ARRAY(gv::xmusub), ARRAY(gv::omegacholsub),
          ARRAY(gv::xmusubnew), ARRAY(gv::omegasubnew)}},
        {"fgpresampledir2",
         [this] { fgpresampledir2(subject, loglik, info); },
         {ARRAY(gv::theta), ARRAY(gv::newsub), ARRAY(gv::omega), ARRAY(gv::omegalchol),
          ARRAY(gv::xmusubnew), ARRAY(gv::omegasubnew), BY_SUBJECT(gv::etatable),
          BY_SUBJECT(qv::choleskyfactor)}},
        {"agqintjoint",
         [this] { agqintjoint(subject, 3, loglik, info); },
         {ARRAY(gv::theta), ARRAY(gv::xmusub), ARRAY(gv::omegacholsub), ARRAY(gv::xmusubnew),
          ARRAY(gv::omegasubnew)}},
        {"updatedecomp",
         [this] { updatedecomp(subject, info); },
         {BY_SUBJECT(gv::cholsub), ARRAY(gv::stddeveta), ARRAY(gv::omega),
          ARRAY(gv::omegacholsub)}},
        {"qncurv",
         [this] { qncurv(subject, info); },
         {ARRAY(gv::newsub), ARRAY(gv::cholsub), ARRAY(gv::omegasubnew),
          BY_SUBJECT(qv::choleskyfactor)}},
        {"lrtheta",
         [this] { lrtheta(2, solution, means, nullptr, nullptr, 2, 0, 2, gv::muetamap.data()); },
         {ARRAY(gv::newsub), ARRAY(gv::omegalchol), ARRAY(gv::omegalcholinv)}},
        {"predetamu", [this] { predetamu(subject, solution, 2, 0, 2, rows); }, {ARRAY(gv::xmusub)}},
        {"itmapnp", [this] { itmapnp(2, etas); }, {ARRAY(gv::theta), BY_SUBJECT(gv::etatable)}},
        {"scoretheta",
         [this] { scoretheta(subject, samples, etas, weights, information, 3); },
         {ARRAY(gv::theta), ARRAY(gv::omegainv), ARRAY(gv::omegamask), ARRAY(gv::scorevec),
          ARRAY(gv::scorevec_expanded), ARRAY(gv::muetamap), ARRAY(gv::ibaccolislog),
          ARRAY(qv::itypetheta), ARRAY(qv::itypetheta_etamap), BY_SUBJECT(qv::cmatrix_3d)}},
        {"stderromega",
         [this] { stderromega(information, 3); },
         {ARRAY(gv::theta), ARRAY(gv::omegamask), ARRAY(sv::xbase)}},
        {"checktight",
         [this] { checktight(info); },
         {ARRAY(gv::theta), ARRAY(gv::thetalo), ARRAY(gv::thetahi), ARRAY(gv::ibtight)}}};
  }

  // The message with which `call` refuses; empty when it does not.
  static std::string refused(const std::function<void()>& call) {
    try {
      call();
    } catch (const refusal& error) {
      return error.what();
    }
    return "";
  }

  // All that a routine may have changed.
  std::vector<double> state() const {
    std::vector<double> all = {loglik, gv::wtsumzscore, static_cast<double>(info)};
    const auto add = [&](const double* from, int n) { all.insert(all.end(), from, from + n); };
    add(etas, 2 * samples);
    add(weights, samples);
    add(solution, 2);
    add(information, 25);
    for (const real_vector* v : {&gv::theta, &gv::xmusub, &gv::xmusubnew, &gv::scorevec_expanded})
      add(v->data(), v->size());
    for (const real_matrix* m :
         {&gv::omegacholsub, &gv::omegasubnew, &gv::omegalcholinv, &gv::etatable, &gv::cholsub})
      add(m->data(), m->rows() * m->columns());
    add(qv::choleskyfactor.data(), 4 * subject);
    return all;
  }

  test::captured_unit output;
  test::estep_problem problem;
  double etas[2 * samples] = {}, weights[samples] = {}, information[25] = {}, solution[2] = {};
  double means[2 * subject] = {0.3, 0.1, -0.2, 0.4};
  int rows[2] = {1, 2};
  double loglik = 0.0;
  int info = 0;
};

TEST_F(HostErrs, ArraysThatAreTooSmallOrUnboundAreNamed) {
  for (const routine& r : routines()) {
    for (const shared_array& array : r.arrays) {
      problem.host.calls.clear();
      const std::string shrunk = [&] {
        std::string message;
        array.shrunk([&] { message = refused(r.call); });
        return message;
      }();
      EXPECT_TRUE(std::regex_match(
          shrunk,
          std::regex(r.name + ": " + array.name + " is bound \\d( x \\d)*, needs \\d( x \\d)*")))
          << r.name << " " << array.name << " said: " << shrunk;
      if (array.name == "cmatrix_3d") continue;  // a host without one scores by differences
      array.unbound([&] {
        EXPECT_THAT(refused(r.call),
                    HasSubstr(r.name + ": " + array.name + " is not bound, needs"));
      });
      EXPECT_THAT(problem.host.calls, IsEmpty()) << r.name << " " << array.name;
    }
    EXPECT_EQ(refused(r.call), "") << r.name;
  }
}

TEST_F(HostErrs, DimensionsComeFromLenetaHoweverLargeTheArraysAre) {
  for (const routine& r : routines()) {
    if (r.name == "itmapnp") continue;  // centres whole rows by what the host's tables hold
    const auto from_the_start = [&](const std::function<void()>& call) {
      test::start_sobol(2, 0);
      std::fill_n(information, 25, 0.0);
      call();
      return state();
    };
    const std::vector<double> expected = from_the_start(r.call);
    for (const shared_array& array : r.arrays) {
      if (array.name == "cmatrix_3d") continue;  // whose rows say what it is
      array.grown([&] { from_the_start(r.call); });
      EXPECT_EQ(state(), expected) << r.name << " with a large " << array.name;
    }
  }
}

TEST_F(HostErrs, ArgumentsAndProcessesAreNamed) {
  const auto estep = [&](int isub, int n, double* drawn = nullptr) {
    return refused([&] { fgintegrate(isub, n, drawn != nullptr ? drawn : etas, weights, loglik); });
  };
  EXPECT_EQ(estep(3, samples), "fgintegrate: isub is 3, needs 1 to 2");
  EXPECT_EQ(estep(0, samples), "fgintegrate: isub is 0, needs 1 to 2");
  EXPECT_EQ(estep(2, 0), "fgintegrate: nsamp is 0, needs at least 1");
  EXPECT_EQ(refused([&] { fgintegrate(2, samples, nullptr, weights, loglik); }),
            "fgintegrate: dsample2 is a null pointer, needs 2 entries");
  for (const routine& r : routines())
    if (r.name == "agqintjoint" || r.name == "fgpresampledir2" || r.name == "scoretheta") {
      gv::numprocs = 2;
      EXPECT_THAT(refused(r.call), HasSubstr(r.name + ": numprocs is 2, needs 1: ")) << r.name;
      gv::numprocs = 1;
      gv::myid = 1;
      EXPECT_EQ(refused(r.call), r.name + ": myid is 1, needs 0 to 0");
      gv::myid = 0;
    }
  EXPECT_THAT(refused([&] { scoretheta(9, samples, etas, weights, information, 0); }),
              HasSubstr("isub is 9, needs 1 to 2"));
  EXPECT_THAT(refused([&] { agqintjoint(-1, 3, loglik, info); }), HasSubstr("isub is -1"));
  EXPECT_THAT(refused([&] { stderromega(information, -1); }), HasSubstr("nomegafree is -1"));
  EXPECT_THAT(refused([&] { lrtheta(1, solution, means, nullptr, nullptr, 2, 0, 2, rows); }),
              HasSubstr("lrtheta: n is 1, needs at least 2"));
  rows[1] = 3;
  EXPECT_THAT(refused([&] { lrtheta(2, solution, means, nullptr, nullptr, 2, 0, 2, rows); }),
              HasSubstr("an entry of muetamap is 3, needs 0 to 2"));
  gv::leneta = -1;
  EXPECT_THAT(estep(2, samples), HasSubstr("leneta is -1"));
  gv::leneta = 2;
  test::start_sobol(3, 0);
  EXPECT_THAT(estep(2, samples), HasSubstr("dimensions of the Sobol sequence, is 3, needs 2"));
  EXPECT_THAT(problem.host.calls, IsEmpty());
}

// The outer call's results are those of a call that nobody disturbs.
TEST_F(HostErrs, ACallFromInsideIsRefusedAndChangesNothing) {
  test::start_sobol(2, 0);
  fgintegrate(subject, samples, etas, weights, loglik);
  const double undisturbed = loglik;
  int calls = 0;
  double other_etas[2 * samples], other_weights[samples], other = 0.0;
  const auto inner = problem.host.objective;
  problem.host.objective = [&](int isub, const double* eta) {
    if (++calls == 5) {
      for (const routine& r : routines()) {
        if (r.name != "agqintjoint" && r.name != "fgpresampledir2" && r.name != "scoretheta")
          continue;
        EXPECT_EQ(refused(r.call),
                  r.name + ": called from inside fgintegrate, which must return first");
      }
      EXPECT_EQ(statsubs_fgintegrate(1, samples, other_etas, other_weights, &other),
                STATSUBS_REFUSED);
      EXPECT_THAT(statsubs_last_error(), HasSubstr("called from inside fgintegrate"));
    }
    return inner(isub, eta);
  };
  test::start_sobol(2, 0);
  fgintegrate(subject, samples, etas, weights, loglik);
  EXPECT_EQ(loglik, undisturbed);
  EXPECT_EQ(calls, samples + 1);
  problem.host.table().estblups = [](const int&, double& objective) {
    double drawn[2 * samples], found[samples];
    fgintegrate(subject, samples, drawn, found, objective);
  };
  EXPECT_EQ(refused([&] { itmapnp(2, etas); }), "") << "modes may be found with the routines";
}

// Before any test has written to it.
const int numprocs_at_load = gv::numprocs;

TEST(Processes, AreOneAtLoad) {
  EXPECT_EQ(numprocs_at_load, 1);
}

TEST(HostErrsInC, MessagesComeWithAStatus) {
  double storage[4] = {};
  EXPECT_EQ(statsubs_bind_omega(storage, -1, 2), STATSUBS_UNUSABLE_ARGUMENT);
  statsubs_set_leneta(1);
  double loglik = 0.0;
  int info = -7;
  gv::omega.deallocate();
  EXPECT_EQ(statsubs_agqintjoint(1, 0, &loglik, &info), STATSUBS_OK);
  EXPECT_EQ(info, -1) << "no grid at all, which has a status of its own";
  gv::theta.deallocate();
  gv::ntheta = 1;
  EXPECT_EQ(statsubs_agqintjoint(1, 3, &loglik, &info), STATSUBS_REFUSED);
  EXPECT_EQ(std::string(statsubs_last_error()), "agqintjoint: theta is not bound, needs 1");
}

// A host that leaves every objective as it was has evaluated nothing.
TEST_F(HostErrs, WhatIsNotWrittenHasFailed) {
  problem.host.table().fcnxeta = [](const int&, const double*, double&) {};
  problem.host.table().fcneta = problem.host.table().fcnxeta;
  fgintegrate(subject, samples, etas, weights, loglik);
  EXPECT_EQ(loglik, -1e50);
  fgpresampledir2(subject, loglik, info);
  EXPECT_EQ(loglik, -1e50);
  agqintjoint(subject, 3, loglik, info);
  EXPECT_EQ(loglik, -1e50);
  fill(qv::itypetheta, {1, 1});  // scored by a difference
  scoretheta(subject, samples, etas, weights, information, 0);
  EXPECT_EQ(gv::scorevec(2), 0.0);
}

// The table of sizes in the documents against what is refused above.
TEST_F(HostErrs, TheDocumentsListWhatIsChecked) {
  std::set<std::string> checked, listed;
  for (const routine& r : routines())
    for (const shared_array& array : r.arrays) checked.insert(array.name + " by " + r.name);
  // Read by one branch each, which the state above does not take.
  for (const char* more : {"omegalchol by fgintegrate", "iseqtheta by lrtheta",
                           "itypetheta by lrtheta", "fixedeffectnames by lrtheta"})
    checked.insert(more);
  std::ifstream page(STATSUBS_SOURCE_DIR "/docs/host.md");
  const std::regex row(R"(\| `(\w+)` \| [^|]* \| ([^|]*) \|)"), word(R"(\w+)");
  for (std::string line; std::getline(page, line);) {
    std::smatch match;
    if (!std::regex_match(line, match, row)) continue;
    const std::string by = match[2];
    for (std::sregex_iterator w(by.begin(), by.end(), word), end; w != end; ++w)
      listed.insert(match[1].str() + " by " + w->str());
  }
  EXPECT_EQ(listed, checked);
}

}  // namespace
}  // namespace statsubs
