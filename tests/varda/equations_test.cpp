// SPDX-License-Identifier: Apache-2.0
//
// Models in formulas and differential equations against closed forms, mpmath and one another.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>

#include "tests/varda/theophylline.h"
#include "varda/input/model_file.h"
#include "varda/model/equations/equation_model.h"
#include "varda/model/structural_model.h"

namespace varda {
namespace {

using testing::HasSubstr;

// Every way to a solution: exact where the system is linear, both methods otherwise.
constexpr solver_method methods[] = {solver_method::automatic, solver_method::non_stiff,
                                     solver_method::stiff};

equation_text one_compartment() {
  equation_text text;
  text.solver.relative = 1e-9;
  text.solver.absolute = 1e-11;
  text.parameters = {"ka", "CL", "V"};
  text.definitions = {{"k", "CL / V"}};
  text.derivatives = {{"depot", "-ka * depot"}, {"central", "ka * depot - k * central"}};
  text.outputs = {{"c", "central / V"}};
  return text;
}

struct prediction {
  std::vector<double> f;
  std::string why;
};

prediction predict(const equation_text& text, const subject& who, const std::vector<double>& p,
                   std::size_t sets = 1) {
  const auto model = make_structural_model({.name = equation_structure, .equations = text});
  std::vector<int> positions;
  for (std::size_t k = 0; k < model->covariates().size(); ++k)
    positions.push_back(static_cast<int>(k));
  model->locate_covariates(positions);
  prediction made;
  made.f = test::predict(*model, who, p, sets, &made.why);
  return made;
}

void expect_near(const std::vector<double>& f, const std::vector<double>& expected,
                 double relative) {
  ASSERT_EQ(f.size(), expected.size());
  for (std::size_t i = 0; i < f.size(); ++i)
    EXPECT_NEAR(f[i], expected[i], relative * std::fabs(expected[i])) << "observation " << i;
}

subject observed(const std::vector<dose>& doses, const std::vector<double>& times) {
  subject who;
  who.segments.resize(1);
  for (const dose& d : doses) append(who, d);
  for (const double t : times) append(who, observation{.time = t});
  return who;
}

TEST(Formulas, FollowTheRulesOfArithmetic) {
  const double x = 2.0, y = -3.0;
  const auto value = [&](const std::string& formula) {
    equation_text text;
    text.parameters = {"x", "y"};
    text.outputs = {{"f", formula}};
    const auto model = make_structural_model({.name = formula_structure, .equations = text});
    const std::map<std::string, double> values = {{"x", x}, {"y", y}};
    std::vector<double> p;
    for (const std::string& name : model->parameter_names()) p.push_back(values.at(name));
    return test::predict(*model, observed({}, {0.0}), p)[0];
  };
  // The C++ library's functions are the yardstick for the others.
  const std::vector<std::pair<std::string, double>> cases = {
      {"-x^2", -4.0},
      {"2^3^2", 512.0},
      {"x^-1", 0.5},
      {"-y^3", 27.0},
      {"1e-3 + x", 2.001},
      {"log(exp(x))", 2.0},
      {"mod(y, 24)", 21.0},
      {"max(x, y, 1)", 2.0},
      {"min(y, 1)", -3.0},
      {"x > 1 ? y : 1", -3},
      {"x == 2 && y >= -3", 1.0},
      {"x < 0 || y != y", 0.0},
      {"x / 4 * 2", 1.0},
      {"x - 1 - 1", 0.0},
      {"pow(x, 3) - x*x*x", 0.0},
      {"x < 1 ? 1 : x < 3 ? 5 : 7", 5.0},
      {"2 * -x", -4.0},
      {"2^-x", 0.25},
      {"x^0.5 * sqrt(x)", 2.0},
      {"x <= 2 != (y > 0)", 1.0},
      {"floor(y / 2) + ceil(y / 2)", -3.0},
      {"floor(1e300) / 1e300 + abs(y)", 4.0},
      {"pi", 3.14159265358979323846},
      {"expm1(1e-9 * x)", std::expm1(2e-9)},
      {"log1p(1e-9 * x)", std::log1p(2e-9)},
      {"log2(8 * x) + log10(500 * x)", 7.0},
      {"sin(x) + cos(x) * tan(x)", 2.0 * std::sin(2.0)},
      {"atan(x) - tanh(y)", std::atan(2.0) - std::tanh(-3.0)},
      {"erf(x / 4)", std::erf(0.5)},
      {"pow(x, 1.5)", std::pow(2.0, 1.5)},
      {"pow(x, 20.5)", std::pow(2.0, 20.5)},
      {"pow(0 * x, 1.5) + pow(1e300 * x, -1.5)", 0.0},
      {"pow(y, x + 1)", -27.0}};
  for (const auto& [text, expected] : cases)
    EXPECT_NEAR(value(text), expected, 4e-15 * std::fabs(expected)) << text;
  for (const std::string text : {"sqrt(y)", "log(y)", "0 / (x - 2)", "max(sqrt(y), 1)", "y^0.5",
                                 "pow(y, 0.3)", "min(1, log(y))", "max(1, x, log(y))"})
    EXPECT_TRUE(std::isnan(value(text))) << text;
}

// The sound model of the refusals as lines of a file; `added` stands under its section, and takes
// the place of a line with its key.
std::string file_text(const std::string& section, const std::string& key, const std::string& value,
                      int& row) {
  const std::vector<std::pair<std::string, std::vector<std::pair<std::string, std::string>>>>
      sound = {{"definitions", {{"k", "CL / V"}, {"moving", "2 * central"}, {"low", "WT / 70"}}},
               {"derivatives", {{"depot", "-ka * depot"}, {"central", "ka * depot - k * central"}}},
               {"initial", {{"central", "0"}}},
               {"lag", {{"depot", "0.5 * low"}}},
               {"outputs", {{"c", "central / V"}}}};
  std::ostringstream text;
  int line = 1;
  const auto write = [&](const std::string& name, const std::string& content, bool fault) {
    text << name << content << "\n";
    if (fault) row = line;
    ++line;
  };
  write("data = { file = \"formulas.csv\" }", "", false);
  write("[parameters]\nka = { start = 1 }\nCL = { start = 1 }\nV = { start = 1 }", "", false);
  line += 3;
  write("[model]\nstructure = \"equations\"", "", false);
  ++line;
  for (const auto& [table, lines] : sound) {
    write("[model." + table + "]", "", false);
    bool replaced = false;
    for (const auto& [name, formula] : lines) {
      const bool here = table == section && name == key;
      replaced = replaced || here;
      write(name + " = ", "\"" + (here ? value : formula) + "\"", here);
    }
    if (table == section && !replaced) write(key + " = ", "\"" + value + "\"", true);
    if (table == section && key == "a") write("b = \"1\"", "", false);
  }
  text << "[omega]\nka = 0.1\nCL = 0.1\nV = 0.1\n[residual]\nadditive = 1.0\n";
  return text.str();
}

TEST(Equations, RefusesWhatIsNoFormula) {
  std::ofstream("formulas.csv") << "ID,TIME,DV,AMT,wt\n1,0,.,1,70\n";
  const std::string path = "model.toml";
  const auto read = [&](const std::string& section, const std::string& key,
                        const std::string& value, int& row) {
    std::ofstream(path) << file_text(section, key, value, row);
    findings warnings;
    return read_model_file(path, warnings);
  };
  int row = 0;
  EXPECT_EQ(read("", "", "", row).data.covariates, std::vector<std::string>{"WT"});

  std::ifstream cases(SOURCE_FOLDER "/tests/varda/bad_formulas.txt");
  int tried = 0;
  for (std::string line; std::getline(cases, line);) {
    if (line.starts_with("#")) continue;
    SCOPED_TRACE(line);
    std::vector<std::string> fields;
    for (std::size_t end = 0; fields.size() < 6; line.erase(0, end + 3))
      fields.push_back(line.substr(0, end = line.find(" | ")));
    try {
      read(fields[0], fields[1], line, row);
      ADD_FAILURE() << "is not refused";
    } catch (const bad_input& e) {
      EXPECT_EQ(e.what_found().code, fields[2]) << e.what();
      EXPECT_EQ(e.what_found().column, "model." + fields[3]);
      EXPECT_EQ(e.what_found().row, row);
      EXPECT_THAT(e.what_found().message, HasSubstr(fields[4]));
      EXPECT_THAT(e.what_found().remedy, HasSubstr(fields[5]));
    }
    ++tried;
  }
  EXPECT_EQ(tried, 25);
}

// The closed form, the formula and both methods for the equations.
TEST(Equations, GiveTheObjectiveOfTheClosedForm) {
  const auto objectives = [](const char* structure, const equation_text& text) {
    const population_model model = test::theophylline([&](model_specification& file) {
      file.structure = {.name = structure, .equations = text};
    });
    std::vector<double> sums;
    for (int draw = 0; draw < 40; ++draw) {
      double sum = 0.0;
      for (int i = 0; i < model.subjects(); ++i) {
        // Typical values times factors between 0.3 and 3.
        std::vector<double> p = {1.6, 2.8, 31.0};
        for (std::size_t k = 0; k < p.size(); ++k)
          p[k] *=
              std::pow(3.0, std::sin(1.0 + 17.0 * draw + 5.0 * i + 2.0 * static_cast<double>(k)));
        const std::vector<double> f =
            test::predict(model.structure(), model.data().subjects[static_cast<std::size_t>(i)], p);
        double objective = 0.0;
        double squares = 0.0;
        model.observed().objectives(model.data().subjects[static_cast<std::size_t>(i)], f.data(), 1,
                                    1, model.start_theta().data(), &objective, &squares);
        sum += objective;
      }
      sums.push_back(sum);
    }
    return sums;
  };
  const std::vector<double> exact = objectives("one-compartment oral", {});
  const auto expect_equal = [&](const std::vector<double>& sums) {
    for (std::size_t i = 0; i < exact.size(); ++i) EXPECT_NEAR(sums[i], exact[i], 1e-6);
  };
  equation_text text = one_compartment();
  text.solver.relative = 1e-10;
  for (const solver_method method : methods) {
    text.solver.method = method;
    expect_equal(objectives(equation_structure, text));
  }
  text.outputs = {{"c", "dose * ka / (V * (ka - k)) * (exp(-k * tad) - exp(-ka * tad))"}};
  text.derivatives.clear();
  expect_equal(objectives(formula_structure, text));
}

// Amounts in the second of two compartments t after the start of an input into the first or, for
// ka = 0, into itself.
double after_bolus(double ka, double k, double t) {
  if (t < 0.0) return 0.0;
  return ka > 0.0 ? ka * (std::exp(-k * t) - std::exp(-ka * t)) / (ka - k) : std::exp(-k * t);
}
double after_infusion(double k, double duration, double t) {
  if (t <= 0.0) return 0.0;
  const double end = std::min(t, duration);
  return -std::expm1(-k * end) / k * std::exp(-k * (t - end));
}

TEST(Equations, TakeDosesIntoEveryCompartmentLikeTheClosedForms) {
  const double ka = 1.3, k = 0.2, v = 10.0;
  equation_text text = one_compartment();
  text.lag = {{"depot", "0.7 * CL / 2"}};
  text.bioavailability = {{"depot", "0.8"}, {"central", "dose > 50 ? 0.5 : 1"}};
  text.rate = {{"central", "15"}};
  text.duration = {{"central", "3 + 0 * t"}};
  const std::vector<double> times = {0.0, 0.5, 0.7, 1.0, 2.5, 4.0, 7.0, 12.0, 30.0};
  const std::vector<dose> doses = {
      {.time = 0.0, .amount = 100.0, .compartment = 1},
      {.time = 0.0, .amount = 20.0, .compartment = 2},
      {.time = 0.0, .amount = 60.0, .compartment = 2, .input = dose_input::infusion, .rate = 10.0},
      {.time = 0.0, .amount = 45.0, .compartment = 2, .input = dose_input::modelled_rate},
      {.time = 0.0, .amount = 24.0, .compartment = 2, .input = dose_input::modelled_duration}};
  std::vector<double> expected;
  for (const double t : times)
    expected.push_back((80.0 * after_bolus(ka, k, t - 0.7) + 20.0 * after_bolus(0.0, k, t) +
                        10.0 * after_infusion(k, 3.0, t) + 15.0 * after_infusion(k, 3.0, t) +
                        8.0 * after_infusion(k, 3.0, t)) /
                       v);
  for (const solver_method method : methods) {
    text.solver.method = method;
    expect_near(predict(text, observed(doses, times), {ka, k * v, v}).f, expected, 1e-7);
  }
}

TEST(Equations, KeepToTheOrderOfEventsResetsAndSegments) {
  // Clearance follows the covariate and V the segment's parameters; the reset cancels a lagged dose
  // and an infusion and brings the initial value back.
  equation_text text = one_compartment();
  text.definitions = {{"k", "CL * WT / V"}};
  text.initial = {{"central", "5 * WT"}};
  text.lag = {{"depot", "2"}};
  subject who;
  who.segments = {{.covariates = {1.0}}, {.begin = 3.0, .covariates = {2.0}}};
  append(who, observation{.time = 0.0});
  append(who, dose{.time = 0.0, .amount = 10.0, .compartment = 2});
  append(who, observation{.time = 0.0});
  append(who, observation{.time = 3.0});
  who.timeline.push_back({event_kind::segment, 1, 3.0});
  append(who, observation{.time = 3.0, .segment = 1});
  append(who, observation{.time = 4.0, .segment = 1});
  append(who, dose{.time = 4.0, .amount = 10.0, .compartment = 1});
  append(who, dose{.time = 4.0,
                   .amount = 40.0,
                   .compartment = 2,
                   .input = dose_input::infusion,
                   .rate = 4.0});
  who.timeline.push_back({event_kind::reset, 0, 5.0});
  append(who, observation{.time = 5.0, .segment = 1});
  append(who, observation{.time = 9.0, .segment = 1});
  const double at_3 = 15.0 * std::exp(-0.3 * 3.0);
  expect_near(
      predict(text, who, {1.0, 3.0, 10.0, 1.0, 3.0, 20.0}, 2).f,
      {0.5, 1.5, at_3 / 10, at_3 / 20, at_3 / 20 * std::exp(-0.3), 0.5, 0.5 * std::exp(-0.3 * 4.0)},
      1e-7);
}

// Against the same regimen written out dose by dose.
TEST(Equations, ReachTheSteadyStateOfALongHistory) {
  equation_text linear = one_compartment();
  equation_text saturable = linear;
  saturable.definitions = {{"vmax", "CL"}};
  saturable.derivatives[1].text = "ka * depot - vmax * central / (2 + central)";
  equation_text lagging = linear;
  lagging.lag = {{"depot", "9"}, {"central", "2.5"}};
  equation_text turnover = saturable;  // a response at rest without a drug
  turnover.derivatives.push_back({"r", "2 - 0.5 * r / (1 + central)"});
  turnover.initial = {{"r", "4"}};
  turnover.outputs = {{"r", "r"}};
  const std::vector<dose> doses = {{.time = 0.0, .amount = 5.0, .compartment = 1, .interval = 4.0},
                                   {.time = 0.0,
                                    .amount = 5.0,
                                    .compartment = 2,
                                    .input = dose_input::infusion,
                                    .rate = 0.5,
                                    .interval = 4.0},
                                   {.time = 0.0,
                                    .amount = 5.0,
                                    .compartment = 2,
                                    .input = dose_input::infusion,
                                    .rate = 5.0,
                                    .interval = 4.0}};
  for (equation_text text : {linear, saturable, lagging, turnover})
    for (const solver_method method : methods)
      for (dose d : doses) {
        SCOPED_TRACE(text.derivatives[1].text + (text.lag.empty() ? "" : ", lag") + ", " +
                     std::to_string(static_cast<int>(method)) + ", " + std::to_string(d.rate));
        text.solver.method = method;
        subject history;
        history.segments.resize(1);
        for (int n = 300; n >= 0; --n) {
          dose earlier = d;
          earlier.time = -n * d.interval;
          append(history, earlier);
        }
        d.steady_state = true;
        subject steady = observed({d}, {});
        for (const double t : {0.0, 0.3, 2.5, 3.0, 8.0, 11.0}) {
          append(history, observation{.time = t});
          append(steady, observation{.time = t});
        }
        const prediction made = predict(text, steady, {1.1, 2.5, 8.0});
        expect_near(made.f, predict(text, history, {1.1, 2.5, 8.0}).f, 1e-6);
        EXPECT_EQ(made.why, "");
      }
}

TEST(Equations, ReachTheBalanceOfAConstantInfusionAndAddToWhatIsThere) {
  const dose endless = {.time = 0.0,
                        .compartment = 2,
                        .input = dose_input::infusion,
                        .rate = 3.0,
                        .steady_state = true};
  const dose before = {.time = -1.0, .amount = 7.0, .compartment = 2};
  const double k = 0.25;
  const auto linear = [&](double t) {
    return (3.0 / k * std::exp(-k * t) + 7.0 * std::exp(-k * (t + 1.0))) / 8.0;
  };
  expect_near(
      predict(one_compartment(), observed({before, endless}, {0.0, 6.0}), {1.0, 2.0, 8.0}).f,
      {linear(0.0), linear(6.0)}, 1e-7);
  equation_text saturable = one_compartment();
  saturable.derivatives[1].text = "ka * depot - CL * central / (2 + central)";
  // 3 = CL x / (2 + x)
  expect_near(predict(saturable, observed({endless}, {0.0}), {1.0, 4.0, 8.0}).f, {6.0 / 8.0}, 1e-7);
  // More comes in than can go out.
  const prediction over = predict(saturable, observed({endless}, {0.0}), {1.0, 2.9, 8.0});
  EXPECT_TRUE(std::isnan(over.f[0]));
  EXPECT_THAT(over.why, HasSubstr("no steady state"));
}

TEST(Equations, SolveANonlinearAndAStiffSystem) {
  // x + K log(x / D) = D - vmax t, by mpmath's Lambert W at 30 digits.
  equation_text text;
  text.parameters = {"vmax", "km", "V"};
  text.derivatives = {{"a", "-vmax * a / (km * V + a)"}};
  text.outputs = {{"c", "a / V"}};
  text.solver = {.relative = 1e-9, .absolute = 1e-11};
  for (const solver_method method : methods) {
    text.solver.method = method;
    expect_near(
        predict(text, observed({{.amount = 100.0}}, {1.0, 4.0, 8.0, 12.0}), {12.0, 0.5, 20.0}).f,
        {4.4574324931714644, 2.8764419142586558, 1.0031476186050021, 0.054993063763531606}, 1e-7);
  }
  // Robertson's reaction by Gauss collocation of order 12 in mpmath, two step sequences agreeing.
  equation_text reaction;
  reaction.parameters = {"r1", "r2", "r3"};
  reaction.derivatives = {
      {"a", "-r1 * a + r2 * b * c"}, {"b", "r1 * a - r2 * b * c - r3 * b^2"}, {"c", "r3 * b^2"}};
  reaction.outputs = {{"a", "a"}};
  reaction.solver = {.relative = 1e-9, .absolute = 1e-11};
  expect_near(predict(reaction, observed({{.amount = 1.0}}, {0.4, 4.0, 40.0}), {0.04, 1e4, 3e7}).f,
              {0.98517211386098986, 0.90551867858421012, 0.7158270687088459}, 1e-7);
}

TEST(Equations, SayWhyTheyFail) {
  const auto why = [](equation_text text, std::vector<double> p = {1.0, 2.0, 10.0}) {
    const prediction made = predict(text, observed({{.amount = 10.0}}, {0.0, 50.0}), p);
    for (const double f : made.f) EXPECT_TRUE(std::isnan(f));
    return made.why;
  };
  equation_text text = one_compartment();
  text.derivatives[1].text = "central^2 + ka * depot - k * central";
  EXPECT_THAT(why(text), HasSubstr("time 0.549"));  // grows beyond all bounds in finite time
  text.derivatives[1].text = "ka * depot - k * central / sqrt(1 - t / 20)";
  EXPECT_THAT(why(text), HasSubstr("no finite solution after time 19.9"));
  text = one_compartment();
  text.solver.max_steps = 20;
  text.solver.method = solver_method::non_stiff;
  EXPECT_THAT(why(text, {1e4, 2.0, 10.0}), HasSubstr("more than 20 steps"));
  text = one_compartment();
  text.lag = {{"depot", "ka - 2"}};
  EXPECT_EQ(why(text), "the lag of doses into depot is -1 at time 0");
  text = one_compartment();
  text.outputs[0].text = "log(central)";
  EXPECT_EQ(why(text), "the output c is -inf at time 0");
}

}  // namespace
}  // namespace varda
