// SPDX-License-Identifier: Apache-2.0
#include "varda/model/closed/absorption_twin.h"

#include <cmath>
#include <cstddef>

namespace varda {

namespace {

// The lambda in the interval between the rates `back` in which `absorption` lies. In each of them
// the characteristic polynomial changes its sign once.
double lambda_beside(double absorption, double elimination, const std::vector<double>& to,
                     const std::vector<double>& back) {
  double leaving = elimination;
  for (const double rate : to) leaving += rate;
  const auto characteristic = [&](double lambda) {
    double whole = lambda - leaving;
    for (const double z : back) whole *= lambda - z;
    for (std::size_t j = 0; j < back.size(); ++j) {
      double returned = to[j] * back[j];
      for (std::size_t i = 0; i < back.size(); ++i)
        if (i != j) returned *= lambda - back[i];
      whole -= returned;
    }
    return whole;
  };
  double low = 0.0;
  double high = 2.0 * leaving;
  for (const double z : back) high += 2.0 * z;
  for (const double z : back) {
    if (z < absorption)
      low = std::fmax(low, z);
    else
      high = std::fmin(high, z);
  }
  const bool rises = characteristic(high) > 0.0;
  for (;;) {
    const double middle = 0.5 * (low + high);
    if (!(low < middle && middle < high)) return middle;
    ((characteristic(middle) > 0.0) == rises ? high : low) = middle;
  }
}

}  // namespace

oral_compartments absorption_twin(const oral_compartments& one) {
  std::vector<double> to, back;
  for (std::size_t j = 0; j < one.exchange.size(); ++j) {
    to.push_back(one.exchange[j] / one.volume);
    back.push_back(one.exchange[j] / one.peripheral[j]);
  }
  const double lambda = lambda_beside(one.absorption, one.clearance / one.volume, to, back);
  const double larger = lambda / one.absorption;
  oral_compartments result = one;
  result.absorption = lambda;
  result.volume *= larger;
  for (std::size_t j = 0; j < back.size(); ++j) {
    const double factor = larger * (back[j] - one.absorption) / (back[j] - lambda);
    result.exchange[j] *= factor;
    result.peripheral[j] *= factor;
  }
  return result;
}

std::optional<oral_compartments> oral_compartments_from(
    const std::function<double(const std::string&)>& value) {
  const auto first = [&](const char* one, const char* other) {
    const double found = value(one);
    return std::isnan(found) ? value(other) : found;
  };
  oral_compartments result;
  result.absorption = value("ka");
  result.volume = first("V", "V1");
  result.clearance = value("CL");
  if (std::isnan(result.clearance)) result.clearance = value("k") * result.volume;
  const auto add = [&](double exchange, double volume) {
    if (std::isnan(exchange) || std::isnan(volume)) return;
    result.exchange.push_back(exchange);
    result.peripheral.push_back(volume);
  };
  const auto add_rates = [&](const char* to, const char* from) {
    const double exchange = value(to) * result.volume;
    add(exchange, exchange / value(from));
  };
  add(value("Q"), value("V2"));
  add(value("Q2"), value("V2"));
  add(value("Q3"), value("V3"));
  add_rates("k12", "k21");
  add_rates("k13", "k31");
  const auto positive = [](double x) { return std::isfinite(x) && x > 0.0; };
  bool usable =
      positive(result.absorption) && positive(result.volume) && positive(result.clearance);
  for (const double x : result.exchange) usable = usable && positive(x);
  for (const double x : result.peripheral) usable = usable && positive(x);
  return usable ? std::optional(result) : std::nullopt;
}

}  // namespace varda
