// SPDX-License-Identifier: Apache-2.0
//
// Many individuals at once: bits that depend on nothing but the individual, and the loops that all
// of it is made of.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <numeric>
#include <random>

#include "varda/model/equations/equation_model.h"
#include "varda/model/equations/formula_model.h"
#include "varda/model/lanes/graph.h"
#include "varda/model/lanes/kernel.h"

namespace varda {
namespace {

using testing::HasSubstr;

constexpr double infinity = std::numeric_limits<double>::infinity();

// Parameters of n individuals, k of individual j at [k * n + j].
std::vector<double> spread(const std::vector<double>& typical, std::size_t n, double deviation) {
  std::mt19937_64 engine(7);
  std::normal_distribution<double> normal;
  std::vector<double> p;
  for (const double value : typical)
    for (std::size_t j = 0; j < n; ++j) p.push_back(value * std::exp(deviation * normal(engine)));
  return p;
}

struct outcome {
  std::vector<double> f;  // observation by observation
  std::string why;
};

outcome predict(const equation_model& model, const subject& who, const std::vector<double>& p,
                structural_model::workspace& scratch) {
  const std::size_t parameters = model.parameter_names().size();
  const std::size_t n = p.size() / parameters;
  outcome made;
  made.f.assign(who.observations.size() * n, -1.0);
  model.predict(who, {p.data(), parameters, 1, n, n}, {made.f.data(), who.observations.size(), n},
                scratch);
  made.why = model.last_failure(scratch);
  return made;
}

outcome predict(const equation_model& model, const subject& who, const std::vector<double>& p) {
  const auto scratch = model.make_workspace();
  return predict(model, who, p, *scratch);
}

// The individuals in another order.
std::vector<double> picked(const std::vector<double>& values, std::size_t n,
                           const std::vector<std::size_t>& which) {
  std::vector<double> chosen;
  for (std::size_t row = 0; row < values.size() / n; ++row)
    for (const std::size_t j : which) chosen.push_back(values[row * n + j]);
  return chosen;
}

void expect_same_bits(const std::vector<double>& a, const std::vector<double>& b) {
  ASSERT_EQ(a.size(), b.size());
  std::size_t different = 0;
  for (std::size_t i = 0; i < a.size(); ++i)
    different += std::bit_cast<std::uint64_t>(a[i]) == std::bit_cast<std::uint64_t>(b[i]) ? 0 : 1;
  EXPECT_EQ(different, 0U) << "of " << a.size();
}

subject observed(const std::vector<dose>& doses, const std::vector<double>& times) {
  subject who;
  who.segments.resize(1);
  for (const dose& d : doses) append(who, d);
  for (const double t : times) append(who, observation{.time = t});
  return who;
}

struct named_case {
  std::string name;
  equation_text text;
  subject who;
  std::vector<double> typical;
};

// A power, a lag and a bioavailability per individual, infusions, a steady state, an individual
// that turns out stiff and one that fails: everything that can set lanes apart.
std::vector<named_case> cases() {
  std::vector<named_case> all;
  equation_text oral;
  oral.parameters = {"ka", "CL", "V"};
  oral.derivatives = {{"depot", "-ka * depot"}, {"central", "ka * depot - CL / V * central"}};
  oral.outputs = {{"c", "central / V"}};
  const dose first = {.time = 0.0, .amount = 100.0};
  const dose infusion = {
      .time = 6.0, .amount = 60.0, .compartment = 2, .input = dose_input::infusion, .rate = 20.0};
  const std::vector<double> times = {0.0, 0.5, 2.0, 6.0, 7.0, 9.5, 24.0, 48.0};
  all.push_back({"exact", oral, observed({first}, times), {1.5, 3.0, 30.0}});
  all.push_back({"exact, infusion", oral, observed({first, infusion}, times), {1.5, 3.0, 30.0}});
  equation_text solved = oral;
  solved.solver = {.method = solver_method::non_stiff, .max_steps = 2000};
  all.push_back({"explicit", solved, observed({first}, times), {1.5, 3.0, 30.0}});

  equation_text lagging;
  lagging.solver.max_steps = 2000;
  lagging.parameters = {"ka", "VM", "KM", "V", "tlag", "F"};
  lagging.derivatives = {{"depot", "-ka * depot"},
                         {"central", "ka * depot - VM * central^1.2 / (KM * V + central)"}};
  lagging.lag = {{"depot", "tlag"}};
  lagging.bioavailability = {{"depot", "F"}, {"central", "F"}};
  lagging.outputs = {{"c", "central / V"}};
  dose steady = {.time = 0.0, .amount = 50.0, .steady_state = true, .interval = 8.0};
  const std::vector<double> saturable = {1.2, 12.0, 1.0, 10.0, 0.7, 0.8};
  all.push_back({"lag", lagging, observed({first, infusion}, times), saturable});
  all.push_back({"steady state", lagging, observed({steady, infusion}, times), saturable});
  lagging.solver.method = solver_method::stiff;
  all.push_back({"Rosenbrock", lagging, observed({first, infusion}, times), saturable});

  equation_text changing;  // stiff where r is large
  changing.parameters = {"r", "k"};
  changing.derivatives = {{"x", "-r * (x - cos(t))"}, {"y", "x^2 - k * y"}};
  changing.initial = {{"x", "1"}};
  changing.outputs = {{"y", "y"}};
  changing.solver.max_steps = 2000;
  all.push_back({"automatic", changing, observed({{.amount = 1.0}}, times), {300.0, 1.0}});
  return all;
}

TEST(Lanes, GiveEveryIndividualItsOwnBits) {
  constexpr std::size_t n = 150;
  for (const named_case& c : cases()) {
    SCOPED_TRACE(c.name);
    const equation_model model(c.text);
    std::vector<double> p = spread(c.typical, n, 0.5);
    p[17] = std::numeric_limits<double>::quiet_NaN();
    p[23] = 1e300;
    const auto scratch = model.make_workspace();
    const std::vector<double> f = predict(model, c.who, p, *scratch).f;
    const std::size_t observations = c.who.observations.size();
    for (std::size_t i = 0; i < observations; ++i) {
      EXPECT_TRUE(std::isnan(f[i * n + 17]));
      for (const std::size_t j : {0U, 16U, 18U, 149U}) EXPECT_TRUE(std::isfinite(f[i * n + j]));
    }
    // Storage that has seen another subject.
    predict(model, observed({{.time = 1.0, .amount = 3.0}}, {2.0}), p, *scratch);
    expect_same_bits(predict(model, c.who, p, *scratch).f, f);

    for (const char* name : {"sse2", "avx2"})
      for (const std::size_t block : {8U, 64U, 256U}) {
        SCOPED_TRACE(std::string(name) + " " + std::to_string(block));
        const lane_kernel* kernel = lane_kernel_named(name);
        if (kernel == nullptr) continue;
        const auto own = model.make_workspace(*kernel, block);
        expect_same_bits(predict(model, c.who, p, *own).f, f);
      }

    std::vector<std::size_t> order(n);
    std::iota(order.begin(), order.end(), 0U);
    std::shuffle(order.begin(), order.end(), std::mt19937_64(3));
    expect_same_bits(predict(model, c.who, picked(p, n, order)).f, picked(f, n, order));
    for (const std::size_t j : {0U, 23U, 77U})
      expect_same_bits(predict(model, c.who, picked(p, n, {j})).f, picked(f, n, {j}));
  }
}

TEST(Lanes, FormulasTakeManyIndividuals) {
  equation_text text;
  text.parameters = {"ka", "k"};
  text.outputs = {{"c", "tad > 1 ? dose * exp(-k * tad) : ka * tad"}};
  const formula_model model(text);
  subject who = observed({{.time = 0.0, .amount = 5.0}}, {0.5, 3.0});
  append(who, dose{.time = 4.0, .amount = 7.0});
  append(who, observation{.time = 6.0});
  constexpr std::size_t n = 300;
  const std::vector<double> p = spread({2.0, 0.3}, n, 0.4);
  std::vector<double> f(3 * n);
  model.predict(who, {p.data(), 2, 1, n, n}, {f.data(), 3, n}, *model.make_workspace());
  for (std::size_t j = 0; j < n; ++j) {
    EXPECT_DOUBLE_EQ(f[j], 0.5 * p[j]);
    EXPECT_DOUBLE_EQ(f[n + j], 5.0 * std::exp(-p[n + j] * 3.0));
    EXPECT_DOUBLE_EQ(f[2 * n + j], 7.0 * std::exp(-p[n + j] * 2.0));
  }
}

// The explicit method would need some hundred thousand steps, and gives up.
TEST(Lanes, NoticeWhenASystemIsStiff) {
  equation_text text;
  text.parameters = {"mu"};
  text.derivatives = {{"x", "y"}, {"y", "mu * ((1 - x^2) * y - x)"}};  // van der Pol's
  text.initial = {{"x", "2"}, {"y", "-2 / 3"}};
  text.outputs = {{"x", "x"}};
  text.solver = {.relative = 1e-8, .absolute = 1e-10, .max_steps = 3000};
  const subject who = observed({}, {0.3, 0.6, 1.5});
  const outcome changed = predict(equation_model(text), who, {1e5, 3.0});
  EXPECT_EQ(changed.why, "");
  text.solver.method = solver_method::stiff;
  const outcome stiff = predict(equation_model(text), who, {1e5, 3.0});
  text.solver.method = solver_method::non_stiff;
  const outcome kept = predict(equation_model(text), who, {1e5, 3.0});
  EXPECT_THAT(kept.why, HasSubstr("more than 3000 steps"));
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_NEAR(changed.f[2 * i], stiff.f[2 * i], 1e-6);
    EXPECT_TRUE(std::isnan(kept.f[2 * i]));
    EXPECT_EQ(changed.f[2 * i + 1], kept.f[2 * i + 1]);  // mu = 3 is not stiff
  }
}

// Up to four states with inputs of doses and of their own, rates over five decades, against the
// solver.
TEST(Lanes, SolveLinearSystemsExactly) {
  for (const std::size_t states : {1U, 2U, 3U, 4U})
    for (const bool input : {false, true}) {
      SCOPED_TRACE(std::to_string(states) + (input ? ", input" : ""));
      equation_text text;
      text.parameters = {"k", "m"};
      text.derivatives = {{"a", input ? "3 - k * a" : "-k * a"},
                          {"b", "k * a - (m + 0.2) * b"},
                          {"c", input ? "m * b - 30 * c + 0.1 * k" : "m * b - 30 * c"},
                          {"d", "30 * c - 1e-3 * d + 0.1 * a"}};
      text.derivatives.resize(states);
      text.outputs = {{"f", std::string(1, "abcd"[states - 1]) + (states == 1 ? "+ 0 * m" : "")}};
      const subject who = observed({{.amount = 10.0},
                                    {.time = 0.5,
                                     .amount = 10.0,
                                     .input = input ? dose_input::infusion : dose_input::bolus,
                                     .rate = 5.0}},
                                   {0.6, 1.0, 1.001, 20.0});
      const std::vector<double> p = spread({0.7, 0.1}, 40, 1.5);
      const outcome exact = predict(equation_model(text), who, p);
      text.solver = {.method = solver_method::non_stiff, .relative = 1e-11, .absolute = 1e-15};
      const outcome solved = predict(equation_model(text), who, p);
      for (std::size_t i = 0; i < exact.f.size(); ++i)
        EXPECT_NEAR(exact.f[i], solved.f[i], 2e-10 * std::fabs(solved.f[i]) + 1e-14) << i;
    }
}

// All operations on awkward numbers: the same bits from all kernels, and what the C++ library says.
TEST(Kernels, AgreeToTheLastBit) {
  std::vector<double> numbers = {0.0,
                                 -0.0,
                                 1.0,
                                 -1.0,
                                 0.5,
                                 -0.5,
                                 1.5,
                                 -2.5,
                                 1e-9,
                                 3e-310,
                                 1e300,
                                 -1e300,
                                 0x1p52,
                                 0x1p53 + 2.0,
                                 700.0,
                                 -740.0,
                                 infinity,
                                 -infinity,
                                 std::numeric_limits<double>::quiet_NaN()};
  for (double x = -40.0; x < 40.0; x += 0.37) numbers.push_back(x);
  // All pairs, in whole vectors.
  std::vector<double> a, b, c;
  for (const double x : numbers)
    for (const double y : numbers) {
      a.push_back(x);
      b.push_back(y);
      c.push_back(x == y ? 0.0 : y);
    }
  for (std::vector<double>* v : {&a, &b, &c}) v->resize(whole_lanes(v->size()), 1.0);

  using function = double (*)(double);
  const std::vector<std::pair<lane_code, function>> known = {
      {lane_code::exponential, std::exp},  {lane_code::expm1, std::expm1},
      {lane_code::logarithm, std::log},    {lane_code::log1p, std::log1p},
      {lane_code::log2, std::log2},        {lane_code::log10, std::log10},
      {lane_code::square_root, std::sqrt}, {lane_code::absolute, std::fabs},
      {lane_code::floor, std::floor},      {lane_code::ceiling, std::ceil},
      {lane_code::sine, std::sin},         {lane_code::cosine, std::cos},
      {lane_code::tangent, std::tan},      {lane_code::arctangent, std::atan},
      {lane_code::tanh, std::tanh},        {lane_code::error_function, std::erf}};
  const lane_kernel& sse2 = *lane_kernel_named("sse2");
  const lane_kernel* avx2 = lane_kernel_named("avx2");
  for (int code = 0; code <= static_cast<int>(lane_code::error_function); ++code) {
    SCOPED_TRACE("operation " + std::to_string(code));
    const lane_operation operation = {static_cast<lane_code>(code), 3, 0, 1, 2};
    const auto values = [&](const lane_kernel& kernel) {
      std::vector<double> out(a.size());
      double* registers[] = {a.data(), b.data(), c.data(), out.data()};
      kernel.run(&operation, 1, registers, a.size());
      return out;
    };
    const std::vector<double> out = values(sse2);
    if (avx2 != nullptr) expect_same_bits(values(*avx2), out);
    const auto expected = [&](std::size_t i) {
      for (const auto& [known_code, f] : known)
        if (known_code == operation.code) return f(a[i]);
      return operation.code == lane_code::power ? std::pow(a[i], b[i]) : out[i];
    };
    for (std::size_t i = 0; i < a.size(); ++i) {
      if (std::fabs(a[i]) > 1e15 && operation.code >= lane_code::sine &&
          operation.code <= lane_code::tangent)
        continue;  // beyond any use
      const double wanted = expected(i);
      if (std::isnan(wanted))
        EXPECT_TRUE(std::isnan(out[i])) << a[i] << " " << b[i];
      else if (std::isinf(wanted))
        EXPECT_EQ(out[i], wanted) << a[i] << " " << b[i];
      else
        EXPECT_NEAR(out[i], wanted, 3e-15 * std::fabs(wanted) + 1e-320) << a[i] << " " << b[i];
    }
  }
}

// Every rule of differentiation against central differences.
TEST(Kernels, DifferentiateWhatTheyEvaluate) {
  equation_text text;
  text.parameters = {"p"};
  const std::vector<std::string> formulas = {"x * y / (p + x)",
                                             "x^3 - x^p + p^x",
                                             "(x + 1)^(y / 2)",
                                             "exp(-x) * log(x + y)",
                                             "expm1(x / 3) + log1p(x * y)",
                                             "log2(x) - log10(y)",
                                             "sqrt(x + t) * abs(y - 2)",
                                             "sin(x) * cos(y) + tan(x / 4)",
                                             "atan(x * y) + tanh(x - y) + erf(x / 2)",
                                             "x > y ? x * y : x - y",
                                             "min(x, y, x * y) + max(x, 2 * y)",
                                             "mod(x, 0.7) + floor(y) + -x",
                                             "(x < 1) * x + (x < 1 && y > 0 || t > 9) * y",
                                             "pow(x - y, 2) + tad * x"};
  for (const std::string& formula : formulas) {
    SCOPED_TRACE(formula);
    text.derivatives = {{"x", formula}, {"y", "p * x"}};
    text.outputs = {{"o", "x"}};
    const formula_program program(text);
    bound_section section(program.jacobian(), lane_quantum);
    const std::size_t results = program.jacobian().code.results;
    std::vector<double> out(results * lane_quantum);
    section.write_to(out.data(), lane_quantum);
    const auto evaluate = [&](double x, double y, double t) {
      // The constants, from p = 1.3 and a dose at time 0.1.
      bound_section constants(program.constant_section(), lane_quantum);
      std::vector<double> values(program.constants() * lane_quantum);
      constants.write_to(values.data(), lane_quantum);
      std::vector<double> leaves[4];
      const double given[4] = {1.3, 0.1, 1.0, 5.0};
      for (int k = 0; k < 4; ++k) leaves[k].assign(lane_quantum, given[k]);
      constants.read_from([&](const leaf& l) -> const double* {
        if (l.kind == leaf_kind::parameter) return leaves[0].data();
        if (l.kind == leaf_kind::dose_time) return leaves[1].data();
        return leaves[l.kind == leaf_kind::dosed ? 2 : 3].data();
      });
      constants.run(best_lane_kernel(), lane_quantum);
      std::vector<double> states[3];
      const double at[3] = {x, y, t};
      for (int k = 0; k < 3; ++k) states[k].assign(lane_quantum, at[k]);
      section.read_from([&](const leaf& l) -> const double* {
        if (l.kind == leaf_kind::constant) return values.data() + l.index * lane_quantum;
        return states[l.kind == leaf_kind::time ? 2 : l.index].data();
      });
      section.run(best_lane_kernel(), lane_quantum);
      std::vector<double> first;
      for (std::size_t k = 0; k < results; ++k) first.push_back(out[k * lane_quantum]);
      return first;
    };
    const double x = 0.83, y = 1.27, t = 2.2;
    const std::vector<double> exact = evaluate(x, y, t);
    const auto slope = [&](int by) {
      const double h = 1e-5;
      const auto moved = [&](double d) {
        return evaluate(x + (by == 0 ? d : 0.0), y + (by == 1 ? d : 0.0),
                        t + (by == 2 ? d : 0.0))[0];
      };
      return (moved(h) - moved(-h)) / (2.0 * h);
    };
    double jacobian[3] = {};
    const auto& entries = program.jacobian_entries();
    for (std::size_t e = 0; e < entries.size(); ++e)
      if (entries[e].first == 0) jacobian[entries[e].second] = exact[2 + e];
    for (std::size_t k = 0; k < program.time_slopes().size(); ++k)
      if (program.time_slopes()[k] == 0) jacobian[2] = exact[2 + entries.size() + k];
    for (int by = 0; by < 3; ++by) EXPECT_NEAR(jacobian[by], slope(by), 1e-8) << by;
  }
}

}  // namespace
}  // namespace varda
