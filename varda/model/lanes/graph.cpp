// SPDX-License-Identifier: Apache-2.0
#include "varda/model/lanes/graph.h"

#include <bit>
#include <cmath>
#include <limits>
#include <numbers>
#include <optional>
#include <utility>

namespace varda {

namespace {

// Whole exponents up to this one are products: exact where the result is, and cheaper.
constexpr int most_factors = 32;

bool commutes(lane_code code) {
  switch (code) {
    case lane_code::add:
    case lane_code::multiply:
    case lane_code::equal:
    case lane_code::not_equal:
    case lane_code::both:
    case lane_code::either:
      return true;
    default:
      return false;
  }
}

// Functions are left to the kernels, whose bits are the same on all machines.
std::optional<double> folded(lane_code code, double a, double b) {
  switch (code) {
    case lane_code::negate:
      return -a;
    case lane_code::add:
      return a + b;
    case lane_code::subtract:
      return a - b;
    case lane_code::multiply:
      return a * b;
    case lane_code::divide:
      return a / b;
    default:
      return std::nullopt;
  }
}

}  // namespace

std::size_t lane_graph::operands_of(lane_code code) {
  switch (code) {
    case lane_code::add:
    case lane_code::subtract:
    case lane_code::multiply:
    case lane_code::divide:
    case lane_code::less:
    case lane_code::less_equal:
    case lane_code::equal:
    case lane_code::not_equal:
    case lane_code::both:
    case lane_code::either:
    case lane_code::minimum:
    case lane_code::maximum:
    case lane_code::power:
    case lane_code::log_gamma_ratio:
    case lane_code::log_normal_share:
      return 2;
    case lane_code::multiply_add:
    case lane_code::multiply_subtract:
    case lane_code::subtract_multiply:
    case lane_code::select:
      return 3;
    default:
      return 1;
  }
}

lane_graph::value lane_graph::intern(const node& one) {
  const std::uint64_t content = one.kind == node_kind::number
                                    ? std::bit_cast<std::uint64_t>(one.number)
                                    : std::uint64_t{one.input};
  const auto [place, added] = known_.try_emplace(
      {one.kind, content, one.code, one.operands[0], one.operands[1], one.operands[2]},
      static_cast<value>(nodes_.size()));
  if (added) nodes_.push_back(one);
  return place->second;
}

lane_graph::value lane_graph::number(double x) {
  return intern({.kind = node_kind::number, .number = x});
}

lane_graph::value lane_graph::input(std::uint32_t which, unsigned moves_with) {
  return intern({.kind = node_kind::input, .input = which, .moves_with = moves_with});
}

lane_graph::value lane_graph::whole_power(value base, int exponent) {
  if (exponent == 1) return base;
  const value half = whole_power(base, exponent / 2);
  const value even = apply(lane_code::multiply, half, half);
  return exponent % 2 == 0 ? even : apply(lane_code::multiply, even, base);
}

lane_graph::value lane_graph::apply(lane_code code, value a, value b, value c) {
  const std::size_t count = operands_of(code);
  const auto is_number = [&](value v) { return nodes_[v].kind == node_kind::number; };
  if (is_number(a) && (count == 1 || (count == 2 && is_number(b))))
    if (const auto x = folded(code, nodes_[a].number, nodes_[b].number)) return number(*x);
  switch (code) {
    case lane_code::add:
      if (this->is_number(a, 0.0)) return b;
      if (this->is_number(b, 0.0)) return a;
      break;
    case lane_code::subtract:
      if (this->is_number(b, 0.0)) return a;
      if (this->is_number(a, 0.0)) return apply(lane_code::negate, b);
      break;
    case lane_code::multiply:
      if (this->is_number(a, 1.0)) return b;
      if (this->is_number(b, 1.0)) return a;
      break;
    case lane_code::divide:
      if (this->is_number(b, 1.0)) return a;
      break;
    case lane_code::negate:
      if (nodes_[a].kind == node_kind::operation && nodes_[a].code == lane_code::negate)
        return nodes_[a].operands[0];
      break;
    case lane_code::select:
      if (is_number(a)) return nodes_[a].number == 0.0 ? c : b;
      if (b == c) return b;
      break;
    case lane_code::power:
      if (is_number(b)) {
        const double y = nodes_[b].number;
        if (y == 0.5) return apply(lane_code::square_root, a);
        if (y == std::floor(y) && y != 0.0 && std::fabs(y) <= most_factors) {
          const value whole = whole_power(a, static_cast<int>(std::fabs(y)));
          return y > 0.0 ? whole : apply(lane_code::divide, number(1.0), whole);
        }
      }
      break;
    default:
      break;
  }
  node one{.kind = node_kind::operation, .code = code, .operands = {a, b, c}};
  for (std::size_t k = count; k < 3; ++k) one.operands[k] = 0;
  for (std::size_t k = 0; k < count; ++k) one.moves_with |= nodes_[one.operands[k]].moves_with;
  if (commutes(code) && one.operands[1] < one.operands[0])
    std::swap(one.operands[0], one.operands[1]);
  return intern(one);
}

lane_graph::value lane_graph::product(value a, value b) {
  if (is_number(a, 0.0) || is_number(b, 0.0)) return number(0.0);
  return apply(lane_code::multiply, a, b);
}

lane_graph::value lane_graph::quotient(value a, value b) {
  return is_number(a, 0.0) ? a : apply(lane_code::divide, a, b);
}

lane_graph::value lane_graph::derivative(value what, value by) {
  const auto known = derivatives_.find({what, by});
  if (known != derivatives_.end()) return known->second;
  const value found = find_derivative(what, by);
  derivatives_[{what, by}] = found;
  return found;
}

lane_graph::value lane_graph::find_derivative(value what, value by) {
  const node n = nodes_[what];  // a copy: the table grows
  const value zero = number(0.0);
  const value one = number(1.0);
  if (n.kind == node_kind::number) return zero;
  if (n.kind == node_kind::input) return what == by ? one : zero;
  const value a = n.operands[0];
  const value b = n.operands[1];
  const value c = n.operands[2];
  const auto slope = [&](value v) { return derivative(v, by); };
  const auto chain = [&](value outer) { return product(outer, slope(a)); };
  switch (n.code) {
    case lane_code::copy:
      return slope(a);
    case lane_code::negate:
      return is_number(slope(a), 0.0) ? zero : apply(lane_code::negate, slope(a));
    case lane_code::add:
      return sum(slope(a), slope(b));
    case lane_code::subtract:
      return difference(slope(a), slope(b));
    case lane_code::multiply:
      return sum(product(slope(a), b), product(a, slope(b)));
    case lane_code::divide:
      return quotient(difference(slope(a), product(what, slope(b))), b);
    case lane_code::multiply_add:
    case lane_code::multiply_subtract:
    case lane_code::subtract_multiply:
      return zero;  // joined only when a graph is written out
    case lane_code::less:
    case lane_code::less_equal:
    case lane_code::equal:
    case lane_code::not_equal:
    case lane_code::both:
    case lane_code::either:
    case lane_code::floor:
    case lane_code::ceiling:
      return zero;
    case lane_code::select:
      return apply(lane_code::select, a, slope(b), slope(c));
    case lane_code::minimum:
      return apply(lane_code::select, apply(lane_code::less, b, a), slope(b), slope(a));
    case lane_code::maximum:
      return apply(lane_code::select, apply(lane_code::less, a, b), slope(b), slope(a));
    case lane_code::power: {
      // b a^b / a, where the power is known; at 0 it stays finite.
      const value not_zero = apply(lane_code::select, a, a, one);
      const value by_base =
          is_number(slope(a), 0.0) ? zero : product(quotient(product(b, what), not_zero), slope(a));
      const value by_exponent =
          is_number(slope(b), 0.0)
              ? zero
              : product(product(what, apply(lane_code::logarithm, a)), slope(b));
      return sum(by_base, by_exponent);
    }
    case lane_code::exponential:
      return chain(what);
    case lane_code::expm1:
      return chain(apply(lane_code::exponential, a));
    case lane_code::logarithm:
      return quotient(slope(a), a);
    case lane_code::log1p:
      return quotient(slope(a), sum(one, a));
    case lane_code::log2:
      return quotient(slope(a), product(number(std::numbers::ln2), a));
    case lane_code::log10:
      return quotient(slope(a), product(number(std::numbers::ln10), a));
    case lane_code::square_root:
      return quotient(slope(a), product(number(2.0), what));
    case lane_code::absolute:
      return apply(lane_code::select, apply(lane_code::less, a, zero),
                   is_number(slope(a), 0.0) ? zero : apply(lane_code::negate, slope(a)), slope(a));
    case lane_code::sine:
      return chain(apply(lane_code::cosine, a));
    case lane_code::cosine:
      return chain(apply(lane_code::negate, apply(lane_code::sine, a)));
    case lane_code::tangent:
      return chain(sum(one, product(what, what)));
    case lane_code::arctangent:
      return quotient(slope(a), sum(one, product(a, a)));
    case lane_code::tanh:
      return chain(difference(one, product(what, what)));
    case lane_code::error_function:
      return chain(product(number(2.0 * std::numbers::inv_sqrtpi),
                           apply(lane_code::exponential, apply(lane_code::negate, product(a, a)))));
    case lane_code::log_gamma:
      return chain(apply(lane_code::digamma, a));
    case lane_code::normal_cdf:
      return chain(normal_density(a));
    case lane_code::log_normal_cdf:
      return chain(apply(lane_code::exponential,
                         difference(apply(lane_code::multiply, number(-0.5), product(a, a)),
                                    sum(what, number(0.5 * std::log(2.0 * std::numbers::pi))))));
    // Formulas cannot name these.
    case lane_code::digamma:
    case lane_code::log_gamma_ratio:
    case lane_code::log_normal_share:
      return number(std::numeric_limits<double>::quiet_NaN());
  }
  return zero;
}

lane_graph::value lane_graph::with(value what, value input, value by) {
  if (what == input) return by;
  const node n = nodes_[what];  // a copy: the table grows
  if (n.kind != node_kind::operation) return what;
  std::array<value, 3> operands{};
  for (std::size_t k = 0; k < operands_of(n.code); ++k)
    operands[k] = with(n.operands[k], input, by);
  return apply(n.code, operands[0], operands[1], operands[2]);
}

lane_graph::value lane_graph::normal_density(value x) {
  const value exponent = apply(lane_code::multiply, number(-0.5), product(x, x));
  return product(number(std::numbers::inv_sqrtpi / std::numbers::sqrt2),
                 apply(lane_code::exponential, exponent));
}

lane_graph::value lane_graph::without_states(value what) {
  const node n = nodes_[what];
  if ((n.moves_with & on_states) == 0) return what;
  if (n.kind == node_kind::input) return number(0.0);
  const auto known = without_states_.find(what);
  if (known != without_states_.end()) return known->second;
  std::array<value, 3> operands{};
  for (std::size_t k = 0; k < operands_of(n.code); ++k) operands[k] = without_states(n.operands[k]);
  const auto [a, b, c] = operands;
  value found = 0;
  if (n.code == lane_code::multiply)
    found = product(a, b);
  else if (n.code == lane_code::divide)
    found = quotient(a, b);
  else if (n.code == lane_code::negate && is_number(a, 0.0))
    found = a;
  else
    found = apply(n.code, a, b, c);
  without_states_[what] = found;
  return found;
}

}  // namespace varda
