// SPDX-License-Identifier: Apache-2.0
#include "statsubs/state/getworkingstoragesizes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
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

void put_name(const char* getter, char kind, int index, char* name) {
  answer(getter, index);
  EXPECT_EQ(std::string(name, name_length), std::string(name_length, ' ')) << getter;
  name[0] = kind;
  name[1] = static_cast<char>('0' + index);
}

void pack(const double* theta, const double* omega, const double&, double* x, const int&,
          int& count) {
  EXPECT_EQ(theta[2] + omega[0], 0.0);
  x[400] = 1.0;  // the 401 places that a host may count on
  count = answer("packparameters1", said.npack);
}

void allocate(const int& dimension, const int& leneta, const int& ntheta, const int& nsub) {
  said.allocated = {answer("allocateglobalarrays", dimension), leneta, ntheta, nsub};
}

class SetUp : public testing::Test {
 protected:
  SetUp() {
    said = {};
    gv::ipresample = 5;
    gv::accratio = 0.0;
    host_table& table = host.table();
    table.getntheta = [] { return answer("getntheta", 3); };
    table.getfixefname = [](const int& i, char* name) { put_name("getfixefname", 'f', i, name); };
    table.getranef5name = [](const int& i, char* name) { put_name("getranef5name", 'r', i, name); };
    table.getfixeferrtothetamap = [](int* map) {
      for (int i = 0; i < 3; ++i) map[i] = 3 - i;
      answer("getfixeferrtothetamap", 0);
    };
    table.getobscount = [] { return answer("getobscount", 2); };
    table.getobsstdevname = [](const int& i, char* name) {
      put_name("getobsstdevname", 's', i, name);
    };
    table.getobsvaluecount = [](const int& i) { return answer("getobsvaluecount", 10 * i); };
    table.getnobs1 = [](const int& isub) {
      return answer("getnobs1", said.nobs.at(static_cast<std::size_t>(isub - 1)));
    };
    table.packparameters1 = pack;
    table.allocateglobalarrays = allocate;
    table.getisample = [] { return answer("getisample", said.isample); };
    table.getpresample = [] { return answer("getpresample", said.presample); };
    table.getmapnp = [] { return answer("getmapnp", 21); };
    table.getsirsamp = [] { return answer("getsirsamp", 22); };
    table.getrunfromui = [] { return answer("getrunfromui", said.runfromui); };
    table.getpemrunall = [] { return answer("getpemrunall", 23); };
    table.getmapassist = [] { return answer("getmapassist", 24); };
    table.getmcpem = [] { return answer("getmcpem", 25); };
    table.getaccratio = [] { return answer("getaccratio", 0) + 0.375; };
    table.getimpsampdof = [] { return answer("getimpsampdof", 26); };
    table.getburnin = [] { return answer("getburnin", 27); };
    table.nonomegaburn = [] { return answer("nonomegaburn", 28); };
    table.getscramble = [] { return answer("getscramble", 29); };
    table.getqrpemflags = [] { said.qrpemflags(), answer("getqrpemflags", 0); };
    table.readflags0 = [] { said.flags0(), answer("readflags0", 0); };
  }

  void set_up(int engine, int nranefnames = 2, int nraneffects = 2) {
    getworkingstoragesizes(engine, nranefnames, nraneffects, 4, 77, fixedsize, packsize);
  }

  test::fake_host host;
  int fixedsize = 0, packsize = 0;
};

std::string text_of(const display_name& name) {
  return {name.data(), name.size()};
}

TEST_F(SetUp, AsksTheHostInAFixedOrderAndRecordsItsAnswers) {
  said.runfromui = 0;
  set_up(1);
  EXPECT_THAT(
      said.asked,
      ElementsAre("getntheta", "getfixefname", "getfixefname", "getfixefname", "getranef5name",
                  "getranef5name", "getfixeferrtothetamap", "getobscount", "getobsstdevname",
                  "getobsstdevname", "getobsvaluecount", "getobsvaluecount", "getnobs1", "getnobs1",
                  "getnobs1", "getnobs1", "packparameters1", "allocateglobalarrays", "getisample",
                  "getpresample", "getmapnp", "getsirsamp", "getrunfromui", "getpemrunall",
                  "getmapassist", "getmcpem", "getaccratio", "getimpsampdof", "getburnin",
                  "nonomegaburn", "getscramble", "getqrpemflags", "readflags0"));
  EXPECT_THAT((std::vector{gv::nsub, gv::nobs, gv::nobsmax, gv::nobstotal, fixedsize}),
              ElementsAre(4, 2, 9, 15, 1000));
  EXPECT_EQ(text_of(gv::fixedeffectnames(3)), "f3" + std::string(98, ' '));
  EXPECT_EQ(text_of(gv::randomeffectnames(2)), "r2" + std::string(98, ' '));
  EXPECT_EQ(text_of(se::stddevnames(2)), "s2" + std::string(98, ' '));
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
  EXPECT_EQ(packsize, 147);
  EXPECT_EQ(gv::modeljacob.rows(), 15);
  EXPECT_EQ(gv::modeljacob.columns(), 2);
  EXPECT_EQ(gv::randomeffectnames.size(), 5);

  said.npack = 1;
  set_up(6, 5, 2);
  EXPECT_THAT(said.allocated, ElementsAre(2, 2, 3, 4)) << "never smaller than leneta";
  EXPECT_EQ(packsize, 3);
  EXPECT_EQ(gv::modeljacob.columns(), 5);
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
    said.runfromui = c.runfromui;
    said.isample = c.isample;
    said.presample = c.presample;
    set_up(c.engine);
    EXPECT_EQ(gv::nsampset, c.nsampset) << c.engine << ' ' << c.isample;
    EXPECT_EQ(gv::npresample, c.npresample);
    EXPECT_EQ(gv::ipresample, c.ipresample);
    EXPECT_EQ(gv::iqrpem, c.engine == 1 ? 1 : 0);
    EXPECT_EQ(gv::accratio != 0.0, c.engine == 1);
    gv::accratio = 0.0;
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
  EXPECT_EQ(gv::nsampset, 13) << "not rounded again";
  EXPECT_EQ(gv::npresample, 8);
  EXPECT_EQ(gv::ipresample, 5);
}

// The second report replaces the first; the naive pooled engine, 6, needs no random effects.
TEST_F(SetUp, ReportsAModelWithoutRandomEffectsAndCarriesOn) {
  test::remove_engine_log();
  for (const int engine : {6, 1, 2}) {
    std::vector<std::string> report;
    if (engine != 6)
      report = {"Current engine is not applicable without random effects.",
                "Naive Pooled engine is recommended."};
    testing::internal::CaptureStderr();
    set_up(engine, 0, 0);
    EXPECT_EQ(test::engine_log_lines(), report);
    std::string printed;
    for (const std::string& line : report) printed += line + '\n';
    EXPECT_EQ(testing::internal::GetCapturedStderr(), printed);
    EXPECT_THAT(said.allocated, ElementsAre(7, 0, 3, 4));
  }
}

}  // namespace
}  // namespace statsubs
