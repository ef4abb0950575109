// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/outcome_formulas.h"

#include <cstddef>
#include <limits>

#include "varda/data/observation.h"

namespace varda {

namespace {

using value = lane_graph::value;

// A value with the operators of arithmetic.
struct term {
  lane_graph* graph;
  value at;

  term number(double x) const { return {graph, graph->number(x)}; }
  term made(lane_code code) const { return {graph, graph->apply(code, at)}; }
  term made(lane_code code, term b) const { return {graph, graph->apply(code, at, b.at)}; }
};
term operator+(term a, term b) {
  return a.made(lane_code::add, b);
}
term operator-(term a, term b) {
  return a.made(lane_code::subtract, b);
}
term operator*(term a, term b) {
  return a.made(lane_code::multiply, b);
}
term operator/(term a, term b) {
  return a.made(lane_code::divide, b);
}
term operator-(term a) {
  return a.made(lane_code::negate);
}
term operator<(term a, term b) {
  return a.made(lane_code::less, b);
}
term operator<=(term a, term b) {
  return a.made(lane_code::less_equal, b);
}
term operator==(term a, term b) {
  return a.made(lane_code::equal, b);
}
term operator&&(term a, term b) {
  return a.made(lane_code::both, b);
}
term exp(term a) {
  return a.made(lane_code::exponential);
}
term log(term a) {
  return a.made(lane_code::logarithm);
}
term log1p(term a) {
  return a.made(lane_code::log1p);
}
term choose(term where, term yes, term no) {
  return {where.graph, where.graph->apply(lane_code::select, where.at, yes.at, no.at)};
}
term where_valid(term valid, term what) {
  return choose(valid, what, what.number(std::numeric_limits<double>::quiet_NaN()));
}

// log(1 + exp(x)), without overflow.
term softplus(term x) {
  return x.made(lane_code::maximum, x.number(0.0)) + log1p(exp(-x.made(lane_code::absolute)));
}
// log(1 - exp(-x)) for x above 0.
term log_complement(term x) {
  return log(-(-x).made(lane_code::expm1));
}

// The distribution function behind a link, its logarithm, and the logarithm of what lies between
// two values.
term share_below(link_kind link, term x) {
  return link == link_kind::probit ? x.made(lane_code::normal_cdf)
                                   : x.number(1.0) / (x.number(1.0) + exp(-x));
}
term log_share_below(link_kind link, term x) {
  return link == link_kind::probit ? x.made(lane_code::log_normal_cdf) : -softplus(-x);
}
term log_share_between(link_kind link, term a, term b) {
  if (link == link_kind::probit) return a.made(lane_code::log_normal_share, b);
  // With F(x) = 1 / (1 + exp(-x)): F(b) - F(a) = F(b) F(-a) (1 - exp(a - b)).
  return log_complement(b - a) - softplus(-b) - softplus(a);
}

}  // namespace

int law_parameters(const outcome_text& of) {
  switch (of.kind) {
    case endpoint_kind::poisson:
    case endpoint_kind::zero_inflated_poisson:
    case endpoint_kind::event:
      return 2;
    case endpoint_kind::negative_binomial:
    case endpoint_kind::zero_inflated_negative_binomial:
      return 3;
    case endpoint_kind::binary:
      return 1;
    case endpoint_kind::ordinal:
      return static_cast<int>(of.levels.size()) - 1;
    case endpoint_kind::normal:
    case endpoint_kind::log_likelihood:
      break;
  }
  return 0;
}

// Poisson with mean m: y log m - m - log y!. Negative binomial with variance m + a m^2, r = 1 / a:
// log(Gamma(r + y) / Gamma(r)) - log y! - (r + y) log(1 + a m) + y log(a m).
outcome_graph count_graph(lane_graph& graph, const outcome_row& row, value mean,
                          const value* dispersion, const value* zero_inflation) {
  const term y{&graph, row.observed};
  const term log_factorial{&graph, row.log_factorial};
  const term m{&graph, mean};
  const term zero = m.number(0.0);
  const term one = m.number(1.0);
  term none = -m;  // log P(0) of the count itself
  term some = (y * log(m) - m) - log_factorial;
  term valid = zero <= m;
  if (dispersion != nullptr) {
    const term a{&graph, *dispersion};
    const term r = one / a;
    const term am = a * m;
    none = -(r * log1p(am));
    some = (r.made(lane_code::log_gamma_ratio, y) - log_factorial) +
           (y * log(am) - (r + y) * log1p(am));
    valid = valid && (zero < a);
  }
  term expected = m;
  term share = zero;
  if (zero_inflation != nullptr) {
    share = {&graph, *zero_inflation};
    valid = valid && (zero <= share && share <= one);
    none = log(share + (one - share) * exp(none));
    some = log1p(-share) + some;
    expected = (one - share) * m;
  }
  outcome_graph result = {where_valid(valid, choose(y == zero, none, some)).at,
                          where_valid(valid, expected).at, where_valid(valid, m).at, share.at};
  if (dispersion != nullptr) result.push_back(*dispersion);
  return result;
}

outcome_graph binary_graph(lane_graph& graph, const outcome_row& row, value probability) {
  const term y{&graph, row.observed};
  const term p{&graph, probability};
  const term zero = p.number(0.0);
  const term valid = zero <= p && p <= p.number(1.0);
  const value shown = where_valid(valid, p).at;
  return {where_valid(valid, choose(y == zero, log1p(-p), log(p))).at, shown, shown};
}

outcome_graph binary_graph(lane_graph& graph, const outcome_row& row, link_kind link,
                           value predictor) {
  const term y{&graph, row.observed};
  const term x{&graph, predictor};
  const term towards = choose(y == x.number(0.0), -x, x);
  const value p = share_below(link, x).at;
  return {log_share_below(link, towards).at, p, p};
}

outcome_graph ordinal_graph(lane_graph& graph, const outcome_row& row, link_kind link,
                            const std::vector<double>& levels, value predictor,
                            const std::vector<value>& thresholds) {
  const term y{&graph, row.observed};
  const term x{&graph, predictor};
  const std::size_t cuts = thresholds.size();
  std::vector<term> z;
  for (const value t : thresholds) z.push_back(term{&graph, t} - x);
  term valid = x.number(1.0);
  for (std::size_t k = 1; k < cuts; ++k) valid = valid && (z[k - 1] < z[k]);

  const auto is_level = [&](std::size_t k) { return y == x.number(levels[k]); };
  term log_density =
      choose(is_level(0), log_share_below(link, z.front()), log_share_below(link, -z.back()));
  if (cuts > 1) {
    term lower = z[cuts - 2];
    term upper = z[cuts - 1];
    for (std::size_t k = cuts - 1; k-- > 1;) {
      lower = choose(is_level(k), z[k - 1], lower);
      upper = choose(is_level(k), z[k], upper);
    }
    const term at_end = choose(is_level(0), x.number(1.0), is_level(cuts));
    log_density = choose(at_end, log_density, log_share_between(link, lower, upper));
  }

  std::vector<term> below;
  for (const term& one : z) below.push_back(share_below(link, one));
  term expected = x.number(levels.back());
  for (std::size_t k = 0; k < cuts; ++k)
    expected = expected - x.number(levels[k + 1] - levels[k]) * below[k];
  outcome_graph result = {where_valid(valid, log_density).at, where_valid(valid, expected).at};
  for (const term& one : below) result.push_back(where_valid(valid, one).at);
  return result;
}

outcome_graph event_graph(lane_graph& graph, const outcome_row& row, const event_terms& terms) {
  const term known{&graph, row.censoring};
  const term hazard{&graph, terms.hazard};
  const term total{&graph, terms.total};
  const term zero = hazard.number(0.0);
  const auto is = [&](censoring kind) { return known == hazard.number(static_cast<double>(kind)); };
  const term since = total - term{&graph, terms.at_begin};
  const term before = term{&graph, terms.at_limit} - term{&graph, terms.at_begin};
  const term within = choose(is(censoring::interval), before, zero);
  const term in_interval = log_complement(since - within) - within;
  const term log_density = choose(is(censoring::none), log(hazard) - since,
                                  choose(is(censoring::right), -since, in_interval));
  const term valid = zero <= since && zero <= hazard;
  return {where_valid(valid, log_density).at, where_valid(valid, since).at,
          where_valid(zero <= hazard, total).at, where_valid(zero <= hazard, hazard).at};
}

}  // namespace varda
