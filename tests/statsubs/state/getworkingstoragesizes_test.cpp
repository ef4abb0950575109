// SPDX-License-Identifier: Apache-2.0
#include "statsubs/state/getworkingstoragesizes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "statsubs/state/global_variables.h"
#include "statsubs/state/standarderrorvariables.h"
#include "tests/support/fake_host.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace se = statsubs::standarderrorvariables;
using testing::ElementsAre;
using testing::IsEmpty;

// What the host answers, and what it was asked.
struct settings {
  int ntheta = 3, isample = 12, presample = 0, runfromui = 1, npack = 7;
  std::vector<int> nobs = {4, 0, 9, 2};
  std::function<void()> qrpemflags = [] {}, flags0 = [] {};
  std::vector<std::string> asked;
  std::vector<int> allocated;
};

settings* answers = nullptr;

int answer(const char* name, int value) {
  answers->asked.emplace_back(name);
  return value;
}

void put_name(const char* getter, char kind, int index, char* name) {
  answers->asked.push_back(getter + std::to_string(index));
  EXPECT_EQ(std::string(name, name_length), std::string(name_length, ' ')) << getter;
  name[0] = kind;
  name[1] = static_cast<char>('0' + index);
}

void answer_names(host_table& host) {
  host.getntheta = [] { return answer("getntheta", answers->ntheta); };
  host.getfixefname = [](const int& i, char* name) { put_name("getfixefname", 'f', i, name); };
  host.getranef5name = [](const int& i, char* name) { put_name("getranef5name", 'r', i, name); };
  host.getfixeferrtothetamap = [](int* map) {
    answer("getfixeferrtothetamap", 0);
    for (int i = 0; i < answers->ntheta; ++i) map[i] = answers->ntheta - i;
  };
  host.getobscount = [] { return answer("getobscount", 2); };
  host.getobsstdevname = [](const int& i, char* name) {
    put_name("getobsstdevname", 's', i, name);
  };
  host.getobsvaluecount = [](const int& i) { return answer("getobsvaluecount", 10 * i); };
  host.getnobs1 = [](const int& isub) {
    return answer("getnobs1", answers->nobs.at(static_cast<std::size_t>(isub - 1)));
  };
}

void answer_storage(host_table& host) {
  host.packparameters1 = [](const double* theta, const double* omega, const double& sigma,
                            double* x, const int& leneta, int& count) {
    answer("packparameters1", 0);
    EXPECT_EQ(std::count(theta, theta + answers->ntheta, 0.0), answers->ntheta);
    EXPECT_EQ(std::count(omega, omega + leneta * leneta, 0.0), leneta * leneta);
    EXPECT_EQ(&sigma, &gv::sigmalchol);
    x[400] = 1.0;  // the 401 places that a host may count on
    count = answers->npack;
  };
  host.allocateglobalarrays = [](const int& hessiandimension, const int& leneta, const int& ntheta,
                                 const int& nsub) {
    answer("allocateglobalarrays", 0);
    answers->allocated = {hessiandimension, leneta, ntheta, nsub};
  };
}

void answer_settings(host_table& host) {
  host.getisample = [] { return answer("getisample", answers->isample); };
  host.getpresample = [] { return answer("getpresample", answers->presample); };
  host.getmapnp = [] { return answer("getmapnp", 21); };
  host.getsirsamp = [] { return answer("getsirsamp", 22); };
  host.getrunfromui = [] { return answer("getrunfromui", answers->runfromui); };
  host.getpemrunall = [] { return answer("getpemrunall", 23); };
  host.getmapassist = [] { return answer("getmapassist", 24); };
  host.getmcpem = [] { return answer("getmcpem", 25); };
  host.getaccratio = [] { return answer("getaccratio", 0) + 0.375; };
  host.getimpsampdof = [] { return answer("getimpsampdof", 26); };
  host.getburnin = [] { return answer("getburnin", 27); };
  host.nonomegaburn = [] { return answer("nonomegaburn", 28); };
  host.getscramble = [] { return answer("getscramble", 29); };
  host.getqrpemflags = [] {
    answer("getqrpemflags", 0);
    answers->qrpemflags();
  };
  host.readflags0 = [] {
    answer("readflags0", 0);
    answers->flags0();
  };
}

class SetUp : public testing::Test {
 protected:
  SetUp() {
    answers = &run;
    answer_names(host.table());
    answer_storage(host.table());
    answer_settings(host.table());
    gv::ipresample = 5;
    gv::accratio = 0.0;
  }

  void set_up(int engine, int nranefnames = 2, int nraneffects = 2) {
    run.asked.clear();
    getworkingstoragesizes(engine, nranefnames, nraneffects, static_cast<int>(run.nobs.size()), 77,
                           fixedsize, packsize);
  }

  test::fake_host host;
  settings run;
  int fixedsize = 0, packsize = 0;
};

std::string text_of(const display_name& name) {
  return {name.data(), name.size()};
}

TEST_F(SetUp, AsksTheHostInAFixedOrder) {
  run.runfromui = 0;
  set_up(1);
  EXPECT_THAT(
      run.asked,
      ElementsAre("getntheta", "getfixefname1", "getfixefname2", "getfixefname3", "getranef5name1",
                  "getranef5name2", "getfixeferrtothetamap", "getobscount", "getobsstdevname1",
                  "getobsstdevname2", "getobsvaluecount", "getobsvaluecount", "getnobs1",
                  "getnobs1", "getnobs1", "getnobs1", "packparameters1", "allocateglobalarrays",
                  "getisample", "getpresample", "getmapnp", "getsirsamp", "getrunfromui",
                  "getpemrunall", "getmapassist", "getmcpem", "getaccratio", "getimpsampdof",
                  "getburnin", "nonomegaburn", "getscramble", "getqrpemflags", "readflags0"));
}

TEST_F(SetUp, RecordsDimensionsNamesAndSettings) {
  set_up(1);
  EXPECT_EQ(gv::nsub, 4);
  EXPECT_EQ(gv::nobs, 2);
  EXPECT_EQ(gv::nobsmax, 9);
  EXPECT_EQ(gv::nobstotal, 15);
  EXPECT_EQ(text_of(gv::fixedeffectnames(3)), "f3" + std::string(98, ' '));
  EXPECT_EQ(text_of(gv::randomeffectnames(2)), "r2" + std::string(98, ' '));
  EXPECT_EQ(text_of(se::stddevnames(2)), "s2" + std::string(98, ' '));
  EXPECT_THAT(se::stddevobsnum, ElementsAre(10, 20));
  EXPECT_THAT(se::fixeferrtothetamap, ElementsAre(3, 2, 1));
  EXPECT_THAT((std::vector{gv::ngetmapnp, gv::nchain, gv::irunall, gv::impmapflag, gv::iflagmcpem,
                           gv::impsampdof, gv::nqrburn, gv::ifreezeomegaburn, gv::iflagscramble}),
              ElementsAre(21, 22, 23, 24, 25, 26, 27, 28, 29));
  EXPECT_EQ(gv::accratio, 0.375);
  EXPECT_EQ(fixedsize, 1000);
}

TEST_F(SetUp, StorageFollowsThePackedCountAndTheEngine) {
  set_up(1, 5, 2);
  EXPECT_THAT(run.allocated, ElementsAre(7, 2, 3, 4));
  EXPECT_EQ(packsize, 147);
  EXPECT_EQ(gv::modeljacob.rows(), 15);
  EXPECT_EQ(gv::modeljacob.columns(), 2);
  EXPECT_EQ(gv::randomeffectnames.size(), 5);

  run.npack = 1;
  set_up(6, 5, 2);
  EXPECT_THAT(run.allocated, ElementsAre(2, 2, 3, 4)) << "never smaller than leneta";
  EXPECT_EQ(packsize, 3);
  EXPECT_EQ(gv::modeljacob.columns(), 5);

  set_up(6, -1, 2);
  EXPECT_EQ(gv::modeljacob.columns(), 0);
}

TEST_F(SetUp, RoundsTheSampleCountUpToAMultipleOfSix) {
  const std::vector<std::pair<int, int>> cases = {{7, 12}, {12, 12}, {0, 0}, {1, 6}, {-7, -6}};
  for (const auto& [asked, expected] : cases) {
    run.isample = asked;
    set_up(2);
    EXPECT_EQ(gv::nsampset, expected) << asked;
    EXPECT_EQ(gv::iqrpem, 0);
  }
  set_up(7);
  EXPECT_EQ(gv::nsampset, 1002);
  EXPECT_EQ(gv::iqrpem, 0);
}

TEST_F(SetUp, WithoutAUserInterfaceTheFlagSourceDecides) {
  run.runfromui = 0;
  run.presample = 40;
  set_up(1);
  EXPECT_EQ(gv::nsampset, 300);
  EXPECT_EQ(gv::npresample, 1);
  EXPECT_EQ(gv::ipresample, 0);

  gv::ipresample = 5;
  run.qrpemflags = [] { gv::nsampset = 1001; };
  run.flags0 = [] {
    EXPECT_EQ(gv::nsampset, 1002);
    EXPECT_EQ(gv::npresample, 1);
    gv::nsampset = 13;
    gv::npresample = 8;
  };
  set_up(1);
  EXPECT_EQ(gv::nsampset, 13) << "not rounded again";
  EXPECT_EQ(gv::npresample, 8);
  EXPECT_EQ(gv::ipresample, 5);
}

TEST_F(SetUp, WithAUserInterfaceItsSettingsStand) {
  run.presample = -3;
  set_up(1);
  EXPECT_EQ(gv::nsampset, 12);
  EXPECT_EQ(gv::npresample, 1);
  EXPECT_EQ(gv::ipresample, 5);
  EXPECT_EQ(gv::iqrpem, 1);
  EXPECT_THAT(run.asked, testing::Not(testing::Contains("readflags0")));
}

TEST_F(SetUp, MethodSettingsBelongToTheQuasiRandomMethodAlone) {
  run.runfromui = 0;
  set_up(2);
  EXPECT_EQ(gv::nsampset, 12);
  EXPECT_THAT(run.asked, testing::Not(testing::Contains("getaccratio")));
  EXPECT_EQ(gv::accratio, 0.0);
}

TEST_F(SetUp, ReportsAModelWithoutRandomEffectsAndCarriesOn) {
  test::remove_engine_log();
  testing::internal::CaptureStderr();
  set_up(6, 2, 0);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), IsEmpty());
  EXPECT_THAT(test::engine_log_lines(), IsEmpty());

  for (const int engine : {1, 2}) {  // the second report replaces the first
    testing::internal::CaptureStderr();
    set_up(engine, 0, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Current engine is not applicable without random effects.\n"
              "Naive Pooled engine is recommended.\n");
    EXPECT_THAT(test::engine_log_lines(),
                ElementsAre("Current engine is not applicable without random effects.",
                            "Naive Pooled engine is recommended."));
    EXPECT_EQ(fixedsize, 1000);
  }
}

}  // namespace
}  // namespace statsubs
