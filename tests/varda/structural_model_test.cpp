// SPDX-License-Identifier: Apache-2.0
//
// Expected values are mpmath's at 500 digits, from the textbook formulas as they stand, evaluated
// at the doubles given here and printed with 20 digits.
#include "varda/model/structural_model.h"
#include "tests/varda/theophylline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace varda {
namespace {

constexpr double infinite = std::numeric_limits<double>::infinity();

// A dose through a depot into one compartment of volume 1, per unit of ka.
double bateman(double ka, double k, double t) {
  const auto model =
      make_structural_model({.name = "one-compartment oral", .by = parametrisation::rate_constant});
  subject who;
  who.segments.resize(1);
  append(who, dose{.amount = 1.0});
  append(who, observation{.time = t});
  return test::predict(*model, who, {ka, k, 1.0})[0] / ka;
}

TEST(Bateman, AgreesWithHighPrecision) {
  // ka = k, apart by 1e-12 to 1e-3 to either side, faster and slower absorption, huge and tiny
  // times and rates.
  std::ifstream file(SOURCE_FOLDER "/tests/varda/reference/bateman.csv");
  std::string header;
  std::getline(file, header);
  double ka = 0.0, k = 0.0, t = 0.0, expected = 0.0;
  char comma = 0;
  int rows = 0;
  for (; file >> ka >> comma >> k >> comma >> t >> comma >> expected; ++rows) {
    // The rounding of the exponent counts as often as the exponent is large.
    const double relative = 1e-14 + 2.3e-16 * std::min(ka, k) * t;
    EXPECT_NEAR(bateman(ka, k, t), expected, relative * expected) << ka << " " << k << " " << t;
  }
  EXPECT_EQ(rows, 19);
}

TEST(Bateman, GoesToZeroWithoutOverflow) {
  for (const double ka : {1e-300, 0.1, 1e300})
    for (const double k : {1e-300, 0.1, 1e300}) {
      EXPECT_EQ(bateman(ka, k, 0.0), 0.0);
      EXPECT_TRUE(std::isfinite(bateman(ka, k, 1.0)));
      EXPECT_EQ(bateman(ka, k, 1e305), 0.0);
    }
  EXPECT_EQ(bateman(1.0, 1.0, 1e300), 0.0);
}

// Three doses, the second into `second`, and observations at times of doses that stand before or
// after the dose in the file.
subject three_doses(int second) {
  subject who;
  who.segments.resize(1);
  append(who, dose{.time = 0.0, .amount = 100.0, .compartment = 1});
  for (const double time : {0.0, 3.0, 5.0}) append(who, observation{.time = time});
  append(who, dose{.time = 5.0, .amount = 50.0, .compartment = second});
  for (const double time : {5.0, 12.0}) append(who, observation{.time = time});
  append(who, dose{.time = 12.0, .amount = 80.0, .compartment = 1});
  for (const double time : {12.0, 30.0}) append(who, observation{.time = time});
  return who;
}

void expect_predictions(const std::string& name, const std::vector<double>& p,
                        const std::vector<double>& expected) {
  const auto model = make_structural_model({name});
  const subject who = three_doses(model->dose_compartments());
  const std::vector<double> f = test::predict(*model, who, p);
  for (std::size_t i = 0; i < f.size(); ++i)
    EXPECT_NEAR(f[i], expected[i], 1e-14 * expected[i]) << name << " observation " << i;
}

TEST(OneCompartment, SuperposesDosesInFileOrder) {
  expect_predictions("one-compartment oral", {1.58, 2.75, 31.6},
                     {0.0, 2.5502233282853775654, 2.1661854136437145016, 3.7484638946563726583,
                      2.039082770776697069, 2.039082770776697069, 0.98510443014956759263});
  expect_predictions(
      "one-compartment bolus", {2.75, 31.6},
      {3.1645569620253163134, 2.4374127198997020343, 2.0480466456552575555, 3.6303251266679157122,
       1.9741639566678152233, 4.505809526288068274, 0.94074033223721669898});
}

TEST(OneCompartment, ParametersOutsideTheDomainGiveNaN) {
  const subject who = three_doses(1);
  for (const std::string& name : structural_model_names()) {
    const auto model = make_structural_model({name});
    const std::vector<double> sound(model->parameter_names().size(), 1.0);
    for (std::size_t k = 0; k < sound.size(); ++k)
      for (const double bad : {0.0, -1.0, infinite, std::nan("")}) {
        std::vector<double> p = sound;
        p[k] = bad;
        for (const double x : test::predict(*model, who, p))
          EXPECT_TRUE(std::isnan(x)) << name << " " << k << " " << bad;
      }
  }
}

TEST(StructuralModel, UnknownNameGivesNothing) {
  EXPECT_EQ(make_structural_model({"two-compartment orl"}), nullptr);
}

}  // namespace
}  // namespace varda
