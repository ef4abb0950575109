// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/varda/compartment_reference.h"
#include "varda/model/compartment_model.h"
#include "varda/model/exponentials.h"
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

void observe(subject& who, const std::vector<double>& times) {
  for (const double t : times) append(who, observation{.time = t});
}

void change_segment(subject& who, double time) {
  who.timeline.push_back({event_kind::segment, time, static_cast<int>(who.segments.size())});
  who.segments.push_back({.begin = time, .covariates = {}});
}

void reset(subject& who, double time) {
  who.timeline.push_back({event_kind::reset, time, 0});
}

// Overlapping inputs into first and last compartments, steady states of every kind with and without
// a reset before them, parameters that change in the middle of an infusion, and tails.
subject eventful(const structural_model& model) {
  const int last = model.dose_compartments();
  const dose_input by_rate = model.models_rate(1) ? dose_input::modelled_rate : dose_input::bolus;
  const dose_input by_duration =
      model.models_duration(1) ? dose_input::modelled_duration : dose_input::bolus;
  const dose_input infusion = dose_input::infusion;
  subject who;
  who.segments.resize(1);
  observe(who, {-1.0});
  append(who, dose{.time = 0.0, .amount = 100.0});
  observe(who, {0.0, 0.01, 0.5, 2.0});
  append(who, dose{.time = 3.0, .amount = 90.0, .input = infusion, .rate = 20.0});
  append(who, dose{.time = 3.5, .amount = 40.0, .compartment = last});
  observe(who, {3.5, 4.0});
  append(who,
         dose{.time = 4.0, .amount = 30.0, .compartment = last, .input = infusion, .rate = 9.0});
  observe(who, {4.001, 7.4, 7.5, 9.0});
  append(who, dose{.time = 10.0, .amount = 60.0, .steady_state = true, .interval = 6.0});
  observe(who, {10.0, 10.2, 13.0});
  append(who, dose{.time = 14.0, .amount = 60.0, .input = by_rate});
  change_segment(who, 15.0);
  observe(who, {15.0, 16.0});
  append(who, dose{.time = 16.0, .amount = 60.0, .input = by_duration});
  observe(who, {17.0, 19.0});
  reset(who, 20.0);
  observe(who, {20.0});
  append(who, dose{.time = 21.0, .amount = 10.0});
  reset(who, 24.0);
  append(who, dose{.time = 24.0,
                   .amount = 100.0,
                   .input = infusion,
                   .rate = 10.0,
                   .steady_state = true,
                   .interval = 4.0});
  observe(who, {24.0, 25.0, 30.0});
  append(who, dose{.time = 30.0,
                   .amount = 20.0,
                   .compartment = last,
                   .input = infusion,
                   .rate = 10.0,
                   .steady_state = true,
                   .interval = 5.0});
  change_segment(who, 31.0);
  observe(who, {31.0, 40.0});
  reset(who, 45.0);
  append(who, dose{.time = 45.0, .input = infusion, .rate = 5.0, .steady_state = true});
  observe(who, {45.0, 45.5, 52.0, 60.0});
  for (int n = 0; n < 5; ++n) append(who, dose{.time = 60.0 + 12.0 * n, .amount = 100.0});
  observe(who, {108.5, 120.0, 200.0});
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
        std::vector<double> p = a.p;
        p.insert(p.end(), b.p.begin(), b.p.end());
        p.insert(p.end(), a.p.begin(), a.p.end());
        std::vector<double> f(who.observations.size(), -1.0);
        model->predict(who, {p.data(), a.p.size(), who.segments.size()}, f);
        const std::vector<double> expected =
            test::integrate(who, {a.reference, b.reference, a.reference});
        const double most = *std::max_element(expected.begin(), expected.end());
        for (std::size_t k = 0; k < f.size(); ++k)
          EXPECT_NEAR(f[k], expected[k], 1e-10 * most)
              << a.choice.name << " lag " << lag << " time " << who.observations[k].time;
      }
}

// Rows of a table of numbers with a line of names first.
std::vector<std::vector<double>> table(const std::string& name) {
  std::ifstream file(SOURCE_FOLDER "/tests/varda/reference/" + name);
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
    double f = 0.0;
    model->predict(who, {p.data(), p.size(), 1}, {&f, 1});
    // What returns from a peripheral compartment is a difference of terms that are larger by up to
    // sqrt(k21 / k12) where eigenvalues are close.
    const double relative = peripheral > 0 && row[0] > (oral ? 2.0 : 1.0) ? 1e-10 : 2e-13;
    EXPECT_NEAR(f, row[10], relative * row[10]) << &row - rows.data() + 2;
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

struct emax_parameters {
  double E0, Emax, ED50;
};

class emax : public typed_model<emax_parameters> {
 public:
  emax()
      : typed_model({{"E0", &emax_parameters::E0},
                     {"Emax", &emax_parameters::Emax},
                     {"ED50", &emax_parameters::ED50}}) {}
  int dose_compartments() const override { return 1; }

 private:
  void predict_typed(const subject& who, const typed_path<emax_parameters>& path,
                     std::span<double> f) const override {
    double given = 0.0;
    for (const event& e : who.timeline) {
      const auto at = static_cast<std::size_t>(e.index);
      if (e.kind == event_kind::dose) given += who.doses[at].amount;
      if (e.kind != event_kind::observation) continue;
      const emax_parameters p = path.in_segment(who.observations[at].segment);
      f[at] = p.E0 + p.Emax * given / (p.ED50 + given);
    }
  }
};

TEST(TypedModels, AreModelsLikeTheOthers) {
  subject who;
  who.segments.resize(1);
  append(who, dose{.amount = 80.0});
  observe(who, {0.0, 3.0, 6.0});
  std::vector<double> f(3);
  const compartment_model<half_life> one({.by = route::intravenous, .bioavailability = true});
  EXPECT_EQ(one.parameter_names(), (std::vector<std::string>{"thalf", "V", "F"}));
  const double p[] = {3.0, 10.0, 0.5};
  one.predict(who, {p, 3, 1}, f);
  for (std::size_t k = 0; k < 3; ++k) EXPECT_DOUBLE_EQ(f[k], 4.0 / std::pow(2.0, k));

  const double q[] = {1.0, 8.0, 80.0};
  emax().predict(who, {q, 3, 1}, f);
  EXPECT_EQ(f[2], 5.0);
}

}  // namespace
}  // namespace varda
