// SPDX-License-Identifier: Apache-2.0
#include "statsubs/mstep/itmapnp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <string>
#include <vector>

#include "statsubs/state/global_variables.h"
#include "statsubs/support/engine_log.h"
#include "tests/support/fake_host.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
using testing::Each;
using testing::ElementsAre;

// What the host saw: its calls (b globalblups2, f estflattheta, m estblups), iflathess and row 1 of
// etatable at every f, objval at every f and m.
struct {
  std::string calls;
  std::vector<int> flags;
  std::vector<double> first_row, objectives;
} seen;
int rounds_done;

// Moves theta by (1, -1/4) and spoils what must not stay: the residual deviation and the flag.
void estflattheta(double& objval) {
  EXPECT_EQ(gv::idengine, 6);
  EXPECT_EQ(gv::sigmalchol, seen.calls.back() == 'f' ? 9.0 : 0.5) << "put back after all three";
  EXPECT_EQ(gv::etatable(3, 1), rounds_done == 0 ? 0.0 : 30.0 * rounds_done + 1) << "not centred";
  seen.calls += 'f';
  seen.flags.push_back(gv::iflathess);
  seen.objectives.push_back(objval);
  for (int i = 1; i <= gv::nsub; ++i) seen.first_row.push_back(gv::etatable(1, i));
  gv::theta(1) += 1.0;
  gv::theta(2) -= 0.25;
  gv::theta(3) += 8.0;
  gv::sigmalchol = gv::sigmasq = 9.0;
  gv::iflathess = 7;
}

// Mode j of a subject is 10 j round + subject. The mean over five subjects, 10 j round + 3, comes
// with the rounding of a sum of scaled terms.
void estblups(const int& mode, double& objval) {
  EXPECT_EQ(mode, 1);
  seen.calls += 'm';
  seen.objectives.push_back(objval);
  ++rounds_done;
  for (int i = 1; i <= gv::nsub; ++i)
    for (int j = 1; j <= 3; ++j) gv::etatable(j, i) = 10.0 * j * rounds_done + i;
  objval = 100.5 - rounds_done;
}

// Two of three random effects are centred; the residual deviation is theta(3).
class Itmapnp : public testing::Test {
 protected:
  Itmapnp() {
    seen = {};
    rounds_done = 0;
    std::filesystem::remove_all("vardaengine.log");
    gv::myid = 0;
    gv::numprocs = 1;
    gv::nsub = 5;
    gv::ntheta = 3;
    gv::theta.allocate("theta", 3);
    for (int i = 1; i <= 3; ++i) gv::theta(i) = i < 3 ? i : 0.5;
    gv::etatable.allocate("etatable", 3, 5);
    std::fill_n(gv::etatable.data(), 15, -1e3);
    gv::freesigmafound = 1;
    gv::sigmalchol = 0.5;
    gv::sigmasq = 0.25;
    gv::iflathess = 5;
    gv::idengine = 1;
    host.table().globalblups2 = [] { seen.calls += 'b'; };
    host.table().estflattheta = estflattheta;
    host.table().estblups = estblups;
  }

  std::vector<double> run(int rounds) {
    gv::ngetmapnp = rounds;
    std::vector<double> etaout(10, -99.0);
    itmapnp(2, etaout.data());
    return etaout;
  }

  test::fake_host host;
  test::captured_unit output;
};

// The expected text, "output" or "log", with the means summed term by term in Python. The log has
// no empty line after the new fixed effects.
std::string report(const std::string& rounds_and_unit) {
  std::ifstream file(ITMAPNP_REPORTS + rounds_and_unit + ".txt");
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string joined(const std::vector<std::string>& lines) {
  return std::accumulate(lines.begin(), lines.end(), std::string(),
                         [](auto text, const auto& line) { return text + line + '\n'; });
}

TEST_F(Itmapnp, OneRoundRestoresTheFlag) {
  EXPECT_THAT(run(1), ElementsAre(11, 21, 12, 22, 13, 23, 14, 24, 15, 25));
  EXPECT_EQ(joined(output.lines()), report("1_output"));
  EXPECT_EQ(joined(test::engine_log_lines()), report("1_log"));
  EXPECT_THAT(seen.first_row, Each(0.0));
  EXPECT_THAT(
      (std::vector<double>{1.0 * gv::iflathess, 1.0 * gv::idengine, gv::sigmalchol, gv::sigmasq}),
      ElementsAre(5, 1, 0.5, 0.25));
}

TEST_F(Itmapnp, ThreeRounds) {
  support::engine_log(support::engine_log::position::append).write("before");
  EXPECT_THAT(run(3), ElementsAre(31, 61, 32, 62, 33, 63, 34, 64, 35, 65)) << "not centred again";
  EXPECT_EQ(joined(output.lines()), report("3_output"));
  EXPECT_EQ(joined(test::engine_log_lines()), "before\n" + report("3_log"));
  EXPECT_EQ(seen.calls, "bfffmbfffmbfffmb");
  EXPECT_THAT(seen.flags, ElementsAre(5, 1, 1, 1, 1, 1, 1, 1, 1));
  EXPECT_THAT(seen.objectives,
              ElementsAre(0, 0, 0, 0, 99.5, 99.5, 99.5, 99.5, 98.5, 98.5, 98.5, 98.5));
  EXPECT_NEAR(seen.first_row.back(), 5.0 - 3.0, 1e-14) << "centred";
  EXPECT_EQ(gv::iflathess, 1);
}

TEST_F(Itmapnp, OtherProcessesAreSilentAndAFixedDeviationIsTheHosts) {
  gv::myid = 1;
  gv::freesigmafound = 0;
  EXPECT_THAT(run(1), ElementsAre(11, 21, 12, 22, 13, 23, 14, 24, 15, 25));
  EXPECT_THAT(gv::theta, ElementsAre(4, 1.25, 24.5));
  EXPECT_EQ(gv::sigmalchol, 9.0);
  EXPECT_TRUE(output.lines().empty());
  EXPECT_FALSE(std::filesystem::exists("vardaengine.log"));
}

TEST_F(Itmapnp, ALogThatCannotBeOpenedCostsItsLinesOnly) {
  std::filesystem::create_directory("vardaengine.log");
  run(1);
  EXPECT_EQ(joined(output.lines()), report("1_output"));
}

}  // namespace
}  // namespace statsubs
