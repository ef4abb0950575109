// SPDX-License-Identifier: Apache-2.0
#include "tests/varda/compartment_reference.h"

#include <algorithm>
#include <boost/numeric/odeint.hpp>

namespace test {

namespace {

using amounts = std::vector<double>;

// A bolus where begin and end are the same.
struct input {
  double begin, end;
  std::size_t compartment;
  double amount, rate;
};

amounts inflow(const compartments& m, const std::vector<input>& inputs, double middle) {
  amounts rates(m.to.size() + 2);
  for (const input& in : inputs)
    if (in.begin < middle && middle < in.end) rates[in.compartment] += in.rate;
  return rates;
}

void integrate(const compartments& m, const amounts& rates, amounts& x, double from, double to) {
  namespace odeint = boost::numeric::odeint;
  const auto slope = [&](const amounts& a, amounts& d, double) {
    d = rates;
    d[0] += m.ka * a.back() - m.elimination * a[0];
    d.back() -= m.ka * a.back();
    for (std::size_t j = 0; j < m.to.size(); ++j) {
      const double net = m.to[j] * a[0] - m.from[j] * a[j + 1];
      d[0] -= net;
      d[j + 1] += net;
    }
  };
  odeint::integrate_adaptive(
      odeint::make_controlled<odeint::runge_kutta_fehlberg78<amounts>>(1e-13, 1e-13), slope, x,
      from, to, 1e-3 * (to - from));
}

// Moves x over (from, to]; what begins at `from` as a bolus is in x already.
void advance(const compartments& m, const std::vector<input>& inputs, amounts& x, double from,
             double to) {
  std::vector<double> stops = {to};
  for (const input& in : inputs)
    for (const double t : {in.begin, in.end})
      if (from < t && t < to) stops.push_back(t);
  std::sort(stops.begin(), stops.end());
  for (const double stop : stops) {
    if (stop > from) integrate(m, inflow(m, inputs, 0.5 * (from + stop)), x, from, stop);
    for (const input& in : inputs)
      if (in.begin == in.end && from < in.begin && in.begin <= stop) x[in.compartment] += in.amount;
    from = std::max(from, stop);
  }
}

input one_input(const compartments& m, const varda::dose& d, double time) {
  const bool oral = m.ka > 0.0;
  const bool extravascular = oral && d.compartment == 1;
  const std::size_t depot = m.to.size() + 1;
  const auto place = static_cast<std::size_t>(d.compartment - (oral ? 2 : 1));
  input in{time, time, extravascular ? depot : place, d.amount, d.rate};
  if (extravascular || !oral) {
    in.amount *= m.bioavailability;
    in.begin = in.end = time + m.lag;
  }
  const bool absorbed = m.zero_order && d.compartment == 1 && d.input == varda::dose_input::bolus;
  if (absorbed || d.input == varda::dose_input::modelled_duration)
    in.rate = in.amount / m.duration;
  else if (d.input == varda::dose_input::modelled_rate)
    in.rate = m.rate;
  if (in.rate > 0.0) in.end += in.amount / in.rate;
  return in;
}

}  // namespace

std::vector<double> integrate(const varda::subject& who, const std::vector<compartments>& model) {
  constexpr int long_ago = 400;  // doses
  std::vector<double> f(who.observations.size());
  compartments m = model[0];
  amounts x(m.to.size() + 2);
  std::vector<input> inputs;
  double now = who.timeline.front().time;
  const auto give = [&](const input& in) {
    if (in.begin == in.end && in.begin <= now) x[in.compartment] += in.amount;
    if (in.end > now) inputs.push_back(in);
  };
  for (const varda::event& e : who.timeline) {
    advance(m, inputs, x, now, e.time);
    now = e.time;
    const auto at = static_cast<std::size_t>(e.index);
    if (e.kind == varda::event_kind::observation) f[at] = x[0] / m.volume;
    if (e.kind == varda::event_kind::segment) m = model[at % model.size()];
    if (e.kind == varda::event_kind::reset) {
      std::fill(x.begin(), x.end(), 0.0);
      inputs.clear();
    }
    if (e.kind != varda::event_kind::dose) continue;
    const varda::dose& d = who.doses[at];
    std::vector<input> earlier;
    for (int k = long_ago; d.steady_state && d.interval > 0.0 && k > 0; --k)
      earlier.push_back(one_input(m, d, now - k * d.interval));
    input last = one_input(m, d, now);
    if (d.steady_state && d.interval == 0.0) {
      last.end = last.begin;
      last.begin = now - long_ago * 5.0;
      last.amount = 0.0;
      earlier.push_back(last);
    }
    if (!earlier.empty()) {
      amounts before(x.size());
      advance(m, earlier, before, earlier.front().begin - 1.0, now);
      for (std::size_t c = 0; c < x.size(); ++c) x[c] += before[c];
      for (const input& in : earlier)
        if (in.end > now) inputs.push_back(in);
    }
    if (last.begin >= now) give(last);
  }
  return f;
}

}  // namespace test
