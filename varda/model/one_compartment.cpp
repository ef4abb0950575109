// SPDX-License-Identifier: Apache-2.0
#include "varda/model/one_compartment.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace varda {

namespace {

constexpr int depot = 1;

bool all_positive(std::span<const double> p) {
  return std::all_of(p.begin(), p.end(), [](double x) { return x > 0.0 && std::isfinite(x); });
}

void fill_with_nan(std::span<double> f) {
  std::fill(f.begin(), f.end(), std::numeric_limits<double>::quiet_NaN());
}

// 1 - exp(-x) for x >= 0. Beyond log 2 the difference loses nothing, and exp takes half the time.
double saturation(double x) {
  return x > std::numbers::ln2 ? 1.0 - std::exp(-x) : -std::expm1(-x);
}

}  // namespace

double bateman(double ka, double k, double t) {
  // exp(-s t) (1 - exp(-d t)) / d with the slower rate s and d = |ka - k|: symmetric in the rates,
  // and neither exponential can overflow. Where d t is below the rounding of 1 the quotient is t,
  // which also covers equal rates and a product that underflows.
  const double slower = std::min(ka, k);
  const double d = std::fabs(ka - k);
  const double decay = std::exp(-slower * t);
  return d * t > 1e-17 ? decay * (saturation(d * t) / d) : decay * t;
}

// Calls add(dose, t, sum) for every dose that stands before an observation, t the time between the
// two, and writes the sums divided by the volume.
template <class Add>
void superpose(const subject& who, double volume, std::span<double> f, Add add) {
  std::size_t given = 0;
  for (const event& e : who.timeline) {
    if (e.kind == event_kind::dose) ++given;
    if (e.kind != event_kind::observation) continue;
    double amount = 0.0;
    for (std::size_t j = 0; j < given; ++j) amount += add(who.doses[j], e.time - who.doses[j].time);
    f[static_cast<std::size_t>(e.index)] = amount / volume;
  }
}

const std::vector<std::string>& one_compartment_bolus::parameter_names() const {
  static const std::vector<std::string> names = {"CL", "V"};
  return names;
}

void one_compartment_bolus::predict(const subject& who, const parameter_path& path,
                                    std::span<double> f) const {
  const std::span<const double> p = path.in_segment(0);
  if (!all_positive(p)) return fill_with_nan(f);
  const double k = p[0] / p[1];
  superpose(who, p[1], f, [k](const dose& d, double t) { return d.amount * std::exp(-k * t); });
}

const std::vector<std::string>& one_compartment_oral::parameter_names() const {
  static const std::vector<std::string> names = {"ka", "CL", "V"};
  return names;
}

void one_compartment_oral::predict(const subject& who, const parameter_path& path,
                                   std::span<double> f) const {
  const std::span<const double> p = path.in_segment(0);
  if (!all_positive(p)) return fill_with_nan(f);
  const double ka = p[0];
  const double k = p[1] / p[2];
  superpose(who, p[2], f, [ka, k](const dose& d, double t) {
    return d.amount * (d.compartment == depot ? ka * bateman(ka, k, t) : std::exp(-k * t));
  });
}

}  // namespace varda
