// SPDX-License-Identifier: Apache-2.0
//
// Formulas as a graph of values in which equal ones exist once. Values know what they move with,
// and can be differentiated.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <tuple>
#include <utility>
#include <vector>

#include "varda/formula/operation.h"

namespace varda {

class lane_graph {
 public:
  using value = std::uint32_t;
  // As bits: what changes it between two events.
  enum movement : unsigned { on_nothing = 0, on_time = 1, on_states = 2 };
  enum class node_kind { number, input, operation };
  struct node {
    node_kind kind = node_kind::number;
    double number = 0.0;
    std::uint32_t input = 0;
    lane_code code = lane_code::copy;
    std::array<value, 3> operands{};
    unsigned moves_with = on_nothing;
  };

  value number(double x);
  // Inputs have numbers of the caller's choice.
  value input(std::uint32_t which, unsigned moves_with);
  value apply(lane_code code, value a, value b = 0, value c = 0);

  // Of `what` by an input. Products with 0 vanish, whatever the other factor.
  value derivative(value what, value by);
  // `what` where all states are 0, likewise.
  value without_states(value what);
  // `what` with an input replaced.
  value with(value what, value input, value by);

  const node& at(value v) const { return nodes_[v]; }
  bool is_number(value v, double x) const {
    return nodes_[v].kind == node_kind::number && nodes_[v].number == x;
  }
  static std::size_t operands_of(lane_code code);

 private:
  using key = std::tuple<node_kind, std::uint64_t, lane_code, value, value, value>;

  value intern(const node& one);
  value whole_power(value base, int exponent);
  // As apply; values by which a derivative is multiplied need not be finite.
  value product(value a, value b);
  value quotient(value a, value b);
  value sum(value a, value b) { return apply(lane_code::add, a, b); }
  value difference(value a, value b) { return apply(lane_code::subtract, a, b); }
  value normal_density(value x);
  value find_derivative(value what, value by);

  std::vector<node> nodes_;
  std::map<key, value> known_;
  std::map<std::pair<value, value>, value> derivatives_;
  std::map<value, value> without_states_;
};

}  // namespace varda
