// SPDX-License-Identifier: Apache-2.0
//
// Rodas5P: G. Steinebach, Construction of Rosenbrock-Wanner method Rodas5P and numerical benchmarks
// within the Julia Differential Equations package, BIT Numer. Math. 63 (2023); with stage sums over
// g / h as in Hairer and Wanner, Solving Ordinary Differential Equations II, equation (IV.7.25).
#include <algorithm>
#include <array>
#include <limits>
#include <vector>

#include "varda/model/equations/lane_integrator.h"

namespace varda {

namespace {

constexpr std::size_t stages = 8;
constexpr double gamma = 0.21193756319429014;
constexpr double first_weight = 0.21193756319429014;  // of the time's own slope

struct stage_sums {
  double fraction = 0.0;     // of the step
  double time_weight = 0.0;  // of the time's own slope
  std::array<double, 5> states{};
  std::array<double, 7> slopes{};
};

constexpr std::array<stage_sums, stages - 1> later_stages = {{
    {0.6358126895828704, -0.42387512638858027, {3.0}, {-14.155112264123755}},
    {0.4095798393397535,
     -0.3384627126235924,
     {2.849394379747939, 0.45842242204463923},
     {-17.97296035885952, -2.859693295451294}},
    {0.9769306725060716,
     1.8046452872882734,
     {-6.954028509809101, 2.489845061869568, -10.358996098473584},
     {147.12150275711716, -1.41221402718213, 71.68940251302358}},
    {0.4288403609558664,
     2.325825639765069,
     {2.8029986275628964, 0.5072464736228206, -0.3988312541770524, -0.04721187230404641},
     {165.43517024871676, -0.4592823456491126, 42.90938336958603, -5.961986721573306}},
    {1,
     0,
     {-7.502846399306121, 2.561846144803919, -11.627539656261098, -0.18268767659942256,
      0.030198172008377946},
     {24.854864614690072, -3.0009227002832186, 47.4931110020768, 5.5814197821558125,
      -0.6610691825249471}},
    {1,
     0,
     {},
     {30.91273214028599, -3.1208243349937974, 77.79954646070892, 34.28646028294783,
      -19.097331116725623, -28.087943162872662}},
    {1,
     0,
     {},
     {37.80277123390563, -3.2571969029072276, 112.26918849496327, 66.9347231244047,
      -40.06618937091002, -54.66780262877968, -9.48861652309627}},
}};
constexpr std::array<std::size_t, stages> in_order = {0, 1, 2, 3, 4, 5, 6, 7};
constexpr double whole = 1.0;

// The step from a standstill, as a share of the time in which the state changes by its own size.
constexpr double first_share = 0.01;

// Places among the blocks of slopes after those of the stages.
constexpr std::size_t at_start = 8;
constexpr std::size_t at_stage = 9;

// Writes out the factorisation of W = I / (gamma h) - J on its pattern, and the solution with a
// right-hand side in place. Rows and columns change places together, so that few zeros are filled
// (Markowitz's count); there are no others to choose a pivot from: where one is too small the step
// fails, and for a shorter one the diagonal dominates.
class factorisation {
 public:
  factorisation(std::size_t size, const std::vector<std::pair<std::size_t, std::size_t>>& entries)
      : size_(size), place_(size * size, none), left_(size, true) {
    // Registers: the entries, then 1 / (gamma h), 1 and 0.
    const auto shift = static_cast<std::uint32_t>(entries.size());
    one = shift + 1;
    zero = shift + 2;
    registers = shift + 3;
    for (std::uint32_t e = 0; e < entries.size(); ++e) {
      const auto [i, j] = entries[e];
      at(i, j) = registers++;
      if (i == j)
        factor.push_back({lane_code::subtract, at(i, j), shift, e, e});
      else
        factor.push_back({lane_code::negate, at(i, j), e, e, e});
    }
    for (std::size_t i = 0; i < size; ++i)
      if (at(i, i) == none) {
        at(i, i) = registers++;
        factor.push_back({lane_code::copy, at(i, i), shift, shift, shift});
      }
    std::vector<std::size_t> order;
    for (std::size_t k = 0; k < size; ++k) {
      order.push_back(cheapest());
      eliminate(order.back());
    }
    write_solution(order);
  }

  std::vector<lane_operation> factor;
  std::vector<lane_operation> solve;
  std::uint32_t one = 0;
  std::uint32_t zero = 0;
  std::uint32_t registers = 0;  // the right-hand side comes after them

 private:
  static constexpr std::uint32_t none = std::numeric_limits<std::uint32_t>::max();

  std::uint32_t& at(std::size_t i, std::size_t j) { return place_[i * size_ + j]; }

  std::size_t cheapest() {
    std::size_t best = size_;
    std::size_t least = 0;
    for (std::size_t p = 0; p < size_; ++p) {
      if (!left_[p]) continue;
      std::size_t row = 0;
      std::size_t column = 0;
      for (std::size_t k = 0; k < size_; ++k) {
        if (k == p || !left_[k]) continue;
        row += at(p, k) != none ? 1 : 0;
        column += at(k, p) != none ? 1 : 0;
      }
      if (best < size_ && row * column >= least) continue;
      best = p;
      least = row * column;
    }
    return best;
  }

  void eliminate(std::size_t p) {
    left_[p] = false;
    inverse_.resize(size_, none);
    inverse_[p] = registers++;
    factor.push_back({lane_code::divide, inverse_[p], one, at(p, p), one});
    for (std::size_t i = 0; i < size_; ++i) {
      if (!left_[i] || at(i, p) == none) continue;
      factor.push_back({lane_code::multiply, at(i, p), at(i, p), inverse_[p], at(i, p)});
      for (std::size_t j = 0; j < size_; ++j) {
        if (!left_[j] || at(p, j) == none) continue;
        const std::uint32_t before = at(i, j) == none ? zero : at(i, j);
        if (at(i, j) == none) at(i, j) = registers++;
        factor.push_back({lane_code::subtract_multiply, at(i, j), at(i, p), at(p, j), before});
      }
    }
  }

  void write_solution(const std::vector<std::size_t>& order) {
    const auto right = [&](std::size_t i) { return registers + static_cast<std::uint32_t>(i); };
    const auto subtract = [&](std::size_t from, std::size_t of) {
      if (at(from, of) == none) return;
      solve.push_back(
          {lane_code::subtract_multiply, right(from), at(from, of), right(of), right(from)});
    };
    for (std::size_t k = 0; k < size_; ++k)
      for (std::size_t later = k + 1; later < size_; ++later) subtract(order[later], order[k]);
    for (std::size_t k = size_; k-- > 0;) {
      const std::size_t p = order[k];
      for (std::size_t later = k + 1; later < size_; ++later) subtract(p, order[later]);
      solve.push_back({lane_code::multiply, right(p), right(p), inverse_[p], right(p)});
    }
  }

  std::size_t size_;
  std::vector<std::uint32_t> place_;
  std::vector<bool> left_;
  std::vector<std::uint32_t> inverse_;
};

}  // namespace

void lane_integrator::prepare_rosenbrock() {
  const auto& entries = program_.jacobian_entries();
  const factorisation written(states_, entries);
  factor_ = written.factor;
  solve_ = written.solve;
  first_right_side_ = written.registers;
  jacobian_.fill(entries.size() * block_, 0.0);
  factor_memory_.fill((written.registers - entries.size()) * block_, 0.0);
  std::fill(factor_memory_.data() + block_, factor_memory_.data() + 2 * block_, 1.0);
  factor_registers_.resize(written.registers + states_);
  for (std::size_t k = 0; k < written.registers; ++k)
    factor_registers_[k] = k < entries.size()
                               ? jacobian_.data() + k * block_
                               : factor_memory_.data() + (k - entries.size()) * block_;
  jacobian_section_.write_to(slope(at_start), block_);
  for (std::size_t e = 0; e < entries.size(); ++e)
    jacobian_section_.write_to(states_ + e, jacobian_.data() + e * block_);
  for (std::size_t k = 0; k < program_.time_slopes().size(); ++k)
    jacobian_section_.write_to(states_ + entries.size() + k,
                               time_slope_.data() + program_.time_slopes()[k] * block_);
}

void lane_integrator::take_rosenbrock_steps() {
  jacobian_section_.run(kernel_, shape_.lanes);
  add_input(slope(at_start));
  if (fresh_)
    kernel_.first_steps(clocks_, x_.data(), slope(at_start), tolerance_, first_share, shape_);
  fresh_ = false;
  kernel_.choose_steps(clocks_, shape_.lanes);
  double* const shift = factor_memory_.data();
  for (std::size_t lane = 0; lane < shape_.lanes; ++lane) {
    inverse_step_[lane] = 1.0 / taken_[lane];
    shift[lane] = 1.0 / (gamma * taken_[lane]);
  }
  kernel_.run(factor_.data(), factor_.size(), factor_registers_.data(), shape_.lanes);

  const bool own_slope = !program_.time_slopes().empty();
  const auto add_time_slope = [&](double* right, double weight) {
    if (!own_slope || weight == 0.0) return;
    const double* const of_time = time_slope_.data();
    kernel_.combine(right, right, taken_.data(), {&weight, &of_time, 1}, shape_);
  };
  const auto solve_for = [&](double* right) {
    for (std::size_t s = 0; s < states_; ++s)
      factor_registers_[first_right_side_ + s] = right + s * block_;
    kernel_.run(solve_.data(), solve_.size(), factor_registers_.data(), shape_.lanes);
  };
  std::copy(slope(at_start), slope(at_start) + states_ * block_, slope(0));
  add_time_slope(slope(0), first_weight);
  solve_for(slope(0));
  for (std::size_t k = 1; k < stages; ++k) {
    const stage_sums& s = later_stages[k - 1];
    if (k < 6)
      combine(stage_x_.data(), x_.data(), ones_.data(), k, s.states.data(), in_order.data());
    else  // the stage before comes on top
      combine(stage_x_.data(), stage_x_.data(), ones_.data(), 1, &whole, &in_order[k - 1]);
    move_stage_time(s.fraction);
    differentiate(stage_section_, slope(at_stage));
    combine(slope(k), slope(at_stage), inverse_step_.data(), k, s.slopes.data(), in_order.data());
    add_time_slope(slope(k), s.time_weight);
    solve_for(slope(k));
  }
  combine(next_.data(), stage_x_.data(), ones_.data(), 1, &whole, &in_order[stages - 1]);
  finish_steps(5.0, 1, &whole, &in_order[stages - 1], ones_.data());
}

}  // namespace varda
