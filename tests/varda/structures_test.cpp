// SPDX-License-Identifier: Apache-2.0
//
// The ready structures against the same systems written in C++ and followed by Boost.Odeint, and
// against convolutions of closed forms by Boost's quadrature.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/math/quadrature/tanh_sinh.hpp>
#include <boost/numeric/odeint.hpp>
#include <cmath>
#include <fstream>
#include <functional>
#include <map>
#include <set>

#include "tests/varda/theophylline.h"
#include "varda/draft/catalogue.h"
#include "varda/draft/features.h"
#include "varda/input/model_file.h"
#include "varda/model/structural_model.h"

namespace varda {
namespace {

using testing::HasSubstr;
using values = std::map<std::string, double>;
using amounts = std::vector<double>;

constexpr double tolerance = 1e-8;  // of the largest prediction of an output

const std::vector<dose> two_doses = {{.time = 0.0, .amount = 100.0}, {.time = 3.0, .amount = 50.0}};
const std::vector<double> times = {0.05, 0.4, 1.0, 2.0, 2.9, 3.2, 5.0, 9.0, 16.0, 30.0};

subject observed(const std::vector<dose>& doses, int outputs) {
  subject who;
  who.segments.resize(1);
  const auto observe = [&](double after, double until) {
    for (const double t : times)
      for (int k = 0; k < outputs && t > after && t <= until; ++k)
        append(who, observation{.time = t, .endpoint = k});
  };
  double now = -1.0;
  for (const dose& d : doses) {
    observe(now, d.time);
    append(who, d);
    now = d.time;
  }
  observe(now, 1e9);
  return who;
}

// By output, of the structure with parameters p.
std::vector<std::vector<double>> predicted(const std::string& name, const values& p,
                                           const std::vector<dose>& doses = two_doses) {
  const ready_structure s = *find_ready_structure(name);
  structure_choice choice = {
      .name = s.equations.derivatives.empty() ? formula_structure : equation_structure,
      .equations = s.equations};
  for (const auto& [parameter, value] : p) choice.equations.parameters.push_back(parameter);
  choice.equations.summed_doses = static_cast<int>(std::max<std::size_t>(doses.size(), 1));
  choice.equations.solver = {.relative = 1e-11, .absolute = 1e-14};
  const auto model = make_structural_model(choice);
  EXPECT_TRUE(model->covariates().empty()) << name << ": " << model->covariates().front();
  amounts in_order;
  for (const std::string& parameter : model->parameter_names()) in_order.push_back(p.at(parameter));
  const int outputs = model->outputs();
  std::string why;
  const amounts f = test::predict(*model, observed(doses, outputs), in_order, 1, &why);
  EXPECT_EQ(why, "") << name;
  std::vector<std::vector<double>> result(static_cast<std::size_t>(outputs));
  for (std::size_t k = 0; k < f.size(); ++k)
    result[k % static_cast<std::size_t>(outputs)].push_back(f[k]);
  return result;
}

void expect_near(const amounts& f, const amounts& expected, const std::string& what) {
  ASSERT_EQ(f.size(), expected.size()) << what;
  double largest = 0.0;
  for (const double x : expected) largest = std::max(largest, std::fabs(x));
  for (std::size_t k = 0; k < f.size(); ++k)
    EXPECT_NEAR(f[k], expected[k], tolerance * largest) << what << " at " << times[k];
}

struct system_of_equations {
  std::function<void(const amounts& x, amounts& slope)> slopes;
  amounts initial;
  std::function<amounts(const amounts& x)> outputs;
};

std::vector<std::vector<double>> integrated(const system_of_equations& system,
                                            const std::vector<dose>& doses = two_doses) {
  namespace odeint = boost::numeric::odeint;
  std::vector<std::vector<double>> result;
  amounts x = system.initial;
  double now = 0.0;
  std::size_t next = 0;
  const auto go_to = [&](double t) {
    if (t > now)
      odeint::integrate_adaptive(
          odeint::make_controlled<odeint::runge_kutta_fehlberg78<amounts>>(1e-13, 1e-13),
          [&](const amounts& at, amounts& slope, double) { system.slopes(at, slope); }, x, now, t,
          1e-3 * (t - now));
    now = t;
  };
  for (const double t : times) {
    for (; next < doses.size() && doses[next].time < t; ++next) {
      go_to(doses[next].time);
      x[static_cast<std::size_t>(doses[next].compartment - 1)] += doses[next].amount;
    }
    go_to(t);
    const amounts y = system.outputs(x);
    result.resize(y.size());
    for (std::size_t k = 0; k < y.size(); ++k) result[k].push_back(y[k]);
  }
  return result;
}

void expect_integrated(const std::string& name, const values& p, const system_of_equations& system,
                       const std::vector<dose>& doses = two_doses) {
  const auto f = predicted(name, p, doses);
  const auto expected = integrated(system, doses);
  ASSERT_EQ(f.size(), expected.size()) << name;
  for (std::size_t k = 0; k < f.size(); ++k)
    expect_near(f[k], expected[k], name + ", output " + std::to_string(k + 1));
}

TEST(ReadyStructures, SaturableElimination) {
  for (const int compartments : {1, 2})
    for (const bool oral : {false, true})
      for (const bool mixed : {false, true}) {
        values p = {{"Vm", 12.0}, {"Km", 0.8}};
        p[compartments == 1 ? "V" : "V1"] = 20.0;
        if (oral) p["ka"] = 1.3;
        if (mixed) p["CL"] = 0.7;
        if (compartments == 2) p.insert({{"Q", 3.0}, {"V2", 35.0}});
        const std::size_t c = oral ? 1 : 0;
        expect_integrated(std::string(compartments == 1 ? "one" : "two") + "-compartment " +
                              (mixed ? "mixed-elimination " : "michaelis-menten ") +
                              (oral ? "oral" : "intravenous"),
                          p,
                          {[=](const amounts& x, amounts& slope) {
                             const double concentration = x[c] / 20.0;
                             slope[c] = -12.0 * concentration / (0.8 + concentration);
                             if (mixed) slope[c] -= 0.7 * concentration;
                             if (oral) {
                               slope[0] = -1.3 * x[0];
                               slope[c] += 1.3 * x[0];
                             }
                             if (compartments == 1) return;
                             const double net = 3.0 * (concentration - x[c + 1] / 35.0);
                             slope[c] -= net;
                             slope[c + 1] = net;
                           },
                           amounts(c + static_cast<std::size_t>(compartments)),
                           [=](const amounts& x) { return amounts{x[c] / 20.0}; }});
      }
}

// What a unit dose leaves: sums of exponentials, by coefficients and rates.
using exponentials = std::vector<std::pair<double, double>>;

exponentials intravenous(double clearance, double v1, double q, double v2) {
  if (q == 0.0) return {{1.0 / v1, clearance / v1}};
  const double k = clearance / v1, k12 = q / v1, k21 = q / v2;
  const double sum = k + k12 + k21;
  const double root = std::sqrt(sum * sum - 4.0 * k * k21);
  const double fast = 0.5 * (sum + root), slow = 0.5 * (sum - root);
  return {{(fast - k21) / (fast - slow) / v1, fast}, {(k21 - slow) / (fast - slow) / v1, slow}};
}

exponentials absorbed(const exponentials& from, double ka) {
  exponentials all;
  double rest = 0.0;
  for (const auto& [coefficient, rate] : from) {
    all.emplace_back(coefficient * ka / (ka - rate), rate);
    rest -= all.back().first;
  }
  all.emplace_back(rest, ka);
  return all;
}

amounts convolved(const exponentials& response, const std::function<double(double)>& density) {
  boost::math::quadrature::tanh_sinh<double> rule;
  amounts f;
  for (const double t : times) {
    double sum = 0.0;
    for (const dose& d : two_doses) {
      const double since = t - d.time;
      if (since <= 0.0) continue;
      // Of two arguments: the rule of one asserts that no point rounds to an end.
      const auto product = [&](double s, double) {
        double left = 0.0;
        for (const auto& [coefficient, rate] : response)
          left += coefficient * std::exp(-rate * (since - s));
        return density(s) * left;
      };
      // In pieces, so that a narrow density is not overlooked.
      for (int k = 0; k < 4; ++k)
        sum += d.amount * rule.integrate(product, 0.25 * k * since, 0.25 * (k + 1) * since, 1e-12);
    }
    f.push_back(sum);
  }
  return f;
}

TEST(ReadyStructures, AbsorptionByADensityAddsItsDosesUp) {
  struct disposition {
    std::string compartments;
    values named;
    exponentials response;
  };
  for (const disposition& d :
       {disposition{
            "one-compartment", {{"CL", 4.0}, {"V", 20.0}}, intravenous(4.0, 20.0, 0.0, 1.0)},
        disposition{"two-compartment",
                    {{"CL", 4.0}, {"V1", 12.0}, {"Q", 3.0}, {"V2", 25.0}},
                    intravenous(4.0, 12.0, 3.0, 25.0)}}) {
    for (const double n : {0.4, 3.7, 25.0}) {
      values p = d.named;
      p.insert({{"n", n}, {"MTT", 1.5}, {"ka", 1.1}});
      const double rate = (n + 1.0) / 1.5;
      expect_near(predicted(d.compartments + " transit", p)[0],
                  convolved(absorbed(d.response, 1.1),
                            [&](double s) {
                              return rate * std::exp(n * std::log(rate * s) - rate * s -
                                                     std::lgamma(n + 1.0));
                            }),
                  d.compartments + " transit");
    }
    for (const double shape : {0.7, 1.0, 2.4}) {
      values p = d.named;
      p.insert({{"td", 2.0}, {"shape", shape}});
      expect_near(predicted(d.compartments + " weibull", p)[0],
                  convolved(d.response,
                            [&](double s) {
                              return shape / 2.0 * std::pow(s / 2.0, shape - 1.0) *
                                     std::exp(-std::pow(s / 2.0, shape));
                            }),
                  d.compartments + " weibull");
    }
  }
}

TEST(ReadyStructures, ZeroOrderBesideAndBeforeFirstOrderAbsorption) {
  const auto closed = [](const std::string& name, const std::vector<dose>& doses,
                         const amounts& p) {
    return test::predict(*make_structural_model({.name = name}), observed(doses, 1), p);
  };
  const double share = 0.3, duration = 4.0;
  const values p = {{"fraction", share}, {"D", duration}, {"ka", 0.9}, {"CL", 4.0}, {"V", 20.0}};
  for (const bool sequential : {false, true}) {
    std::vector<dose> steady, first_order;
    for (dose d : two_doses) {
      const double amount = d.amount;
      const double even = sequential ? share : 1.0 - share;
      d.amount = (1.0 - even) * amount;
      d.time += sequential ? duration : 0.0;
      first_order.push_back(d);
      d.time -= sequential ? duration : 0.0;
      d.amount = even * amount;
      d.input = dose_input::infusion;
      d.rate = d.amount / duration;
      steady.push_back(d);
    }
    amounts expected = closed("one-compartment intravenous", steady, {4.0, 20.0});
    const amounts rest = closed("one-compartment oral", first_order, {0.9, 4.0, 20.0});
    for (std::size_t k = 0; k < rest.size(); ++k) expected[k] += rest[k];
    const std::string name = std::string("one-compartment ") +
                             (sequential ? "sequential-absorption" : "parallel-absorption");
    expect_near(predicted(name, p)[0], expected, name);
  }
}

// Amounts in a depot and a central compartment, then the states of a response.
void expect_response(const std::string& name, const values& p, std::size_t states,
                     const std::function<void(double c, const double* x, double* slope)>& slopes,
                     const amounts& initial,
                     const std::function<double(double c, const double* x)>& output) {
  const double ka = 0.8, clearance = 3.0, volume = 25.0;
  values all = p;
  all.insert({{"ka", ka}, {"CL", clearance}, {"V", volume}});
  amounts begin(2 + states);
  std::copy(initial.begin(), initial.end(), begin.begin() + 2);
  expect_integrated("one-compartment oral + " + name, all,
                    {[=](const amounts& x, amounts& slope) {
                       slope[0] = -ka * x[0];
                       slope[1] = ka * x[0] - clearance / volume * x[1];
                       if (states > 0) slopes(x[1] / volume, &x[2], &slope[2]);
                     },
                     begin,
                     [=](const amounts& x) {
                       const double c = x[1] / volume;
                       return amounts{c, output(c, x.data() + 2)};
                     }});
}

TEST(ReadyStructures, Effects) {
  const auto emax = [](double c, double power) {
    return 10.0 - 8.0 * std::pow(c, power) / (std::pow(1.5, power) + std::pow(c, power));
  };
  const auto lag = [](double c, const double* x, double* slope) { slope[0] = 0.4 * (c - x[0]); };
  const values p = {{"E0", 10.0}, {"Emax", -8.0}, {"EC50", 1.5}};
  values with_power = p;
  with_power["gamma"] = 2.3;
  expect_response("emax", p, 0, {}, {}, [&](double c, const double*) { return emax(c, 1.0); });
  expect_response("sigmoid-emax", with_power, 0, {}, {},
                  [&](double c, const double*) { return emax(c, 2.3); });
  with_power["ke0"] = 0.4;
  values lagging = p;
  lagging["ke0"] = 0.4;
  expect_response("effect-compartment emax", lagging, 1, lag, {0.0},
                  [&](double, const double* x) { return emax(x[0], 1.0); });
  expect_response("effect-compartment sigmoid-emax", with_power, 1, lag, {0.0},
                  [&](double, const double* x) { return emax(x[0], 2.3); });
}

TEST(ReadyStructures, IndirectResponses) {
  for (const bool inhibits : {false, true})
    for (const bool production : {false, true}) {
      const double most = inhibits ? 0.9 : 3.0;
      values p = {{"R0", 60.0}, {"kout", 0.3}};
      p[inhibits ? "Imax" : "Smax"] = most;
      p[inhibits ? "IC50" : "SC50"] = 0.7;
      expect_response(
          std::string("indirect-response ") + (inhibits ? "inhibition-of-" : "stimulation-of-") +
              (production ? "production" : "loss"),
          p, 1,
          [=](double c, const double* x, double* slope) {
            const double factor = 1.0 + (inhibits ? -1.0 : 1.0) * most * c / (0.7 + c);
            slope[0] =
                0.3 * 60.0 * (production ? factor : 1.0) - 0.3 * (production ? 1.0 : factor) * x[0];
          },
          {60.0}, [](double, const double* x) { return x[0]; });
    }
}

TEST(ReadyStructures, CellsTumoursAndMetabolites) {
  expect_response(
      "myelosuppression", {{"circ0", 5.0}, {"MTTcells", 12.0}, {"power", 0.2}, {"slope", 0.15}}, 5,
      [](double c, const double* x, double* slope) {
        const double k = 4.0 / 12.0;
        slope[0] = k * x[0] * (1.0 - 0.15 * c) * std::pow(5.0 / x[4], 0.2) - k * x[0];
        for (int s = 1; s < 5; ++s) slope[s] = k * x[s - 1] - k * x[s];
      },
      {5.0, 5.0, 5.0, 5.0, 5.0}, [](double, const double* x) { return x[4]; });
  expect_response(
      "tumour-growth exponential-linear",
      {{"w0", 0.5}, {"lambda0", 0.3}, {"lambda1", 0.6}, {"k1", 0.5}, {"k2", 0.08}}, 4,
      [](double c, const double* x, double* slope) {
        const double w = x[0] + x[1] + x[2] + x[3];
        slope[0] = 0.3 * x[0] / std::pow(1.0 + std::pow(0.3 / 0.6 * w, 20.0), 1.0 / 20.0) -
                   0.08 * c * x[0];
        slope[1] = 0.08 * c * x[0] - 0.5 * x[1];
        slope[2] = 0.5 * x[1] - 0.5 * x[2];
        slope[3] = 0.5 * x[2] - 0.5 * x[3];
      },
      {0.5, 0.0, 0.0, 0.0}, [](double, const double* x) { return x[0] + x[1] + x[2] + x[3]; });
  // The last state is the time.
  expect_response(
      "tumour-growth inhibition", {{"y0", 70.0}, {"KL", 0.05}, {"KD", 0.06}, {"resistance", 0.04}},
      2,
      [](double c, const double* x, double* slope) {
        slope[0] = 0.05 * x[0] - 0.06 * std::exp(-0.04 * x[1]) * c * x[0];
        slope[1] = 1.0;
      },
      {70.0, 0.0}, [](double, const double* x) { return x[0]; });
  expect_response(
      "metabolite", {{"CLmet", 2.0}, {"Vmet", 15.0}}, 1,
      [](double c, const double* x, double* slope) { slope[0] = 3.0 * c - 2.0 / 15.0 * x[0]; },
      {0.0}, [](double, const double* x) { return x[0] / 15.0; });
  // Growth without treatment: the laws of which the closed forms are the solutions.
  const auto grows = [](const std::string& law, const values& p,
                        const std::function<double(double)>& slope) {
    expect_integrated("tumour-growth " + law, p,
                      {[=](const amounts& x, amounts& to) { to[0] = slope(x[0]); },
                       {8.0},
                       [](const amounts& x) { return x; }},
                      {});
  };
  grows("exponential", {{"y0", 8.0}, {"kg", 0.1}}, [](double y) { return 0.1 * y; });
  grows("logistic", {{"y0", 8.0}, {"kg", 0.2}, {"ymax", 90.0}},
        [](double y) { return 0.2 * y * (1.0 - y / 90.0); });
  grows("gompertz", {{"y0", 8.0}, {"alpha", 0.3}, {"beta", 0.08}},
        [](double y) { return y * (0.3 - 0.08 * std::log(y / 8.0)); });
}

TEST(ReadyStructures, TargetMediatedDisposition) {
  for (const int kind : {0, 1, 2})
    for (const bool qss : {false, true}) {
      const bool two = kind > 0, oral = kind == 2;
      const std::size_t c = oral ? 1 : 0, target = c + (two ? 2 : 1);
      values p = {{"CL", 1.5}, {two ? "V1" : "V", 4.0}, {"T0", 6.0}, {"kint", 0.3}, {"kdeg", 0.15}};
      if (two) p.insert({{"Q", 0.8}, {"V2", 6.0}});
      if (oral) p["ka"] = 0.5;
      if (qss)
        p["KSS"] = 0.9;
      else
        p.insert({{"kon", 0.6}, {"koff", 0.2}});
      const auto free_drug = [=](const amounts& x) {
        if (!qss) return x[c] / 4.0;
        // x + R x / (K + x) = total, by bisection: nothing of the quadratic formula.
        const double total = x[c] / 4.0;
        double low = 0.0, high = total;
        for (int k = 0; k < 200; ++k) {
          const double middle = 0.5 * (low + high);
          (middle + x[target] * middle / (0.9 + middle) < total ? low : high) = middle;
        }
        return 0.5 * (low + high);
      };
      expect_integrated(
          std::string(two ? "two" : "one") + "-compartment target-mediated" + (qss ? "-qss" : "") +
              (oral ? " oral" : " intravenous"),
          p,
          {[=](const amounts& x, amounts& slope) {
             const double free = free_drug(x);
             slope[c] = -1.5 * free;
             if (oral) slope[0] = -0.5 * x[0];
             if (oral) slope[c] += 0.5 * x[0];
             if (two) {
               slope[c + 1] = 0.8 * (free - x[c + 1] / 6.0);
               slope[c] -= slope[c + 1];
             }
             if (qss) {
               const double complex = x[target] * free / (0.9 + free);
               slope[c] -= 4.0 * 0.3 * complex;
               slope[target] = 0.15 * 6.0 - 0.15 * (x[target] - complex) - 0.3 * complex;
             } else {
               const double bound = 0.6 * free * x[target] - 0.2 * x[target + 1];
               slope[c] -= 4.0 * bound;
               slope[target] = 0.15 * (6.0 - x[target]) - bound;
               slope[target + 1] = bound - 0.3 * x[target + 1];
             }
           },
           [=] {
             amounts begin(target + (qss ? 1 : 2));
             begin[target] = 6.0;
             return begin;
           }(),
           [=](const amounts& x) {
             return amounts{free_drug(x), qss ? x[target] : x[target] + x[target + 1]};
           }});
    }
}

// Whatever stands before the plus and behind it: names that clash would be refused here. Parameters
// that two parts call the same would silently become one.
TEST(ReadyStructures, CombineInEveryPair) {
  for (const ready_structure& first : ready_structures())
    for (const ready_structure& second : ready_structures()) {
      const std::string name = first.name + " + " + second.name;
      if (first.kind != structure_kind::pharmacokinetics ||
          second.kind != structure_kind::response) {
        EXPECT_THROW(find_ready_structure(name), bad_input) << name;
        continue;
      }
      const ready_structure both = *find_ready_structure(name);
      std::set<std::string> parameters;
      structure_choice choice = {.name = equation_structure, .equations = both.equations};
      for (const ready_parameter& p : both.parameters) {
        EXPECT_TRUE(parameters.insert(p.name).second) << name << ": " << p.name;
        choice.equations.parameters.push_back(p.name);
      }
      const auto model = make_structural_model(choice);
      EXPECT_EQ(model->parameter_names().size(), both.parameters.size()) << name;
      EXPECT_TRUE(model->covariates().empty()) << name;
      EXPECT_EQ(both.compartments.size(), both.equations.derivatives.size()) << name;
      for (std::size_t k = 0; k < both.compartments.size(); ++k)
        EXPECT_EQ(both.compartments[k].name, both.equations.derivatives[k].name) << name;
      for (std::size_t k = 0; k < both.observed.size(); ++k)
        EXPECT_EQ(both.observed[k].name, both.equations.outputs[k].name) << name;
    }
}

// The linear ones have texts for combinations: the closed forms are their solutions.
TEST(ReadyStructures, LinearTextsAreTheClosedForms) {
  for (const ready_structure& s : ready_structures()) {
    const auto closed = make_structural_model({.name = s.name});
    if (!closed) continue;
    values p;
    amounts in_order;
    for (const std::string& name : closed->parameter_names()) {
      in_order.push_back(1.0 + 0.7 * static_cast<double>(p.size()));
      p[name] = in_order.back();
    }
    expect_near(predicted(s.name, p)[0], test::predict(*closed, observed(two_doses, 1), in_order),
                s.name);
  }
}

// What a model file can say of them.
class structure_files : public testing::Test {
 protected:
  structure_files() { write_data("ID,TIME,DV,AMT,WT\n1,0,.,100,70\n1,1,5,.,70\n1,3,4,.,70\n"); }
  void write_data(const std::string& text) { std::ofstream(name_ + ".csv") << text; }
  model_specification read(const std::string& model, const std::string& parameters,
                           const std::string& omega = "") {
    std::ofstream(path_) << "data = { file = \"" << name_ << ".csv\" }\n[model]\n"
                         << model << "\n[parameters]\n"
                         << parameters << "\n[omega]\n"
                         << (omega.empty() ? "CL = 0.1" : omega)
                         << "\n[residual]\nadditive = 1.0\n";
    warnings_.clear();
    return read_model_file(path_, warnings_);
  }
  finding refusal(const std::string& model, const std::string& parameters) {
    try {
      const model_specification file = read(model, parameters);
      population_model(file, read_dataset(file.data, warnings_));
    } catch (const bad_input& error) {
      return error.what_found();
    }
    return {};
  }

  std::string name_ = testing::UnitTest::GetInstance()->current_test_info()->name();
  std::string path_ = name_ + ".toml";
  findings warnings_;
};

const std::string pharmacokinetics =
    "ka = { start = 1, distribution = \"none\" }\nCL = { start = 1 }\n"
    "V = { start = 1, distribution = \"none\" }\n";
const std::string effect =
    "E0 = { start = 1, distribution = \"none\" }\nEmax = { start = 1, distribution = \"none\" }\n"
    "EC50 = { start = 1, distribution = \"none\" }\n";

TEST_F(structure_files, ChooseOutputsAndTakeParametersFromColumns) {
  const model_specification file =
      read("structure = \"one-compartment oral + emax\"\noutputs = [\"effect\"]\nlag_time = true",
           pharmacokinetics + effect + "Tlag = { start = 1, distribution = \"none\" }");
  EXPECT_EQ(file.structure.equations.outputs.size(), 1U);
  EXPECT_EQ(file.parameters.size(), 7U);

  // Individual parameters of an earlier fit, or concentrations, as columns of the data.
  write_data("ID,TIME,DV,AMT,ka,CL,V,C\n1,0,.,100,1,2,3,0\n1,1,5,.,1,2,3,7\n");
  EXPECT_EQ(read("structure = \"one-compartment oral + emax\"\noutputs = [\"effect\"]",
                 "E0 = { start = 1 }\nEmax = { start = 1, distribution = \"none\" }\n"
                 "EC50 = { start = 1, distribution = \"none\" }",
                 "E0 = 0.1")
                .data.covariates,
            (std::vector<std::string>{"V", "CL", "ka"}));
  ASSERT_EQ(warnings_.size(), 3U);
  EXPECT_EQ(warnings_.front().code, "W-MODEL-COLUMN-PARAMETER");
  EXPECT_EQ(read("structure = \"emax\"",
                 "E0 = { start = 1 }\nEmax = { start = 1, distribution = \"none\" }\n"
                 "EC50 = { start = 1, distribution = \"none\" }",
                 "E0 = 0.1")
                .data.covariates,
            std::vector<std::string>{"C"});
}

TEST_F(structure_files, AreRefusedWhereTheyMeanNothing) {
  const auto expect = [&](const std::string& code, const std::string& part,
                          const std::string& model, const std::string& parameters) {
    const finding found = refusal(model, parameters);
    EXPECT_EQ(found.code, code) << model;
    EXPECT_THAT(found.message + " " + found.remedy, HasSubstr(part));
  };
  expect("E-MODEL-COMBINATION", "behind it", "structure = \"emax + one-compartment oral\"", effect);
  expect("E-MODEL-WORD", "mean \"sigmoid-emax\"?",
         "structure = \"one-compartment oral + sigmoid-emx\"", pharmacokinetics);
  expect("E-MODEL-WORD", "--list", "structure = \"something else\"", pharmacokinetics);
  expect("E-MODEL-WORD", "mean \"effect\"?",
         "structure = \"one-compartment oral + emax\"\noutputs = [\"effct\"]",
         pharmacokinetics + effect);
  expect("E-MODEL-MISSING", "parameter EC50", "structure = \"one-compartment oral + emax\"",
         pharmacokinetics + "E0 = { start = 1 }\nEmax = { start = 1 }");
  expect("E-MODEL-SYMBOL", "C is no parameter", "structure = \"emax\"", effect);
  expect("E-MODEL-ENDPOINT", "2 outputs", "structure = \"one-compartment oral + emax\"",
         pharmacokinetics + effect);
  const std::string transit =
      "n = { start = 2, distribution = \"none\" }\nMTT = { start = 1, distribution = \"none\" }\n" +
      pharmacokinetics;
  const std::string structure = "structure = \"one-compartment transit\"";
  expect("E-MODEL-KEY", "--equations", structure + "\nlag_time = true", transit);
  // What no sum over doses can take.
  EXPECT_EQ(refusal(structure, transit).code, "");
  write_data("ID,TIME,DV,AMT,SS,II\n1,0,.,100,1,12\n1,1,5,.,.,.\n");
  expect("E-DATA-DOSE", "no steady state", structure, transit);
  write_data("ID,TIME,DV,AMT,RATE\n1,0,.,100,10\n1,1,5,.,.\n");
  expect("E-DATA-DOSE", "absorption of its own", structure, transit);
  write_data("ID,TIME,DV,AMT,ADDL,II\n1,0,.,100,64,1\n1,90,5,.,.,.\n");
  expect("E-DATA-DOSE", "more than 64", structure, transit);
}

// Data of the start values, and fits that find these again: the others are in bench/structures.py.
TEST_F(structure_files, FindTheTruthAgain) {
  const auto expect_found = [&](const std::string& model, const std::string& parameters,
                                const std::string& omega, const std::string& data) {
    SCOPED_TRACE(model);
    write_data(data);
    std::ofstream(path_) << "data = { file = \"" << name_ << ".csv\" }\n[model]\nstructure = \""
                         << model << "\"\n[parameters]\n"
                         << parameters << "[omega]\n"
                         << omega << "[residual]\nerror = \"proportional\"\nproportional = 0.1\n"
                         << "[estimation]\nnpde_samples = 0\n";
    model_specification file = read_model_file(path_, warnings_);
    const dataset design = read_dataset(file.data, warnings_);
    const population_model made = test::simulated(population_model(file, design), 12, 5);
    const fit_result result = test::fit(made);
    EXPECT_TRUE(result.converged) << result.reason;
    const standard_errors& errors = result.errors;
    ASSERT_FALSE(errors.chosen().empty());
    int compared = 0;
    for (std::size_t k = 0; k < errors.names.size(); ++k) {
      if (errors.theta[k] < 0) continue;
      const fixed_effect& t = made.thetas()[static_cast<std::size_t>(errors.theta[k])];
      const double se = errors.chosen()[k].se;
      ASSERT_GT(se, 0.0) << t.name;
      EXPECT_NEAR(t.natural(result.theta(errors.theta[k])), t.natural(t.start), 3.3 * se) << t.name;
      ++compared;
    }
    EXPECT_EQ(compared, static_cast<int>(made.thetas().size()));
  };
  std::string bolus = "ID,TIME,DV,AMT\n";
  for (const auto& [id, amount] : {std::pair{"1", "60"}, {"2", "300"}}) {
    bolus += id + std::string(",0,.,") + amount + "\n";
    for (const char* time : {"0.5", "1", "2", "4", "6", "8", "11"})
      bolus += id + std::string(",") + time + ",1,.\n";
  }
  expect_found("one-compartment michaelis-menten intravenous",
               "Vm = { start = 10 }\nKm = { start = 1, distribution = \"none\" }\n"
               "V = { start = 20 }\n",
               "Vm = 0.05\nV = 0.05\n", bolus);
  std::string sizes = "ID,TIME,DV\n";
  for (const char* id : {"1", "2"})
    for (const char* time : {"0", "3", "6", "10", "15", "25", "40"})
      sizes += id + std::string(",") + time + ",1\n";
  expect_found("tumour-growth gompertz",
               "y0 = { start = 8 }\nalpha = { start = 0.3 }\n"
               "beta = { start = 0.1, distribution = \"none\" }\n",
               "y0 = 0.05\nalpha = 0.05\n", sizes);
}

// Sums see a reset, and doses into other compartments do not count.
TEST(ReadyStructures, SumsEndAtResets) {
  const values p = {{"n", 3.0}, {"MTT", 1.5}, {"ka", 1.1}, {"CL", 4.0}, {"V", 20.0}};
  const ready_structure s = *find_ready_structure("one-compartment transit");
  structure_choice choice = {.name = equation_structure, .equations = s.equations};
  for (const auto& [name, value] : p) choice.equations.parameters.push_back(name);
  choice.equations.summed_doses = 2;
  choice.equations.solver = {.relative = 1e-11, .absolute = 1e-14};
  const auto model = make_structural_model(choice);
  amounts in_order;
  for (const std::string& name : model->parameter_names()) in_order.push_back(p.at(name));
  const auto later = [&](bool history) {
    subject who;
    who.segments.resize(1);
    if (history) {
      append(who, dose{.time = 0.0, .amount = 500.0});
      who.timeline.push_back({event_kind::reset, 0, 1.0});
    }
    append(who, dose{.time = 2.0, .amount = 70.0});
    for (const double t : {2.5, 4.0, 8.0}) append(who, observation{.time = t});
    return test::predict(*model, who, in_order);
  };
  const amounts alone = later(false);
  const amounts after = later(true);
  for (std::size_t k = 0; k < alone.size(); ++k) EXPECT_NEAR(after[k], alone[k], 1e-10);

  subject who;
  who.segments.resize(1);
  append(who, dose{.time = 0.0, .amount = 60.0, .compartment = 2});
  append(who, observation{.time = 5.0});
  EXPECT_NEAR(test::predict(*model, who, in_order)[0], 3.0 * std::exp(-1.0), 1e-9);
}

}  // namespace
}  // namespace varda
