// SPDX-License-Identifier: Apache-2.0
#include "varda/draft/features.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace varda {

namespace {

constexpr double unknown = std::numeric_limits<double>::quiet_NaN();

double median(std::vector<double> values) {
  std::erase_if(values, [](double x) { return !std::isfinite(x); });
  if (values.empty()) return unknown;
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

struct point {
  double time;
  double value;
};

// The values of an endpoint; a censored one stands at its limit.
std::vector<point> points_of(const subject& who, int endpoint) {
  std::vector<point> all;
  for (const observation& o : who.observations)
    if (o.endpoint == endpoint && std::isfinite(o.value)) all.push_back({o.time, o.value});
  return all;
}

// Least squares over the logarithms of the last points that are above 0, three at least where there
// are so many behind the largest.
double terminal_slope(const std::vector<point>& all) {
  std::vector<point> used;
  for (auto p = all.rbegin(); p != all.rend() && used.size() < 3; ++p)
    if (p->value > 0.0) used.push_back(*p);
  if (used.size() < 2) return unknown;
  double t = 0.0, y = 0.0, tt = 0.0, ty = 0.0;
  for (const point& p : used) {
    t += p.time / static_cast<double>(used.size());
    y += std::log(p.value) / static_cast<double>(used.size());
  }
  for (const point& p : used) {
    tt += (p.time - t) * (p.time - t);
    ty += (p.time - t) * (std::log(p.value) - y);
  }
  return ty < 0.0 ? -ty / tt : unknown;
}

struct seen {
  std::vector<double> dose, cmax, tmax, lambda, clearance, above, baseline, extreme, growth,
      duration;
};

void look_at_concentrations(const subject& who, int endpoint, bool absorbed, seen& to) {
  const std::vector<point> all = points_of(who, endpoint);
  if (all.empty() || who.doses.empty()) return;
  const point* top = &all.front();
  for (const point& p : all) {
    if (p.value > top->value) top = &p;
    if (p.value > 0.0) to.above.push_back(p.value);
  }
  double before = who.doses.front().time;
  double given = 0.0;
  for (const dose& d : who.doses) {
    if (d.time <= top->time) before = d.time;
    if (d.time <= all.back().time) given += d.amount;
  }
  const double lambda = terminal_slope(all);
  to.cmax.push_back(top->value);
  to.tmax.push_back(top->time - before);
  to.lambda.push_back(lambda);
  const double begin = who.doses.front().time;
  point last = {begin, absorbed ? 0.0 : all.front().value};
  double area = 0.0;
  for (const point& p : all) {
    if (p.time < begin) continue;
    area += 0.5 * (last.value + p.value) * (p.time - last.time);
    last = p;
  }
  if (last.value > 0.0) area += last.value / lambda;
  if (area > 0.0 && given > 0.0) to.clearance.push_back(given / area);
}

void look_at_response(const subject& who, int endpoint, seen& to) {
  const std::vector<point> all = points_of(who, endpoint);
  if (all.empty()) return;
  const point& first = all.front();
  const point* far = &first;
  for (const point& p : all)
    if (std::fabs(p.value - first.value) > std::fabs(far->value - first.value)) far = &p;
  to.baseline.push_back(first.value);
  to.extreme.push_back(far->value);
  if (far->time > first.time && far->value > 0.0 && first.value > 0.0)
    to.growth.push_back(std::fabs(std::log(far->value / first.value)) / (far->time - first.time));
}

}  // namespace

const std::vector<std::string>& feature_names() {
  static const std::vector<std::string> names = {"dose",     "cmax",    "tmax",   "cmid",
                                                 "lambda",   "CL",      "V",      "ka",
                                                 "baseline", "extreme", "growth", "duration"};
  return names;
}

std::map<std::string, double> features_of(const dataset& data, int concentration, int response,
                                          bool absorbed) {
  seen all;
  for (const subject& who : data.subjects) {
    for (const dose& d : who.doses)
      if (d.amount > 0.0) all.dose.push_back(d.amount);
    if (who.observations.empty()) continue;
    all.duration.push_back(who.observations.back().time - who.timeline.front().time);
    if (concentration >= 0) look_at_concentrations(who, concentration, absorbed, all);
    if (response >= 0) look_at_response(who, response, all);
  }
  const double lambda = median(all.lambda);
  const double tmax = median(all.tmax);
  const double clearance = median(all.clearance);
  return {{"dose", median(all.dose)},
          {"cmax", median(all.cmax)},
          {"tmax", tmax},
          {"cmid", median(all.above)},
          {"lambda", lambda},
          {"CL", clearance},
          {"V", clearance / lambda},
          {"ka", tmax > 0.0 ? std::fmax(3.0 / tmax, 2.0 * lambda) : 10.0 * lambda},
          {"baseline", median(all.baseline)},
          {"extreme", median(all.extreme)},
          {"growth", median(all.growth)},
          {"duration", median(all.duration)}};
}

}  // namespace varda
