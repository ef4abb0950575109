// SPDX-License-Identifier: Apache-2.0
//
// The exact motion of a mammillary system with an optional depot before it under constant inputs.
// Compartments count from 0 here: the central one, the peripheral ones, and last the depot.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>

#include "varda/model/closed/decays.h"
#include "varda/model/closed/exponentials.h"
#include "varda/model/closed/mammillary.h"

namespace varda {

template <int N>
class compartment_system {
 public:
  static constexpr std::size_t depot = N;

  // Amounts per time into each compartment.
  using inputs = std::array<double, N + 1>;

  // What stands in the compartments: orthogonal coordinates of the mammillary system, each of which
  // decays at one rate, and the amount in the depot.
  struct state {
    std::array<double, N> mode{};
    double depot = 0.0;

    void add(const state& other) {
      for (std::size_t i = 0; i < N; ++i) mode[i] += other.mode[i];
      depot += other.depot;
    }
  };

  compartment_system() = default;
  // The depot empties at rate `ka`; without a depot its value does not matter.
  compartment_system(const mammillary<N>& rates, double ka) : ka_(ka), spectrum_(decompose(rates)) {
    for (std::size_t i = 0; i < N; ++i) {
      per_volume_[i] = spectrum_.vector[0][i] / rates.volume;
      from_depot_[i] = spectrum_.vector[0][i] * ka;
    }
  }

  double concentration(const state& x) const {
    double sum = 0.0;
    for (std::size_t i = 0; i < N; ++i) sum += per_volume_[i] * x.mode[i];
    return sum;
  }

  void add_amount(state& x, std::size_t compartment, double amount) const {
    if (compartment == depot) {
      x.depot += amount;
      return;
    }
    const double scaled = amount / spectrum_.scale[compartment];
    for (std::size_t i = 0; i < N; ++i) x.mode[i] += spectrum_.vector[compartment][i] * scaled;
  }

  // The state of this system with the amounts that stand in `x` of another.
  state taken_over(const state& x, const compartment_system& other) const {
    state result;
    for (std::size_t c = 0; c < N; ++c) {
      double amount = 0.0;
      for (std::size_t i = 0; i < N; ++i) amount += other.spectrum_.vector[c][i] * x.mode[i];
      add_amount(result, c, amount * other.spectrum_.scale[c]);
    }
    result.depot = x.depot;
    return result;
  }

  // Moves `x` on by t without inputs.
  void advance(state& x, double t) {
    decay_over(t);
    for (std::size_t i = 0; i < N; ++i) x.mode[i] *= decay_[i];
    if (x.depot == 0.0) return;
    absorb_over(t);
    for (std::size_t i = 0; i < N; ++i) x.mode[i] += x.depot * transfer_[i];
    x.depot *= absorption_;
  }

  static constexpr std::size_t longest_run = 32;

  // Moves `x` on without inputs through `count` ascending times above 0, counted from the present
  // and at most longest_run of them, and writes the concentrations there into f. The same as as
  // many steps, in loops without branches: this is where estimations spend their time.
  void follow(state& x, const double* t, std::size_t count, double* f) const {
    double absorbed[longest_run], left[longest_run], moved[longest_run];
    const bool fed = x.depot != 0.0;
    if (fed) decays(ka_, t, count, absorbed);
    for (std::size_t i = 0; i < N; ++i) {
      const double rate = spectrum_.rate[i];
      decays(rate, t, count, left);
      if (!fed) {
        for (std::size_t j = 0; j < count; ++j) left[j] *= x.mode[i];
      } else {
        std::size_t close = 0;
        const double difference = ka_ - rate;
        for (; close < count && std::fabs(difference) * t[close] <= plain_difference; ++close)
          moved[close] = bateman(ka_, rate, t[close], absorbed[close], left[close]);
        const double inverse = 1.0 / difference;
        for (std::size_t j = close; j < count; ++j) moved[j] = (left[j] - absorbed[j]) * inverse;
        const double flow = x.depot * from_depot_[i];
        for (std::size_t j = 0; j < count; ++j) left[j] = left[j] * x.mode[i] + flow * moved[j];
      }
      x.mode[i] = left[count - 1];
      const double share = per_volume_[i];
      if (i == 0)
        for (std::size_t j = 0; j < count; ++j) f[j] = share * left[j];
      else
        for (std::size_t j = 0; j < count; ++j) f[j] += share * left[j];
    }
    if (fed) x.depot *= absorbed[count - 1];
  }

  // Moves `x` on by t under constant inputs.
  void advance(state& x, double t, const inputs& rate) {
    advance(x, t);
    state forced;
    for (std::size_t c = 0; c < N; ++c)
      if (rate[c] != 0.0) add_amount(forced, c, rate[c]);
    for (std::size_t i = 0; i < N; ++i)
      x.mode[i] += forced.mode[i] * exposure(spectrum_.rate[i], t, decay_[i]);
    if (rate[depot] == 0.0) return;
    for (std::size_t i = 0; i < N; ++i)
      x.mode[i] += rate[depot] * from_depot_[i] * bateman_exposure(ka_, spectrum_.rate[i], t);
    absorb_over(t);
    x.depot += rate[depot] * exposure(ka_, t, absorption_);
  }

  // The sum of what has become of `x` after age, age + interval, age + 2 interval, ...;
  // 0 <= age <= interval.
  state repeated(const state& x, double age, double interval) const {
    state sum;
    for (std::size_t i = 0; i < N; ++i) {
      const double rate = spectrum_.rate[i];
      sum.mode[i] = x.mode[i] * decay_sum(rate, age, interval);
      if (x.depot != 0.0)
        sum.mode[i] += x.depot * from_depot_[i] * bateman_sum(ka_, rate, age, interval);
    }
    if (x.depot != 0.0) sum.depot = x.depot * decay_sum(ka_, age, interval);
    return sum;
  }

  // The state in which constant inputs and elimination balance.
  state balanced(const inputs& rate) const {
    state result;
    for (std::size_t c = 0; c < N; ++c) add_amount(result, c, rate[c]);
    add_amount(result, 0, rate[depot]);
    for (std::size_t i = 0; i < N; ++i) result.mode[i] /= spectrum_.rate[i];
    if (rate[depot] != 0.0) result.depot = rate[depot] / ka_;
    return result;
  }

 private:
  // The exponentials are most of the cost, and many histories repeat their intervals.
  void decay_over(double t) {
    if (t == decayed_) return;
    for (std::size_t i = 0; i < N; ++i) decay_[i] = std::exp(-spectrum_.rate[i] * t);
    decayed_ = t;
  }

  void absorb_over(double t) {
    if (t == absorbed_) return;
    absorption_ = std::exp(-ka_ * t);
    for (std::size_t i = 0; i < N; ++i)
      transfer_[i] = from_depot_[i] * bateman(ka_, spectrum_.rate[i], t, absorption_, decay_[i]);
    absorbed_ = t;
  }

  double ka_ = 0.0;
  spectrum<N> spectrum_{};
  std::array<double, N> per_volume_{};  // the concentration of a unit of each coordinate
  std::array<double, N> from_depot_{};  // flow into each coordinate per amount in the depot
  std::array<double, N> decay_{};       // exp(-rate t) for t = decayed_
  double decayed_ = -1.0;
  double absorption_ = 0.0;           // exp(-ka t) for t = absorbed_
  std::array<double, N> transfer_{};  // from the depot to the coordinates in that time
  double absorbed_ = -1.0;
};

}  // namespace varda
