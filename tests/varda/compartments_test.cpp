// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/varda/compartment_reference.h"
#include "tests/varda/theophylline.h"
#include "varda/model/closed/absorption_twin.h"
#include "varda/model/closed/compartment_model.h"
#include "varda/model/structural_model.h"

namespace varda {
namespace {

// A model of the library and the same for the reference: clearances, or rate constants worked out
// here.
struct individual {
  structure_choice choice;
  std::vector<double> p;  // as the model takes them
  test::compartments reference;
};

individual make_individual(int compartments, route by, bool rates, double lag, double change) {
  const std::vector<std::string> counts = {"one", "two", "three"};
  const std::vector<std::string> routes = {"intravenous", "oral", "zero-order"};
  const std::vector<double> clearance = {3.0 * change, 6.0, 2.0 / change};
  const std::vector<double> volume = {20.0, 35.0 * change, 25.0};
  individual who;
  structure_choice& choice = who.choice;
  choice.name = counts[static_cast<std::size_t>(compartments - 1)] + "-compartment " +
                routes[static_cast<std::size_t>(by)];
  if (rates) choice.by = parametrisation::rate_constant;
  choice.lag_time = lag > 0.0;
  choice.bioavailability = lag > 0.0;
  choice.modelled_rate = choice.modelled_duration = by == route::intravenous;

  test::compartments& r = who.reference;
  r.volume = volume[0];
  r.elimination = clearance[0] / volume[0];
  if (by == route::oral) who.p = {r.ka = 0.9 / change};
  const std::vector<double> first = rates ? std::vector<double>{r.elimination, r.volume}
                                          : std::vector<double>{clearance[0], volume[0]};
  who.p.insert(who.p.end(), first.begin(), first.end());
  for (std::size_t j = 1; j < static_cast<std::size_t>(compartments); ++j) {
    r.to.push_back(clearance[j] / volume[0]);
    r.from.push_back(clearance[j] / volume[j]);
    who.p.push_back(rates ? r.to.back() : clearance[j]);
    who.p.push_back(rates ? r.from.back() : volume[j]);
  }
  r.zero_order = by == route::zero_order;
  if (choice.modelled_rate) who.p.push_back(r.rate = 25.0 * change);
  if (by != route::oral) who.p.push_back(r.duration = 2.5 / change);
  if (lag > 0.0) {
    who.p.push_back(r.lag = lag);
    who.p.push_back(r.bioavailability = 0.7);
  }
  return who;
}

std::ifstream reference_file(const std::string& name) {
  return std::ifstream(SOURCE_FOLDER "/tests/varda/reference/" + name);
}

dose read_dose(std::istream& fields, double time, const structural_model& model) {
  dose d{.time = time};
  fields >> d.amount >> d.compartment >> d.rate;
  if (d.compartment == 0) d.compartment = model.dose_compartments();
  if (d.rate > 0.0) d.input = dose_input::infusion;
  if (d.rate == -1.0 && model.models_rate(1)) d.input = dose_input::modelled_rate;
  if (d.rate == -2.0 && model.models_duration(1)) d.input = dose_input::modelled_duration;
  d.rate = std::max(d.rate, 0.0);
  d.steady_state = static_cast<bool>(fields >> d.interval);
  return d;
}

subject eventful(const structural_model& model) {
  subject who;
  who.segments.resize(1);
  std::ifstream file = reference_file("history.txt");
  for (std::string line; std::getline(file, line);) {
    std::istringstream fields(line);
    std::string what;
    double time = 0.0;
    if (!(fields >> what >> time)) continue;
    if (what == "see") append(who, observation{.time = time});
    if (what == "dose") append(who, read_dose(fields, time, model));
    if (what == "reset") who.timeline.push_back({event_kind::reset, 0, time});
    if (what != "segment") continue;
    who.timeline.push_back({event_kind::segment, static_cast<int>(who.segments.size()), time});
    who.segments.resize(who.segments.size() + 1);
  }
  return who;
}

TEST(Compartments, AgreeWithTheirDifferentialEquations) {
  for (const int compartments : {1, 2, 3})
    for (const route by : {route::intravenous, route::oral, route::zero_order})
      for (const double lag : {0.0, 0.7, 6.0, 6.4}) {
        const bool rates = lag == 0.7;
        const individual a = make_individual(compartments, by, rates, lag, 1.0);
        const individual b = make_individual(compartments, by, rates, lag, 1.3);
        const auto model = make_structural_model(a.choice);
        ASSERT_EQ(model->parameter_names().size(), a.p.size());
        const subject who = eventful(*model);
        ASSERT_EQ(who.observations.size(), 31U);
        std::vector<double> p = a.p;
        p.insert(p.end(), b.p.begin(), b.p.end());
        p.insert(p.end(), a.p.begin(), a.p.end());
        const std::vector<double> f = test::predict(*model, who, p, who.segments.size());
        const std::vector<double> expected =
            test::integrate(who, {a.reference, b.reference, a.reference});
        const double most = *std::max_element(expected.begin(), expected.end());
        for (std::size_t k = 0; k < f.size(); ++k)
          EXPECT_NEAR(f[k], expected[k], 1e-10 * most)
              << a.choice.name << " lag " << lag << " time " << who.observations[k].time;
      }
}

// The rows of a table of numbers below its line of names.
std::vector<std::vector<double>> table(const std::string& name) {
  std::ifstream file = reference_file(name);
  std::vector<std::vector<double>> rows;
  std::string line;
  std::getline(file, line);
  while (std::getline(file, line)) {
    std::replace(line.begin(), line.end(), ',', ' ');
    std::istringstream fields(line);
    rows.emplace_back();
    for (double x = 0.0; fields >> x;) rows.back().push_back(x);
  }
  return rows;
}

// Equal and nearly equal rates, tiny ones, short times: mpmath's matrix exponential at 80 digits.
// Columns: compartment of the dose, duration of its infusion or 0, time, ka, k, V, k12, k21, k13,
// k31 and the concentration after a dose of 1; zeros where there is no such compartment.
TEST(Compartments, KeepTheirDigitsWhereRatesAreClose) {
  const auto rows = table("close_rates.csv");
  ASSERT_GT(rows.size(), 30U);
  for (const auto& row : rows) {
    const bool oral = row[3] > 0.0;
    const int peripheral = row[8] > 0.0 ? 2 : row[6] > 0.0 ? 1 : 0;
    const char* names[] = {"one-compartment ", "two-compartment ", "three-compartment "};
    const auto model = make_structural_model(
        {.name = names[peripheral] + std::string(oral ? "oral" : "intravenous"),
         .by = parametrisation::rate_constant});
    const std::vector<double> p(row.begin() + (oral ? 3 : 4), row.begin() + 6 + 2 * peripheral);
    subject who;
    who.segments.resize(1);
    dose d{.amount = 1.0, .compartment = static_cast<int>(row[0])};
    if (row[1] > 0.0) {
      d.input = dose_input::infusion;
      d.rate = 1.0 / row[1];
    }
    append(who, d);
    append(who, observation{.time = row[2]});
    const double f = test::predict(*model, who, p)[0];
    // What returns from a peripheral compartment is a difference of terms that are larger by up to
    // sqrt(k21 / k12) where eigenvalues are close.
    const double relative = peripheral > 0 && row[0] > (oral ? 2.0 : 1.0) ? 1e-10 : 2e-13;
    EXPECT_NEAR(f, row[10], relative * row[10]) << &row - rows.data() + 2;
  }
}

// A bolus into one compartment of volume 1 is an exponential.
TEST(Compartments, DecayToTheLastPlace) {
  const auto model = make_structural_model(
      {.name = "one-compartment bolus", .by = parametrisation::rate_constant});
  for (const double most : {1e-18, 0.1, 3.0, 70.0, 707.0, 1e300}) {
    subject who;
    who.segments.resize(1);
    append(who, dose{.amount = 1.0});
    for (int j = 0; j < 31; ++j) append(who, observation{.time = most * std::sqrt(j / 31.0)});
    const std::vector<double> f = test::predict(*model, who, {1.0, 1.0});
    for (std::size_t j = 0; j < 31; ++j) {
      const double t = who.observations[j].time;
      if (t > 708.0)
        EXPECT_EQ(f[j], 0.0) << t;
      else
        EXPECT_NEAR(static_cast<double>(f[j] / std::exp(-static_cast<long double>(t)) - 1.0L), 0.0,
                    2.3e-16)
            << t;
    }
  }
}

// The example of docs/structural-models.md.
struct half_life {
  static constexpr int compartments = 1;
  double thalf, V;
  mammillary<1> rates() const { return {V, std::log(2.0) / thalf, {}, {}}; }
  static std::vector<named_parameter<half_life>> named() {
    return {{"thalf", &half_life::thalf}, {"V", &half_life::V}};
  }
};

// With absorption faster than every phase, between them, and slower than all.
TEST(AbsorptionTwin, HasTheSameCurves) {
  const population_model theophylline = test::theophylline();
  const subject& who = theophylline.data().subjects.front();
  for (const std::size_t peripheral : {0U, 1U, 2U})
    for (const double ka : {1.4, 0.12, 0.004}) {
      const std::vector<std::string> counts = {"one", "two", "three"};
      structure_choice choice;
      choice.name = counts[peripheral] + "-compartment oral";
      const auto model = make_structural_model(choice);
      const std::vector<double> p = {ka, 3.0, 20.0, 6.0, 35.0, 2.0, 60.0};
      const std::vector<double> own(p.begin(), p.begin() + 3 + 2 * peripheral);
      const auto values = [&](const std::string& name) {
        const std::vector<std::string>& names = model->parameter_names();
        const auto at = std::find(names.begin(), names.end(), name);
        return at == names.end() ? std::nan("") : own[static_cast<std::size_t>(at - names.begin())];
      };
      const auto one = oral_compartments_from(values);
      ASSERT_TRUE(one);
      const oral_compartments other = absorption_twin(*one);
      EXPECT_GT(std::fabs(std::log(other.absorption / ka)), 0.1);
      std::vector<double> twin = {other.absorption, other.clearance, other.volume};
      for (std::size_t j = 0; j < peripheral; ++j) {
        EXPECT_GT(other.exchange[j], 0.0);
        twin.push_back(other.exchange[j]);
        twin.push_back(other.peripheral[j]);
      }
      const std::vector<double> f = test::predict(*model, who, own);
      const std::vector<double> g = test::predict(*model, who, twin);
      for (std::size_t k = 0; k < f.size(); ++k) EXPECT_NEAR(g[k], f[k], 1e-10 * (1.0 + f[k]));
    }
}

TEST(CompartmentModel, TakesAStructOfParameters) {
  subject who;
  who.segments.resize(1);
  append(who, dose{.amount = 80.0});
  for (const double t : {0.0, 3.0, 6.0}) append(who, observation{.time = t});
  const compartment_model<half_life> one({.by = route::intravenous, .bioavailability = true});
  EXPECT_EQ(one.parameter_names(), (std::vector<std::string>{"thalf", "V", "F"}));
  const std::vector<double> f = test::predict(one, who, {3.0, 10.0, 0.5});
  for (std::size_t k = 0; k < 3; ++k) EXPECT_DOUBLE_EQ(f[k], 4.0 / std::pow(2.0, k));
}

}  // namespace
}  // namespace varda
