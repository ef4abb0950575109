// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "statsubs/c/statsubs.h"
#include "statsubs/sequences/bdsobl.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/support/engine_log.h"

namespace statsubs {
namespace {

namespace gv = statsubs::global_variables;
namespace bd = statsubs::bdsobl;

statsubs_host_table c_table() {
  statsubs_host_table table{};
  table.size = sizeof table;
  table.version = STATSUBS_HOST_VERSION;
  table.fcnxeta = [](const int* n, const double* eta, double* f) { *f = *n + eta[0]; };
  table.isgoodr8 = [](const double* x) { return *x < 10.0 ? 1 : 0; };
  table.getaccratio = [] { return 0.25; };
  table.fcnxetas = [](const int* leneta, const int* n, const double*, double* f, double* z) {
    f[*n - 1] = *leneta;
    z[0] = 7.0;
  };
  return table;
}

class CHost : public testing::Test {
 protected:
  ~CHost() override { statsubs_install_host(nullptr); }
};

using CHostDeathTest = CHost;

TEST_F(CHostDeathTest, ForwardsWhatTheTableNamesAndDefaultsTheRest) {
  const statsubs_host_table table = c_table();
  ASSERT_EQ(statsubs_install_host(&table), STATSUBS_OK);
  const double eta[] = {0.5};
  double f = 0.0;
  host::fcnxeta(3, eta, f);
  EXPECT_EQ(f, 3.5);
  EXPECT_EQ(host::isgoodr8(11.0), 0);
  EXPECT_EQ(host::getaccratio(), 0.25);
  double objectives[] = {0.0, 0.0}, scores[] = {0.0, 0.0};
  host::fcnxetas(3, 2, eta, objectives, scores);
  EXPECT_EQ(objectives[1] + scores[0], 10.0);
  EXPECT_EQ(host::pow(2.0, 3.0), 8.0);
  EXPECT_DEATH(host::getscramble(), "getscramble");

  statsubs_install_host(nullptr);
  EXPECT_EQ(host::isgoodr8(11.0), 1);
}

TEST_F(CHost, AcceptsAnOlderTableAndRefusesOneItDoesNotKnow) {
  statsubs_host_table table = c_table();
  table.size = offsetof(statsubs_host_table, isgoodr8);  // what follows was not there yet
  ASSERT_EQ(statsubs_install_host(&table), STATSUBS_OK);
  double f = 0.0;
  host::fcnxeta(1, &f, f);
  EXPECT_EQ(f, 1.0);
  EXPECT_EQ(host::isgoodr8(11.0), 1);
  EXPECT_EQ(installed_host().fcnxetas, nullptr);

  const int whole = sizeof table;
  const int word = sizeof(void*);
  for (const int size : {whole + word, whole - 1, 0, -word, std::numeric_limits<int>::max()}) {
    table.size = size;
    EXPECT_EQ(statsubs_install_host(&table), STATSUBS_UNUSABLE_TABLE) << size;
  }
  table.size = whole;
  for (const int version : {0, STATSUBS_HOST_VERSION + 1}) {
    table.version = version;
    EXPECT_EQ(statsubs_install_host(&table), STATSUBS_UNUSABLE_TABLE) << version;
  }
  EXPECT_NE(std::string(statsubs_last_error()), "");
  EXPECT_EQ(host::isgoodr8(11.0), 1) << "a refused table leaves the installed host alone";
}

TEST(CSharedVariables, AreTheLibrarysOwn) {
  statsubs_set_leneta(7);
  EXPECT_EQ(gv::leneta, 7);
  gv::accratio = 0.5;
  EXPECT_EQ(statsubs_get_accratio(), 0.5);
  bd::lastq(40) = 11;
  int* lastq = nullptr;
  int n = 0;
  ASSERT_EQ(statsubs_get_lastq(&lastq, &n), STATSUBS_OK);
  EXPECT_EQ(lastq[n - 1], 11);
}

TEST(CSharedVariables, BindTheHostsStorage) {
  std::vector<double> storage = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(statsubs_bind_etatable(storage.data(), 2, 3), STATSUBS_OK);
  EXPECT_EQ(gv::etatable(2, 3), 6.0);
  double* data = nullptr;
  int rows = 0, columns = 0;
  ASSERT_EQ(statsubs_get_etatable(&data, &rows, &columns), STATSUBS_OK);
  EXPECT_EQ(data, storage.data());
  EXPECT_EQ(rows * 10 + columns, 23);

  char names[2 * name_length];
  std::memset(names, ' ', sizeof names);
  std::memcpy(names + name_length, "CL", 2);
  ASSERT_EQ(statsubs_bind_fixedeffectnames(names, 2), STATSUBS_OK);
  EXPECT_EQ(std::string(gv::fixedeffectnames(2).data(), 3), "CL ");

  EXPECT_EQ(statsubs_bind_theta(nullptr, 2), STATSUBS_UNUSABLE_ARGUMENT);
  gv::omega.bind(storage.data(), 2, 2, 3);
  EXPECT_EQ(statsubs_get_omega(&data, &rows, &columns), STATSUBS_UNUSABLE_ARGUMENT)
      << "C has no leading dimension";
  for (auto* array : {&gv::etatable, &gv::omega}) array->deallocate();
  gv::fixedeffectnames.deallocate();
}

TEST(CEngineLog, StandsWhereTheHostWantsIt) {
  using support::engine_log;
  std::remove("elsewhere.log");
  std::remove("vardaengine.log");
  ASSERT_EQ(statsubs_place_engine_log("elsewhere.log"), STATSUBS_OK);
  EXPECT_TRUE(engine_log(engine_log::position::rewrite).write("one"));
  EXPECT_TRUE(engine_log(engine_log::position::append).write("two"));
  EXPECT_FALSE(std::filesystem::exists("vardaengine.log"));
  std::ifstream log("elsewhere.log");
  std::string first, second;
  EXPECT_TRUE(log >> first >> second);
  EXPECT_EQ(first + second, "onetwo");
  statsubs_place_engine_log(nullptr);
  EXPECT_TRUE(engine_log(engine_log::position::append).write("back"));
  EXPECT_TRUE(std::filesystem::exists("vardaengine.log"));
  std::remove("vardaengine.log");
}

TEST(CRoutines, ReturnWhatTheRoutinesReturnThroughTheLastArgument) {
  double value = 0.0;
  ASSERT_EQ(statsubs_gamma(5.0, &value), STATSUBS_OK);
  EXPECT_DOUBLE_EQ(value, 24.0);
  const double weights[] = {0.25, 0.5, 0.25};
  int chosen = 0;
  ASSERT_EQ(statsubs_isir(0.6, weights, 3, &chosen), STATSUBS_OK);
  EXPECT_EQ(chosen, 2);

  std::string lines;
  statsubs_take_unit(
      6,
      [](void* context, const char* line, int length) {
        static_cast<std::string*>(context)->append(line, static_cast<std::size_t>(length));
      },
      &lines);
  statsubs_write_line(6, "text and more", 4);
  statsubs_take_unit(6, nullptr, nullptr);
  EXPECT_EQ(lines, "text");
}

}  // namespace
}  // namespace statsubs
