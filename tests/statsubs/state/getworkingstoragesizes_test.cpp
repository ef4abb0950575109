// SPDX-License-Identifier: Apache-2.0
#include "statsubs/state/getworkingstoragesizes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/standarderrorvariables.h"
#include "tests/support/fake_host.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace se = statsubs::standarderrorvariables;
using testing::ElementsAre;

// What the host answers, and what it was asked.
struct conversation {
  int isample = 12, presample = 0, runfromui = 1, npack = 7;
  std::vector<int> nobs = {4, 0, 9, 2};
  std::function<void()> qrpemflags = [] {}, flags0 = [] {};
  std::vector<std::string> asked;
  std::vector<int> allocated;
};

conversation said;

int answer(const char* name, int value) {
  said.asked.emplace_back(name);
  return value;
}

// Names begin with the fourth letter of their getter.
void put_name(const char* getter, int index, char* name) {
  answer(getter, index);
  EXPECT_EQ(std::string(name, name_length), std::string(name_length, ' ')) << getter;
  name[0] = getter[3];
  name[1] = static_cast<char>('0' + index);
}

void pack(const double* theta, const double* omega, const double&, double* x, const int&,
          int& count) {
  EXPECT_EQ(theta[2] + omega[0], 0.0);
  x[400] = 1.0;  // the 401 places that a host may count on
  count = answer("packparameters1", said.npack);
}

class SetUp : public testing::Test {
 protected:
  SetUp() {
    said = {};
    gv::ipresample = 5;
    gv::accratio = 0.0;
    host_table& table = host.table();
#define NAME(getter) table.getter = [](const int& i, char* name) { put_name(#getter, i, name); };
#define VALUE(getter, value) table.getter = [] { return answer(#getter, value); };
    // clang-format off
    NAME(getfixefname) NAME(getranef5name) NAME(getobsstdevname)
    VALUE(getntheta, 3) VALUE(getobscount, 2) VALUE(getisample, said.isample)
    VALUE(getpresample, said.presample) VALUE(getrunfromui, said.runfromui) VALUE(getmapnp, 21)
    VALUE(getsirsamp, 22) VALUE(getpemrunall, 23) VALUE(getmapassist, 24) VALUE(getmcpem, 25)
    VALUE(getimpsampdof, 26) VALUE(getburnin, 27) VALUE(nonomegaburn, 28) VALUE(getscramble, 29);
    // clang-format on
    table.getfixeferrtothetamap = [](int* map) {
      for (int i = 0; i < 3; ++i) map[i] = 3 - i;
      answer("getfixeferrtothetamap", 0);
    };
    table.getobsvaluecount = [](const int& i) { return answer("getobsvaluecount", 10 * i); };
    table.getnobs1 = [](const int& i) { return answer("getnobs1", said.nobs.at(i - 1U)); };
    table.packparameters1 = pack;
    table.allocateglobalarrays = [](const int& n, const int& leneta, const int& nt, const int& ns) {
      said.allocated = {answer("allocateglobalarrays", n), leneta, nt, ns};
    };
    table.getaccratio = [] { return answer("getaccratio", 0) + 0.375; };
    table.getqrpemflags = [] { said.qrpemflags(), answer("getqrpemflags", 0); };
    table.readflags0 = [] { said.flags0(), answer("readflags0", 0); };
  }

  void set_up(int engine, int nranefnames = 2, int nraneffects = 2) {
    getworkingstoragesizes(engine, nranefnames, nraneffects, 4, 77, fixedsize, packsize);
  }

  test::fake_host host;
  int fixedsize = 0, packsize = 0;
};

TEST_F(SetUp, AsksTheHostInAFixedOrderAndRecordsItsAnswers) {
  said.runfromui = 0;
  set_up(1);
  std::string asked;
  for (const std::string& name : said.asked) asked += name + ' ';
  EXPECT_EQ(asked,
            "getntheta getfixefname getfixefname getfixefname getranef5name getranef5name "
            "getfixeferrtothetamap getobscount getobsstdevname getobsstdevname getobsvaluecount "
            "getobsvaluecount getnobs1 getnobs1 getnobs1 getnobs1 packparameters1 "
            "allocateglobalarrays getisample getpresample getmapnp getsirsamp getrunfromui "
            "getpemrunall getmapassist getmcpem getaccratio getimpsampdof getburnin nonomegaburn "
            "getscramble getqrpemflags readflags0 ");
  EXPECT_THAT((std::vector{gv::nsub, gv::nobs, gv::nobsmax, gv::nobstotal, fixedsize}),
              ElementsAre(4, 2, 9, 15, 1000));
  std::string names;
  for (const auto& name : {gv::fixedeffectnames(3), gv::randomeffectnames(2), se::stddevnames(2)})
    names.append(name.begin(), name.end());
  const std::string blank(98, ' ');
  EXPECT_EQ(names, "f3" + blank + "r2" + blank + "o2" + blank);
  EXPECT_THAT(se::stddevobsnum, ElementsAre(10, 20));
  EXPECT_THAT(se::fixeferrtothetamap, ElementsAre(3, 2, 1));
  EXPECT_THAT((std::vector{gv::ngetmapnp, gv::nchain, gv::irunall, gv::impmapflag, gv::iflagmcpem,
                           gv::impsampdof, gv::nqrburn, gv::ifreezeomegaburn, gv::iflagscramble}),
              ElementsAre(21, 22, 23, 24, 25, 26, 27, 28, 29));
  EXPECT_EQ(gv::accratio, 0.375);
}

TEST_F(SetUp, StorageFollowsThePackedCountAndTheEngine) {
  set_up(1, 5, 2);
  EXPECT_THAT(said.allocated, ElementsAre(7, 2, 3, 4));
  EXPECT_THAT((std::vector{packsize, gv::modeljacob.rows(), gv::modeljacob.columns(),
                           gv::randomeffectnames.size()}),
              ElementsAre(147, 15, 2, 5));
  said.npack = 1;
  set_up(6, 5, 2);
  EXPECT_THAT(said.allocated, ElementsAre(2, 2, 3, 4)) << "never smaller than leneta";
  EXPECT_THAT((std::vector{packsize, gv::modeljacob.columns()}), ElementsAre(3, 5));
}

// Engine 1 is the quasi-random method, whose settings nobody else has; 7 has a count of its own.
TEST_F(SetUp, SampleCountsAreMultiplesOfSix) {
  struct counts {
    int engine, runfromui, isample, presample, nsampset, npresample, ipresample;
  };
  for (const counts& c : {counts{2, 1, 7, 9, 12, 9, 5}, counts{2, 1, 12, 1, 12, 1, 5},
                          counts{2, 1, 0, 1, 0, 1, 5}, counts{2, 1, -7, -3, -6, 1, 5},
                          counts{7, 1, 3, 1, 1002, 1, 5}, counts{1, 1, 13, 9, 18, 9, 5},
                          counts{1, 0, 13, 9, 300, 1, 0}, counts{2, 0, 13, 9, 18, 1, 0}}) {
    gv::ipresample = 5;
    gv::accratio = 0.0;
    said.runfromui = c.runfromui;
    said.isample = c.isample;
    said.presample = c.presample;
    set_up(c.engine);
    const int quasi_random = c.engine == 1 ? 1 : 0;
    EXPECT_THAT((std::vector{gv::nsampset, gv::npresample, gv::ipresample, gv::iqrpem}),
                ElementsAre(c.nsampset, c.npresample, c.ipresample, quasi_random));
    EXPECT_EQ(gv::accratio, 0.375 * quasi_random);
  }
}

TEST_F(SetUp, TheFlagSourceHasTheLastWord) {
  said.runfromui = 0;
  said.qrpemflags = [] { gv::nsampset = 1001; };
  said.flags0 = [] {
    EXPECT_EQ(gv::nsampset, 1002);
    gv::nsampset = 13;
    gv::npresample = 8;
  };
  set_up(1);
  EXPECT_THAT((std::vector{gv::nsampset, gv::npresample, gv::ipresample}), ElementsAre(13, 8, 5))
      << "not rounded again";
}

// The second report replaces the first; the naive pooled engine, 6, needs no random effects.
TEST_F(SetUp, ReportsAModelWithoutRandomEffectsAndCarriesOn) {
  test::remove_engine_log();
  const std::vector<std::string> report = {
      "Current engine is not applicable without random effects.",
      "Naive Pooled engine is recommended."};
  for (const int engine : {6, 1, 2}) {
    testing::internal::CaptureStderr();
    set_up(engine, 0, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              engine == 6 ? "" : report[0] + '\n' + report[1] + '\n');
    EXPECT_EQ(test::engine_log_lines(), engine == 6 ? decltype(report){} : report);
    EXPECT_THAT(said.allocated, ElementsAre(7, 0, 3, 4));
  }
  test::remove_engine_log();
  gv::myid = 1;
  testing::internal::CaptureStderr();
  set_up(1, 0, 0);
  gv::myid = 0;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "the first process speaks for all";
  EXPECT_TRUE(test::engine_log_lines().empty());
}

}  // namespace
}  // namespace statsubs
