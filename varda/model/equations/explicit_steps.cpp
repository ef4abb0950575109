// SPDX-License-Identifier: Apache-2.0
//
// Verner's pair: J. H. Verner, Numerically optimal Runge-Kutta pairs with interpolants, Numer.
// Algorithms 53 (2010), the efficient pair of orders 7 and 6 with ten stages.
#include <algorithm>
#include <array>

#include "varda/model/equations/lane_integrator.h"

namespace varda {

namespace {

// Stages count from 0.
struct stage_sum {
  double fraction = 0.0;  // of the step
  std::size_t count = 0;
  std::array<std::size_t, lane_terms::most_terms> stages{};
  std::array<double, lane_terms::most_terms> weights{};
};

constexpr std::array<stage_sum, 9> inner_stages = {{
    {0.005, 1, {0}, {0.005}},
    {0.1088888888888889, 2, {0, 1}, {-1.07679012345679, 1.185679012345679}},
    {0.16333333333333333, 2, {0, 2}, {0.04083333333333333, 0.1225}},
    {0.4555, 3, {0, 2, 3}, {0.6389139236255726, -2.455672638223657, 2.272258714598084}},
    {0.6095094489978381,
     4,
     {0, 2, 3, 4},
     {-2.6615773750187572, 10.804513886456137, -8.3539146573962, 0.820487594956657}},
    {0.884,
     5,
     {0, 2, 3, 4, 5},
     {6.067741434696772, -24.711273635911088, 20.427517930788895, -1.9061579788166472,
      1.006172249242068}},
    {0.925,
     6,
     {0, 2, 3, 4, 5, 6},
     {12.054670076253203, -49.75478495046899, 41.142888638604674, -4.461760149974004,
      2.042334822239175, -0.09834843665406107}},
    {1,
     7,
     {0, 2, 3, 4, 5, 6, 7},
     {10.138146522881808, -42.6411360317175, 35.76384003992257, -4.3480228403929075,
      2.0098622683770357, 0.3487490460338272, -0.27143900510483127}},
    {1,
     6,
     {0, 2, 3, 4, 5, 6},
     {-45.030072034298676, 187.3272437654589, -154.02882369350186, 18.56465306347536,
      -7.141809679295079, 1.3088085781613787}},
}};
constexpr stage_sum solution = {
    1.0,
    7,
    {0, 3, 4, 5, 6, 7, 8},
    {0.04715561848627222, 0.25750564298434153, 0.26216653977412624, 0.15216092656738558,
     0.4939969170032485, -0.29430311714032503, 0.08131747232495111}};
// The solution less that of order 6.
constexpr stage_sum error = {
    0.0,
    8,
    {0, 3, 4, 5, 6, 7, 8, 9},
    {0.002547011879931045, -0.00965839487279575, 0.04206470975639691, -0.0666822437469301,
     0.2650097464621281, -0.29430311714032503, 0.08131747232495111, -0.02029518466335628}};
// The state behind the last stage less that behind the one before, at the same time.
constexpr stage_sum last_two = {
    1.0,
    7,
    {0, 2, 3, 4, 5, 6, 7},
    {-55.168218557180484, 229.9683797971764, -189.79266373342443, 22.9126759038682675,
     -9.1516719476721147, 0.9600595321275515, 0.27143900510483127}};

// The step from a standstill, as a share of the time in which the state changes by its own size.
constexpr double first_share = 0.05;

// A step times the largest eigenvalue is at most 4.64 on the real axis where steps are held down by
// stability. So many steps near it, without as many as `calm` on end that are not, call for the
// other method (Hairer and Wanner, Solving Ordinary Differential Equations II, IV.2). Few steps
// between two stops are no reason.
constexpr double limit = 3.7;
constexpr int most_suspicious = 15;
constexpr int calm = 6;
constexpr double tolerated_tries = 8.0;

}  // namespace

void lane_integrator::take_explicit_steps() {
  differentiate(step_section_, slope(0));
  if (fresh_) kernel_.first_steps(clocks_, x_.data(), slope(0), tolerance_, first_share, shape_);
  fresh_ = false;
  kernel_.choose_steps(clocks_, shape_.lanes);
  for (std::size_t k = 0; k < inner_stages.size(); ++k) {
    const stage_sum& s = inner_stages[k];
    move_stage_time(s.fraction);
    combine(stage_x_.data(), x_.data(), taken_.data(), s.count, s.weights.data(), s.stages.data());
    differentiate(stage_section_, slope(k + 1));
  }
  combine(next_.data(), x_.data(), taken_.data(), solution.count, solution.weights.data(),
          solution.stages.data());
  finish_steps(7.0, error.count, error.weights.data(), error.stages.data(), taken_.data());
  if (settings_.method == solver_method::automatic) note_stiff_lanes();
}

void lane_integrator::note_stiff_lanes() {
  const double* const tries = tries_.data();
  if (std::none_of(tries, tries + active_, [](double n) { return n >= tolerated_tries; })) return;
  const double* blocks[lane_terms::most_terms];
  for (std::size_t k = 0; k < last_two.count; ++k) blocks[k] = slope(last_two.stages[k]);
  kernel_.near_limit(near_limit_.data(), slope(9), slope(8),
                     {last_two.weights.data(), blocks, last_two.count}, x_.data(), limit,
                     tolerance_, shape_);
  for (std::size_t lane = 0; lane < active_; ++lane) {
    occupant& o = occupants_[lane];
    if (tries[lane] < tolerated_tries || !(error_[lane] <= 1.0)) continue;
    if (near_limit_[lane] == 0.0) {
      if (++o.calm_steps == calm) o.suspicious_steps = 0;
      continue;
    }
    o.calm_steps = 0;
    if (++o.suspicious_steps < most_suspicious) continue;
    stiff_[lane] = 1;
    std::uint8_t& events = events_[lane / lane_quantum];
    events = static_cast<std::uint8_t>(events | 1U << lane % lane_quantum);
  }
}

}  // namespace varda
